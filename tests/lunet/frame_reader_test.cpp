#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "FrameReader.h"

using lunet::FrameHeader;
using lunet::FrameKind;
using lunet::FrameReader;

namespace {

std::string frame(const std::string& body, std::uint64_t id = 1) {
  FrameHeader header;
  header.id = id;
  header.length = static_cast<std::uint32_t>(body.size());
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + body;
}

/// The bodies that the reader gives for `step` bytes at a time.
std::vector<std::string> feed(FrameReader& reader, std::string_view bytes, std::size_t step) {
  std::vector<std::string> bodies;
  while (!bytes.empty()) {
    const std::span<char> space = reader.space();
    const std::size_t count = std::min({space.size(), bytes.size(), step});
    std::memcpy(space.data(), bytes.data(), count);
    reader.filled(count);
    bytes.remove_prefix(count);
    while (reader.next() == FrameReader::Next::kFrame) {
      bodies.emplace_back(reader.body());
    }
  }
  return bodies;
}

FrameReader::Next feedHeader(FrameReader& reader, const FrameHeader& header) {
  const std::span<char> space = reader.space();
  std::memcpy(space.data(), &header, sizeof header);
  reader.filled(sizeof header);
  return reader.next();
}

}  // namespace

TEST(FrameReaderTest, FramesOfEverySizeSurviveEveryCutting) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 20; ++round) {
    FrameReader reader;
    std::vector<std::string> sent;
    std::string bytes;
    for (int i = 0; i < 30; ++i) {
      const std::size_t limit = random() % 4 == 0 ? 200000 : 500;
      std::string body(random() % limit, '\0');
      std::generate(body.begin(), body.end(), [&] { return static_cast<char>(random()); });
      sent.push_back(std::move(body));
      bytes += frame(sent.back());
    }
    EXPECT_TRUE(feed(reader, bytes, 1 + random() % 70000) == sent);  // EXPECT_EQ would print both
    EXPECT_FALSE(reader.inFrame());
  }
}

TEST(FrameReaderTest, BytewiseArrivalIsNoProblem) {
  FrameReader reader;
  EXPECT_EQ(feed(reader, frame("one") + frame("") + frame("three"), 1),
            (std::vector<std::string>{"one", "", "three"}));
}

TEST(FrameReaderTest, AHalfFrameIsKnownAsSuch) {
  FrameReader reader;
  feed(reader, frame("whole"), 1000);
  EXPECT_FALSE(reader.inFrame());
  feed(reader, frame("half").substr(0, 26), 1000);
  EXPECT_TRUE(reader.inFrame());
}

TEST(FrameReaderTest, AHalfLargeFrameIsKnownAsSuch) {
  FrameReader reader;
  feed(reader, frame(std::string(100000, 'x')).substr(0, sizeof(FrameHeader)), 1000);
  EXPECT_TRUE(reader.inFrame());
}

TEST(FrameReaderTest, AnAnnouncedLengthTakesNoMemoryBeforeItsBytesArrive) {
  FrameReader reader;
  FrameHeader header;
  header.length = lunet::kMaxMessageBytes;
  EXPECT_EQ(feedHeader(reader, header), FrameReader::Next::kMore);
  EXPECT_LE(reader.space().size(), 1u << 20);
  for (int i = 0; i < 20; ++i) {
    reader.space()[0] = 'x';
    reader.filled(1);
    EXPECT_EQ(reader.next(), FrameReader::Next::kMore);
  }
  EXPECT_LE(reader.space().size(), 1u << 20);
}

TEST(FrameReaderTest, ATakenBodyIsTheCallersAndEndsInANul) {
  mallopt(M_PERTURB, 0x5A);  // so that new memory holds no zeroes
  for (const std::size_t size : {std::size_t{0}, std::size_t{5}, std::size_t{100000}}) {
    FrameReader reader;
    const std::string bytes = frame(std::string(size, 'b')) + frame("next");
    std::string_view rest = bytes;
    FrameReader::Next next = FrameReader::Next::kMore;
    while (next == FrameReader::Next::kMore) {
      const std::span<char> space = reader.space();
      const std::size_t count = std::min({space.size(), rest.size(), std::size_t{1000}});
      std::memcpy(space.data(), rest.data(), count);
      reader.filled(count);
      rest.remove_prefix(count);
      next = reader.next();
    }
    ASSERT_EQ(next, FrameReader::Next::kFrame);
    const lunet::MallocBuffer body = reader.takeBody();
    EXPECT_EQ(std::string(body.get()), std::string(size, 'b'));
    if (rest.empty()) {
      ASSERT_EQ(reader.next(), FrameReader::Next::kFrame);
      EXPECT_EQ(reader.body(), "next");
    } else {
      EXPECT_EQ(feed(reader, rest, 1000), std::vector<std::string>{"next"});
    }
  }
  mallopt(M_PERTURB, 0);
}

