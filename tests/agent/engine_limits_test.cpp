#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "EngineFixture.h"

namespace {

/// The errno value of the next read of a block for hashes; 0: the read succeeds.
std::atomic<int> gNextReadFails{0};

}  // namespace

/// Replaces the C library's function for this program, and not for the engine's library. No other reads are
/// as long as those for hashes.
extern "C" [[gnu::visibility("hidden")]] ssize_t pread(int fd, void* buffer, std::size_t size, off_t offset) {
  constexpr std::size_t kHashBlock = 256 * 1024;
  if (const int error = size == kHashBlock ? gNextReadFails.exchange(0) : 0; error != 0) {
    errno = error;
    return -1;
  }
  return syscall(SYS_pread64, fd, buffer, size, offset);
}

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::makeArj;
using testsupport::makeGzip;
using testsupport::makeNestedZip;
using testsupport::makeRar;
using testsupport::makeTar;
using testsupport::makeZip;
using testsupport::noise;
using testsupport::ZipMember;

// The limits of the fixture: 1 MiB a file or member, 4 MiB in all, 50 members, 12 levels.
constexpr std::size_t kFileLimit = 1U << 20;

std::string zerosThenSample(std::size_t zeros) {
  return std::string(zeros, '\0') + genericSample();
}

class EngineLimitsTest : public testing::EngineFixture {
 protected:
  void expectError(const std::string& content, const std::string& reason) {
    const Verdict verdict = scan(content);
    EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason));
    EXPECT_TRUE(verdict.detections.empty()) << describe(verdict);
  }
};

TEST_F(EngineLimitsTest, AFileAboveTheFileLimitIsAnError) {
  expectError(zerosThenSample(kFileLimit), "larger than the engine's limit of 1048576 bytes for one file");
}

