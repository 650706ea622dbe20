// Compressed streams between other bytes: where they end, and what stands in front of them.

#include <gmock/gmock.h>

#include <array>
#include <cstdio>

#include "EngineFixture.h"
#include "engine/StreamEnds.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::archiveOf;
using testsupport::eicar;
using testsupport::noise;
using testsupport::packedBy;

class EngineStreams : public testing::EngineFixture {
 protected:
  void expectOutcome(Outcome outcome, const std::string& what, const std::string& content) {
    const Verdict verdict = scan(content);
    EXPECT_EQ(verdict.outcome, outcome) << what << ": " << describe(verdict);
  }
};

Streams follow(const std::string& packing, const std::string& content) {
  std::size_t steps = 1000;
  const Bytes bytes(content.data(), content.size());
  return packing == "xz" ? followXz(bytes, steps) : followZstd(bytes, steps);
}

// A frame without content for the unpacker.
std::string skippableFrame() {
  return std::string("\x50\x2A\x4D\x18\x04\x00\x00\x00", 8) + "text";
}

const std::string kFront = "some text in front\n", kBehind = "some text behind the end of the stream\n";

TEST_F(EngineStreams, AStreamBetweenOtherBytesIsUnpacked) {
  for (const char* packing : {"gzip", "bzip2", "xz", "zstd"}) {
    for (const std::string& behind : {kBehind, std::string(700, '\0'), noise(500)}) {
      expectOutcome(Outcome::kInfected, packing, kFront + packedBy(packing, eicar()) + behind);
    }
  }
}

TEST_F(EngineStreams, SeveralStreamsBetweenOtherBytesAreOneFile) {
  const std::string half = eicar().substr(0, 30), rest = eicar().substr(30);
  for (const char* packing : {"xz", "zstd"}) {
    expectOutcome(Outcome::kInfected, packing,
                  kFront + packedBy(packing, half) + packedBy(packing, rest) + kBehind);
  }
}

TEST_F(EngineStreams, AZstdFileBehindASkippableFrameIsAnErrorWhenItIsCutOff) {
  const std::string whole = skippableFrame() + packedBy("zstd", eicar());
  expectOutcome(Outcome::kInfected, "whole", whole);
  expectOutcome(Outcome::kError, "cut off", whole.substr(0, whole.size() / 2));
  expectOutcome(Outcome::kError, "with bytes behind", whole + std::string(300, '\0'));
  expectOutcome(Outcome::kClean, "no zstd at all", skippableFrame() + kFront);
}

TEST_F(EngineStreams, AGzipCutOffInItsHeaderIsAnError) {
  const std::string packed = packedBy("gzip", eicar());
  const std::string header = packed.substr(0, 3) + "\x08" + packed.substr(4, 6);  // a name follows
  expectOutcome(Outcome::kInfected, "whole", header + std::string("name\0", 5) + packed.substr(10));
  expectOutcome(Outcome::kError, "cut off", header + "a name without an end");
  expectOutcome(Outcome::kClean, "empty", packedBy("gzip", {}));
}

TEST_F(EngineStreams, AZFileThatCannotBeUnpackedIsAnError) {
  const std::string packed = packedBy("compress", eicar());
  expectOutcome(Outcome::kInfected, "whole", packed);
  expectOutcome(Outcome::kError, "damaged", packed.substr(0, 10) + noise(200));
  expectOutcome(Outcome::kClean, "no such file", "\x1F\x9D and some text");
}

TEST_F(EngineStreams, AStreamBehindAnEmptyOneIsUnpacked) {
  for (const char* packing : {"gzip", "bzip2", "xz", "zstd"}) {
    expectOutcome(Outcome::kInfected, packing, packedBy(packing, {}) + packedBy(packing, eicar()));
  }
  // libarchive writes no such streams.
  const std::string lz4("\x04\x22\x4D\x18\x64\x40\xA7\0\0\0\0\x05\x5D\xCC\x02", 15);
  const std::string lzip = "LZIP\x01\x0C" + std::string("\0\x83\xFF\xFB\xFF\xFF\xC0", 7) +
                           std::string(15, '\0') + "\x24" + std::string(7, '\0');
  expectOutcome(Outcome::kInfected, "lz4", lz4 + packedBy("lz4", eicar()));
  expectOutcome(Outcome::kInfected, "lzip", lzip + packedBy("lzip", eicar()));
}

TEST_F(EngineStreams, AnLzipBehindATextIsUnpacked) {
  expectOutcome(Outcome::kInfected, "lzip", kFront + packedBy("lzip", eicar()));
  expectOutcome(Outcome::kClean, "text", kFront + "LZIP\1 is a text\n");
}

TEST_F(EngineStreams, AnLzmaOfAnyPropertiesIsAnErrorWhenItIsCutOff) {
  std::string packed = packedBy("lzma", noise(3000));
  packed[0] = 3;  // no bits of the position
  expectOutcome(Outcome::kError, "cut off", packed.substr(0, 60));
}