/// Runs in a fresh process: a fork of this process would have free memory of earlier tests.
class WithoutMemory : public testing::Test {
 protected:
  static constexpr std::size_t kSmall = 20000;
  static constexpr std::size_t kLarge = 100000;

  void SetUp() override {
#ifdef TAV_SANITIZED
    GTEST_SKIP() << "the sanitizers' memory cannot be limited";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  /// Takes all memory in pieces that are smaller than what the call needs, and ends the process: with 0 when
  /// the call throws std::bad_alloc.
  [[noreturn]] static void callWithoutMemory(const std::function<void()>& call) {
    const rlimit limit{1 << 20, 1 << 20};  // below the use of the process: no more memory
    setrlimit(RLIMIT_AS, &limit);
    void* volatile piece = nullptr;
    do {
      piece = std::malloc(kSmall);
    } while (piece != nullptr);
    try {
      call();
    } catch (const std::bad_alloc&) {
      _exit(0);
    }
    _exit(1);
  }
  /// Puts the bytes of a frame into the reader.
  void put(std::size_t bodyBytes, std::size_t count) {
    const std::string bytes = frame(std::string(bodyBytes, 'm')).substr(0, count);
    std::memcpy(reader.space().data(), bytes.data(), bytes.size());
    reader.filled(bytes.size());
  }

  FrameReader reader;
};

TEST_F(WithoutMemory, ASmallBodyCannotBeTaken) {
  put(kSmall, kSmall + sizeof(FrameHeader));
  ASSERT_EQ(reader.next(), FrameReader::Next::kFrame);
  EXPECT_EXIT(callWithoutMemory([this] { reader.takeBody(); }), testing::ExitedWithCode(0), "");
}

TEST_F(WithoutMemory, ALargeFrameCannotBegin) {
  put(kLarge, sizeof(FrameHeader));
  EXPECT_EXIT(callWithoutMemory([this] { reader.next(); }), testing::ExitedWithCode(0), "");
}

TEST_F(WithoutMemory, AReaderCannotBeMade) {
  EXPECT_EXIT(callWithoutMemory([] { const FrameReader other; }), testing::ExitedWithCode(0), "");
}

TEST(FrameReaderTest, ABodyAtTheLimitForItsSenderIsReadAndALongerOneEndsTheConnection) {
  FrameReader reader(5);
  EXPECT_EQ(feed(reader, frame("limit"), 1000), std::vector<std::string>{"limit"});
  FrameHeader header;
  header.length = 6;
  EXPECT_EQ(feedHeader(reader, header), FrameReader::Next::kBad);
  EXPECT_STREQ(reader.defect(), "announced length over the limit for its sender");
}

struct BadHeaderRow {
  const char* name;
  void (*spoil)(FrameHeader&);
  const char* why;
};

class BadHeaderTest : public testing::TestWithParam<BadHeaderRow> {};

TEST_P(BadHeaderTest, EndsTheConnection) {
  FrameReader reader;
  FrameHeader header;
  GetParam().spoil(header);
  EXPECT_EQ(feedHeader(reader, header), FrameReader::Next::kBad);
  EXPECT_STREQ(reader.defect(), GetParam().why);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadHeaderTest,
    testing::Values(
        BadHeaderRow{"AWrongMagic", [](FrameHeader& h) { h.magic ^= 1; }, "wrong magic"},
        BadHeaderRow{"AnUnknownVersion", [](FrameHeader& h) { ++h.version; }, "unknown frame version"},
        BadHeaderRow{"ALengthOverTheLimit", [](FrameHeader& h) { h.length = lunet::kMaxMessageBytes + 1; },
                     "announced length over the limit"},
        BadHeaderRow{"KindZero", [](FrameHeader& h) { h.kind = FrameKind{0}; }, "unknown frame kind"},
        BadHeaderRow{"KindSeven", [](FrameHeader& h) { h.kind = FrameKind{7}; }, "unknown frame kind"}),
    [](const auto& row) { return std::string(row.param.name); });
