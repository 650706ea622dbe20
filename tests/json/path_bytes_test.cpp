#include <gtest/gtest.h>
#include <utf8proc.h>

#include <random>

#include "json/CppJson.h"

namespace {

using json::decodePath;
using json::encodePath;

/// The character U+F700 + byte in UTF-8.
std::string byteCharacter(unsigned char byte) {
  utf8proc_uint8_t out[4];
  const auto length = utf8proc_encode_char(0xF700 + byte, out);
  return {reinterpret_cast<const char*>(out), static_cast<std::size_t>(length)};
}

bool isUtf8(const std::string& text) {
  utf8proc_int32_t character = 0;
  for (std::size_t i = 0; i < text.size();) {
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                                         static_cast<utf8proc_ssize_t>(text.size() - i), &character);
    if (length <= 0) {
      return false;
    }
    i += static_cast<std::size_t>(length);
  }
  return true;
}

/// Encodes a path, writes and parses a document, and decodes the path.
std::string acrossTheWire(const std::string& path) {
  Json::Value sent;
  sent["p"] = encodePath(path);
  std::string text;
  Json::Value received;
  EXPECT_TRUE(CppJson::WriteJsonToString(sent, text, 1));
  EXPECT_TRUE(CppJson::LoadJsonString(text, received));
  return decodePath(received["p"].asString());
}

TEST(PathBytes, EveryByteValueRoundTripsAloneAndAmongOthers) {
  for (int value = 0; value < 256; ++value) {
    const std::string byte(1, static_cast<char>(value));
    for (const std::string& path :
         {byte, "/a" + byte, byte + "b", "/文" + byte + "件", byte + byte, "\xe6" + byte}) {
      EXPECT_EQ(decodePath(encodePath(path)), path) << value;
      EXPECT_EQ(acrossTheWire(path), path) << value;
      EXPECT_TRUE(isUtf8(encodePath(path))) << value;
    }
  }
}

TEST(PathBytes, EveryByteValueTravelsAsItselfWhenAsciiElseAsItsCharacter) {
  for (int value = 0; value < 256; ++value) {
    const std::string byte(1, static_cast<char>(value));
    EXPECT_EQ(encodePath(byte), value < 0x80 ? byte : byteCharacter(static_cast<unsigned char>(value)))
        << value;
  }
}

TEST(PathBytes, Utf8TravelsUntouched) {
  for (const char* path :
       {"/plain/ascii", "/中文/文件.txt", "/\xf0\x9f\x98\x80", "/\xee\xbe\x80 U+EF80", ""}) {
    EXPECT_EQ(encodePath(path), path);
    EXPECT_EQ(decodePath(path), path);
  }
}

TEST(PathBytes, ARealCharacterOfTheReservedRangeTravelsByteByByte) {
  for (unsigned character = 0xF780; character <= 0xF7FF; ++character) {
    utf8proc_uint8_t raw[4];
    const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(character), raw);
    const std::string path(reinterpret_cast<const char*>(raw), static_cast<std::size_t>(length));
    std::string expected;
    for (const char byte : path) {
      expected += byteCharacter(static_cast<unsigned char>(byte));
    }
    EXPECT_EQ(encodePath(path), expected);
    EXPECT_EQ(decodePath(expected), path);
  }
}

TEST(PathBytes, NeighboursOfTheReservedRangeTravelUntouched) {
  EXPECT_EQ(encodePath("\xef\x9d\xbf"), "\xef\x9d\xbf");  // U+F77F
  EXPECT_EQ(encodePath("\xef\xa0\x80"), "\xef\xa0\x80");  // U+F800
}

TEST(PathBytes, OverlongSurrogateAndHalfSequencesTravelByteByByte) {
  for (const std::string& path :
       {std::string("\xc0\xaf"), std::string("\xed\xa0\x80"), std::string("\xe4\xb8"),
        std::string("\xf5\x80\x80\x80"), std::string("\xf4\x90\x80\x80")}) {
    std::string expected;
    for (const char byte : path) {
      expected += byteCharacter(static_cast<unsigned char>(byte));
    }
    EXPECT_EQ(encodePath(path), expected);
    EXPECT_EQ(acrossTheWire(path), path);
  }
}

TEST(PathBytes, RandomByteStringsRoundTrip) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 3000; ++round) {
    std::string path;
    for (auto i = random() % 40; i > 0; --i) {
      // Half of the bytes belong to sequences of the reserved range.
      path.push_back(random() % 2 == 0 ? static_cast<char>(random() % 256)
                                       : "\xef\x9e\x9f\x80"[random() % 4]);
    }
    ASSERT_EQ(decodePath(encodePath(path)), path);
    ASSERT_EQ(acrossTheWire(path), path);
  }
}

TEST(PathBytes, DecodingLeavesBrokenTextAsItIs) {
  EXPECT_EQ(decodePath("/a\xff"), "/a\xff");
  EXPECT_EQ(decodePath("\xef\x9e"), "\xef\x9e");
}

TEST(VisiblePath, ShowsBytesThatAreNotUtf8AndControlCharactersEscaped) {
  EXPECT_EQ(json::visiblePath(encodePath("/a\xff\x1b[31m\n")), "/a\\xff\\x1b[31m\\n");
}

TEST(VisiblePath, LeavesPrintableTextUntouched) {
  EXPECT_EQ(json::visiblePath(encodePath("/中文/a b.txt")), "/中文/a b.txt");
}

}  // namespace