TEST_F(EngineStreams, AnOldCpioIsAnErrorWhenItsFirstMemberIsCutOff) {
  const std::string cpio = archiveOf({{"test.com", noise(3000)}}, "bin");
  expectOutcome(Outcome::kClean, "whole", cpio);
  expectOutcome(Outcome::kError, "cut off", cpio.substr(0, 100));
}

// The checksum is written anew, in this form.
std::string withSum(std::string tar, const std::string& begins) {
  constexpr std::size_t kSum = 148, kSumBytes = 8, kBlock = 512;
  tar.replace(kSum, kSumBytes, std::string(kSumBytes, ' '));
  unsigned sum = 0;
  for (std::size_t i = 0; i < kBlock; ++i) {
    sum += static_cast<unsigned char>(tar[i]);
  }
  std::array<char, 8> digits{};
  std::snprintf(digits.data(), digits.size(), "%05o", sum);
  std::string field = begins + digits.data();
  field.resize(kSumBytes, '\0');
  return tar.replace(kSum, kSumBytes, field);
}

std::string oldTar(const std::string& sumBegins) {
  return withSum(archiveOf({{"test.com", eicar()}}, "v7tar"), sumBegins);
}

std::string oddTar(char type, const std::string& sumBegins) {
  constexpr std::size_t kType = 156;
  std::string tar = archiveOf({{"test.com", eicar()}}, "ustar");
  tar[kType] = type;
  return withSum(tar, sumBegins);
}

TEST_F(EngineStreams, AnOldTarBehindAnythingIsUnpacked) {
  const std::string tar = archiveOf({{"test.com", eicar()}}, "v7tar");
  expectOutcome(Outcome::kInfected, "behind blocks", std::string(512, 'x') + tar);
  expectOutcome(Outcome::kInfected, "behind a text", kFront + tar);
  // The checksum as cpio and old programs write it.
  for (const char* begin : {"0", "00", " "}) {
    expectOutcome(Outcome::kInfected, begin, kFront + oldTar(begin));
  }
}

TEST_F(EngineStreams, AUuencodedFileIsUnpackedBehindAnything) {
  for (const char* packing : {"uuencode", "b64encode"}) {
    const std::string packed = packedBy(packing, packedBy("gzip", eicar()));
    expectOutcome(Outcome::kInfected, packing, packed);
    expectOutcome(Outcome::kInfected, packing, kFront + packed + kBehind);
    expectOutcome(Outcome::kInfected, packing, "<html><body>some text</body></html>\n" + packed);
    expectOutcome(Outcome::kInfected, packing, testsupport::readFile("/bin/true") + packed);
    const std::string large = packedBy(packing, packedBy("gzip", noise(3000)));
    expectOutcome(Outcome::kClean, packing, kFront + large + kBehind);
    expectOutcome(Outcome::kError, packing, large.substr(0, large.size() / 2));
  }
  expectOutcome(Outcome::kClean, "text", kFront + "begin 644 files by hand\nand end\n");
}

TEST_F(EngineStreams, ATarHeaderThatOtherProgramsReadAndLibarchiveDoesNotIsNeverClean) {
  for (const std::string& front : {std::string{}, kFront, std::string(512, 'x')}) {
    expectOutcome(Outcome::kInfected, "ordinary", front + oddTar('0', {}));
    for (const char type : {'A', ' ', '\x85'}) {
      EXPECT_NE(scan(front + oddTar(type, {})).outcome, Outcome::kClean) << type;
    }
    for (const std::string& begin : {std::string(1, '\0'), std::string("\t")}) {
      EXPECT_NE(scan(front + oddTar('0', begin)).outcome, Outcome::kClean);
    }
  }
}

TEST_F(EngineStreams, AWarcIsUnpacked) {
  const std::string warc = archiveOf({{"test.com", eicar()}}, "warc");
  expectOutcome(Outcome::kInfected, "warc", warc);
  expectOutcome(Outcome::kInfected, "text behind", warc + kBehind);
  expectOutcome(Outcome::kClean, "a text", "WARC/1.0 is the first line of such a file\n");
}

// A boot sector, and the first sector of the table.
std::string fatImage() {
  std::string sector(512, '\0');
  sector.replace(0, 3, "\xEB\x3C\x90");
  sector.replace(11, 10, std::string("\x00\x02\x01\x01\x00\x02\x00\x00\x40\x0B", 10));
  sector[21] = '\xF0';
  sector.replace(54, 8, "FAT12   ");
  sector.replace(510, 2, "\x55\xAA");
  return sector + "\xF0\xFF\xFF" + std::string(509, '\0');
}

TEST_F(EngineStreams, ImagesThatNobodyUnpacksAreSkipped) {
  const std::string jffs2 = std::string("\x85\x19\x03\x20\x0C\x00\x00\x00", 8) + noise(100);
  const std::string cramfs =
      std::string("\x45\x3D\xCD\x28", 4) + std::string(12, '\0') + "Compressed ROMFS" + noise(99);
  const std::string fat = fatImage();
  expectOutcome(Outcome::kSkipped, "fat", fat);
  expectOutcome(Outcome::kSkipped, "fat in a partition", std::string(63 * 512, '\0') + fat);
  expectOutcome(Outcome::kSkipped, "fat behind a program", testsupport::readFile("/bin/true") + fat);
  expectOutcome(Outcome::kClean, "a boot sector in a program",
                testsupport::readFile("/bin/true") + fat.substr(0, 512));
  expectOutcome(Outcome::kSkipped, "jffs2", jffs2);
  expectOutcome(Outcome::kSkipped, "cramfs", cramfs);
  expectOutcome(Outcome::kSkipped, "cramfs behind text", kFront + cramfs);
}