TEST_F(EngineLimitsTest, AFileOfExactlyTheFileLimitIsScannedWhole) {
  const Verdict verdict = scan(zerosThenSample(kFileLimit - genericSample().size()));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

TEST_F(EngineLimitsTest, AGzipThatUnpacksToMoreThanTheFileLimitIsAnError) {
  expectError(makeGzip(zerosThenSample(kFileLimit)), "larger than the engine's limit");
}

TEST_F(EngineLimitsTest, AZipMemberCutAtTheFileLimitIsAnError) {
  expectError(makeZip({{"big", zerosThenSample(kFileLimit + 100000)}}), "cut at the engine's limit");
}

TEST_F(EngineLimitsTest, AZipMemberWithAFalseDeclaredSizeCutAtTheFileLimitIsAnError) {
  ZipMember member{"big", zerosThenSample(kFileLimit + 100000)};
  member.declaredBytes = 1000;
  expectError(makeZip({member}), "cut at the engine's limit");
}

TEST_F(EngineLimitsTest, AZipMemberWithAFalseDeclaredSizeBelowTheFileLimitIsScannedWhole) {
  ZipMember member{"big", zerosThenSample(500000)};
  member.declaredBytes = 1000;
  const Verdict verdict = scan(makeZip({member}));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

TEST_F(EngineLimitsTest, AZipMemberOfTheSixtyFourBitFormatIsScanned) {
  for (const std::string& content : {std::string(100000, '\0'), zerosThenSample(100000)}) {
    ZipMember member{"zeros", content};
    member.sizes64 = true;
    for (const std::string& zip : {makeZip({member}), makeZip({{"inner.zip", makeZip({member})}})}) {
      const Verdict verdict = scan(zip);
      EXPECT_EQ(verdict.outcome, content.size() == 100000 ? Outcome::kClean : Outcome::kInfected)
          << describe(verdict);
    }
  }
}

TEST_F(EngineLimitsTest, AStoredZipMemberAboveTheFileLimitIsAnError) {
  ZipMember member{"big", zerosThenSample(kFileLimit)};
  member.deflate = false;
  expectError(makeZip({member}), "limit");
}

TEST_F(EngineLimitsTest, MoreMembersThanTheLimitAreAnError) {
  std::vector<ZipMember> members;
  for (int i = 0; i < 60; ++i) {
    members.push_back({"member" + std::to_string(i), "some text in member " + std::to_string(i)});
  }
  members.push_back({"last", genericSample()});
  expectError(makeZip(members), "more members");
}

TEST_F(EngineLimitsTest, MoreDataThanTheScanLimitIsAnError) {
  std::vector<ZipMember> members;
  for (int i = 0; i < 8; ++i) {
    members.push_back({"member" + std::to_string(i), std::string(800000, static_cast<char>('a' + i))});
  }
  members.push_back({"last", genericSample()});
  expectError(makeZip(members), "more data");
}

TEST_F(EngineLimitsTest, DeeperNestingThanTheRecursionLimitIsAnError) {
  ScanOptions options;
  options.maxLayers = 100;
  EXPECT_EQ(scan(makeNestedZip(10, "test.com", eicar()), options).outcome, Outcome::kInfected);
  const Verdict verdict =
      scan(makeNestedZip(14, "test.com", eicar()), options);  // below the library's own limit
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("nested deeper"));
}

TEST_F(EngineLimitsTest, AScanLongerThanTheTimeLimitIsAnError) {
  EngineLimits limits;
  limits.processorMs = 1;
  limits.processorMsPer100Mb = 0;
  limits.clockFactor = 1;
  load(limits);
  std::vector<std::pair<std::string, std::string>> members;
  const std::string content = noise(1000000);
  for (int i = 0; i < 20; ++i) {
    members.emplace_back("member" + std::to_string(i), content);
  }
  expectError(makeTar(members), "than its budget of 1 ms");
}

TEST_F(EngineLimitsTest, AnEncryptedZipIsAnError) {
  ZipMember member{"secret.txt", "nobody can read this text here"};
  member.encryptedFlag = true;
  expectError(makeZip({member}), "encrypted");
}

TEST_F(EngineLimitsTest, AnEncryptedArjThatTheLibraryOnlyListsIsAnError) {
  const Verdict plain = scan(makeArj("test.com", eicar(), false));
  EXPECT_EQ(plain.outcome, Outcome::kInfected) << describe(plain);
  expectError(makeArj("secret.txt", "nobody can read this text here", true),
              "\"secret.txt\" inside: encrypted: its content cannot be scanned");
}

TEST_F(EngineLimitsTest, ARealDetectionInTheSameFileWins) {
  ZipMember secret{"secret.txt", "nobody can read this text here"};
  secret.encryptedFlag = true;
  ZipMember huge{"huge", zerosThenSample(kFileLimit + 100000)};
  const Verdict verdict = scan(makeZip({secret, {"test.com", eicar()}, huge}));
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  for (const auto& detection : verdict.detections) {
    EXPECT_THAT(detection.name, ::testing::StartsWith("TAV.Test."));
  }
}

TEST_F(EngineLimitsTest, AMemberPackedByAnUnknownMethodIsAnError) {
  ZipMember member{"odd", "some text that is packed by a method nobody here knows"};
  member.method = 14;
  expectError(makeZip({member}), "packed by method 14");
}

TEST_F(EngineLimitsTest, AZipCutOffIsAnError) {
  const std::string whole = makeZip({{"one", noise(5000)}, {"two", noise(6000)}});
  expectError(whole.substr(0, whole.size() - 3000), "cut off");
}

TEST_F(EngineLimitsTest, AZipWhoseDirectoryPointsBeyondItsEndIsAnError) {
  std::string zip = makeZip({{"one", "some text in a member"}});
  const std::string whole = zip;
  zip.erase(10, 12);  // the data before the directory is now too short
  expectError(zip, "cut off");
}

TEST_F(EngineLimitsTest, AnArchiveThatCannotBeUnpackedIsAnError) {
  const std::string cutOff = makeRar("file.txt", noise(500)).substr(0, 300);
  expectError(cutOff, "could not be unpacked");
  expectError(makeZip({{"x.rar", cutOff}}), "could not be unpacked");
}

TEST_F(EngineLimitsTest, ALargeHtmlFileIsScannedWhole) {
  EngineLimits limits;
  load(limits);
  std::string page = "<html><body>\n";
  while (page.size() < (9U << 20)) {  // above the library's own limit for pages without tags
    page += "<p>some text <a href=\"http://localhost/\">and a link</a></p>\n";
  }
  const Verdict verdict = scan(page + genericSample() + "</body></html>");
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

TEST_F(EngineLimitsTest, ContentTooLargeForTheFolderInMemoryIsUnpackedOnDisk) {
  EngineLimits limits = smallLimits();
  limits.quickTempBytes = 64U << 10;
  load(limits);
  const Verdict found = scan(makeZip({{"big", zerosThenSample(500000)}}));
  EXPECT_EQ(found.outcome, Outcome::kInfected) << describe(found);
  const Verdict clean = scan(makeZip({{"big", std::string(500000, '\0')}}));
  EXPECT_EQ(clean.outcome, Outcome::kClean) << describe(clean);
}

TEST_F(EngineLimitsTest, NoFileInTheFolderInMemoryIsLargerThanItsLimit) {
  EngineLimits limits = smallLimits();
  limits.quickTempBytes = 64U << 10;
  load(limits);
  engine().setTempFolders(dir().at("quick"), dir().at("nowhere"));
  expectError(makeZip({{"big", zerosThenSample(500000)}}), "the engine reports");
  EXPECT_EQ(scan(makeZip({{"small", zerosThenSample(50000)}})).outcome, Outcome::kInfected);
}

TEST_F(EngineLimitsTest, AFileOfMoreThanHalfTheMemoryLimitIsUnpackedOnDiskOnly) {
  EngineLimits limits = smallLimits();
  limits.quickTempBytes = 64U << 10;
  load(limits);
  engine().setTempFolders(dir().at("nowhere"), dir().at("disk"));
  ZipMember stored{"noise", noise(32U << 10)};
  stored.deflate = false;
  const Verdict verdict = scan(makeZip({stored, {"test.com", eicar()}}));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  stored.content.resize(30U << 10);
  expectError(makeZip({stored, {"test.com", eicar()}}), "the engine reports");
}

TEST_F(EngineLimitsTest, TemporarySpaceThatIsFullIsAnError) {
  engine().setTempFolders("", dir().at("nowhere"));
  expectError(makeZip({{"one", std::string(50000, 'x')}}), "the engine reports");
}

TEST_F(EngineLimitsTest, NoTemporaryFileStaysBehind) {
  scan(makeZip({{"one", std::string(50000, 'x')}, {"test.com", eicar()}}));
  scan(makeGzip(makeTar({{"one", noise(300000)}})));
  EXPECT_TRUE(std::filesystem::is_empty(dir().at("quick")));
  EXPECT_TRUE(std::filesystem::is_empty(dir().at("disk")));
}

TEST_F(EngineLimitsTest, AFileThatIsNotRegularIsAnError) {
  const Verdict folder = scanPath(dir().path());
  EXPECT_EQ(folder.outcome, Outcome::kError);
  EXPECT_EQ(folder.reason, "not a regular file");
  const Verdict closed = engine().scan(-1, "closed", {});
  EXPECT_EQ(closed.outcome, Outcome::kError);
  EXPECT_EQ(closed.reason, "cannot be examined: Bad file descriptor");
}

TEST_F(EngineLimitsTest, AnUnreadableFileIsAnError) {
  ScanOptions hashes;
  hashes.hashesWanted = true;
  const int fd = open(dir().write("file", "").c_str(), O_WRONLY | O_CLOEXEC);
  const Verdict verdict = engine().scan(fd, "file", hashes);
  close(fd);
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
  EXPECT_EQ(verdict.reason, "cannot be read to its end");
}

TEST_F(EngineLimitsTest, AnInfectedFileStaysInfectedWithoutItsHashes) {
  engine();  // loading reads for hashes, too
  gNextReadFails = EIO;
  const Verdict verdict = scan(eicar());
  EXPECT_EQ(gNextReadFails, 0);
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  EXPECT_EQ(verdict.sha256, "");
}

TEST_F(EngineLimitsTest, AnInterruptedReadForHashesIsRepeated) {
  ScanOptions hashes;
  hashes.hashesWanted = true;
  engine();
  gNextReadFails = EINTR;
  const Verdict verdict = scan("abc", hashes);
  EXPECT_EQ(gNextReadFails, 0);
  EXPECT_EQ(verdict.md5, "900150983cd24fb0d6963f7d28e17f72") << describe(verdict);
}

TEST_F(EngineLimitsTest, ReasonsHoldNoRawControlCharacters) {
  ZipMember member{"a\x1b[31mname\nwith lines", std::string(1000, '\0')};
  member.method = 14;
  const Verdict verdict = scan(makeZip({member}));
  ASSERT_EQ(verdict.outcome, Outcome::kError);
  EXPECT_THAT(verdict.reason, HasSubstr("\\x1b"));
  EXPECT_EQ(verdict.reason.find('\x1b'), std::string::npos);
  EXPECT_EQ(verdict.reason.find('\n'), std::string::npos);
}

}  // namespace
}  // namespace agent