// One stored member, and the end mark.
std::string arcOf(const std::string& content) {
  const std::string size{static_cast<char>(content.size()), '\0', '\0', '\0'};
  const std::string name("test.com\0\0\0\0\0", 13), date("\x76\x5D\x10\x9C", 4);
  return "\x1A\x02" + name + size + date + std::string(2, '\0') + size + content + std::string("\x1A\0", 2);
}

TEST_F(EngineStreams, AnArcBehindAnythingIsSkipped) {
  const std::string arc = arcOf("some text");
  expectOutcome(Outcome::kSkipped, "arc", arc);
  for (const std::string& front : {kFront, std::string("%PDF-1.4\n"), testsupport::readFile("/bin/true")}) {
    expectOutcome(Outcome::kSkipped, "behind", front + arc);
    expectOutcome(Outcome::kSkipped, "between", front + arc + noise(300));
    expectOutcome(Outcome::kSkipped, "without its end mark", front + arc.substr(0, arc.size() - 2));
    const std::string two = arc.substr(0, arc.size() - 2) + arc;
    expectOutcome(Outcome::kSkipped, "two members", front + two);
    expectOutcome(Outcome::kSkipped, "the second cut off", front + two.substr(0, two.size() - 5));
  }
  expectOutcome(Outcome::kClean, "no arc", kFront + arc.substr(0, 20) + kBehind);
}

// Compiled units hold names behind the mark's byte, one after the other.
TEST_F(EngineStreams, NamesThatLookLikeMembersOfAnArcAreClean) {
  const std::string arc = arcOf("some text"), first = arc.substr(0, arc.size() - 2);
  expectOutcome(Outcome::kClean, "a name behind",
                kFront + first + "\x1A\x08TOSTRING6!" + std::string(40, '\0'));
  std::string noTime = arc;
  noTime[19] = noTime[20] = '\0';
  expectOutcome(Outcome::kClean, "a time without a date", kFront + noTime);
}

TEST_F(EngineStreams, AnExtBehindAProgramIsSkipped) {
  std::string ext(4096, '\0');
  ext.replace(1024, 8, std::string("\x10\0\0\0\x40\0\0\0", 8));               // inodes and blocks
  ext[1024 + 20] = '\1';                                                      // the first block
  ext.replace(1024 + 32, 10, std::string("\0\x20\0\0\0\x20\0\0\x10\0", 10));  // blocks and inodes of a group
  ext.replace(1024 + 56, 2, "\x53\xEF");
  ext.replace(1024 + 58, 2, std::string("\1\0", 2));
  expectOutcome(Outcome::kSkipped, "ext", ext);
  expectOutcome(Outcome::kSkipped, "behind a program", testsupport::readFile("/bin/true") + ext);
  expectOutcome(Outcome::kSkipped, "in a partition", std::string(63 * 512, '\0') + ext);
  ext.replace(1024 + 32, 4, "some");
  expectOutcome(Outcome::kClean, "no ext", testsupport::readFile("/bin/true") + ext);
}

TEST(StreamEnds, TheEndOfAStreamIsFoundWithoutUnpacking) {
  for (const char* packing : {"xz", "zstd"}) {
    for (const std::string& content : {std::string{}, eicar(), noise(300'000), std::string(5'000'000, 'x')}) {
      const std::string packed = packedBy(packing, content);
      EXPECT_EQ(follow(packing, packed + kBehind).end, packed.size()) << packing << ' ' << content.size();
      EXPECT_EQ(follow(packing, packed).end, packed.size()) << packing << ' ' << content.size();
      const Streams two = follow(packing, packed + packed + kBehind);
      EXPECT_EQ(two.end, 2 * packed.size()) << packing;
      EXPECT_EQ(two.starts, (std::vector<std::uint64_t>{0, packed.size()})) << packing;
    }
  }
}

TEST(StreamEnds, AStreamThatIsCutOffAnywhereHasNoEnd) {
  for (const char* packing : {"xz", "zstd"}) {
    const std::string packed = packedBy(packing, noise(70'000));
    for (std::size_t size = 1; size < packed.size();
         size += size < 100 || size + 100 > packed.size() ? 1 : 997) {
      EXPECT_EQ(follow(packing, packed.substr(0, size)).end, 0U) << packing << ' ' << size;
    }
  }
}

TEST(StreamEnds, TheWorkIsLimited) {
  std::size_t steps = 2;
  const std::string packed = packedBy("xz", noise(1'000'000));
  EXPECT_EQ(followXz({packed.data(), packed.size()}, steps).end, 0U);
  EXPECT_EQ(steps, 0U);
}

}  // namespace
}  // namespace agent
