// What the scan of one file may use, by small files.

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include "EngineFixture.h"
#include "engine/FileBudget.h"
#include "support/BombMaker.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::makeDocumentOfSharedStreams;
using testsupport::makeGzip;
using testsupport::makeImageOfItself;
using testsupport::makeNestedZip;
using testsupport::makeZip;
using testsupport::packedBy;

struct stat fileOf(off_t size, blkcnt_t blocks) {
  struct stat file {};
  file.st_size = size;
  file.st_blocks = blocks;
  return file;
}

TEST(FileBudgets, TimeGrowsWithTheBlocksThatTheFileOccupies) {
  const EngineLimits limits;
  const auto seconds = [](int count) { return std::chrono::milliseconds(count * 1000); };
  const FileBudget small = budgetOf(limits, fileOf(1000, 8));
  EXPECT_EQ(small.processor, seconds(15));
  EXPECT_EQ(small.clock, seconds(150));
  const FileBudget large = budgetOf(limits, fileOf(512'000'000, 1'000'000));
  EXPECT_EQ(large.processor.count(), 66200);
  EXPECT_EQ(large.clock.count(), 662000);
  EXPECT_EQ(budgetOf(limits, fileOf(500'000'000, 0)).processor, seconds(15));
  EXPECT_EQ(budgetOf(limits, fileOf(1000, 1'000'000)).processor, seconds(15)) << "preallocated";
  EXPECT_GT(large.processorEnd, large.processor);
  EXPECT_GT(large.clockEnd, large.clock);
}

TEST(FileBudgets, SpaceAndUnpackedDataGrowWithTheFile) {
  const EngineLimits limits;
  const FileBudget small = budgetOf(limits, fileOf(1000, 8));
  EXPECT_EQ(small.tempBytes, 512U << 20);
  EXPECT_EQ(small.unpackedBytes, (256U << 20) + 1000);
  const FileBudget large = budgetOf(limits, fileOf(400 << 20, 0));
  EXPECT_EQ(large.tempBytes, 800U << 20);
  EXPECT_EQ(large.unpackedBytes, 4ULL << 30);
  EXPECT_EQ(large.ratio, 0U);
  EXPECT_EQ(budgetOf(limits, fileOf(2 << 20, 0)).unpackedBytes, 502U << 20);
}

class EngineBudgets : public testing::EngineFixture {
 protected:
  void expectError(const std::string& content, const std::string& reason, const ScanOptions& options = {}) {
    const Verdict verdict = scan(content, options);
    EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason));
    EXPECT_TRUE(std::filesystem::is_empty(dir().at("quick")));
    EXPECT_TRUE(std::filesystem::is_empty(dir().at("disk")));
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max) << "of the file before";
    EXPECT_EQ(scan(eicar()).outcome, Outcome::kInfected) << "the next file";
  }
  /// A file of that size that holds the content at that place, and holes.
  std::string sparse(off_t size, off_t place, const std::string& content) const {
    std::string path = dir().write("sparse", "");
    const platform::Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ftruncate(file.get(), size), 0);
    EXPECT_EQ(pwrite(file.get(), content.data(), content.size(), place),
              static_cast<ssize_t>(content.size()));
    return path;
  }
};

constexpr off_t kGibibyte = 1 << 30;

TEST_F(EngineBudgets, StreamsThatShareSectorsEndAtTheTemporarySpace) {
  EngineLimits limits;
  limits.tempBytes = 8U << 20;
  load(limits);
  expectError(makeDocumentOfSharedStreams(600, 1'000'000), "more temporary space than its budget of 8388608");
}

TEST_F(EngineBudgets, AFewStreamsThatShareSectorsAreScannedWhole) {
  load(EngineLimits{});
  const Verdict verdict = scan(makeDocumentOfSharedStreams(5, 100'000));
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
}

TEST_F(EngineBudgets, AMemberLongerThanTheTemporarySpaceEndsTheScan) {
  EngineLimits limits;
  limits.tempBytes = 2U << 20;
  load(limits);
  expectError(makeZip({{"zeros", std::string(3U << 20, '\0')}}),
              "more temporary space than its budget of 2097152");
}

TEST_F(EngineBudgets, AMemberOfTheSecondUnpackerEndsAtTheTemporarySpace) {
  EngineLimits limits;
  limits.tempBytes = 1U << 20;
  load(limits);
  expectError(packedBy("zstd", std::string(3U << 20, '\0')), "more temporary space than its budget");
}

TEST_F(EngineBudgets, DataOfManyTimesTheFilesSizeIsAnError) {
  EngineLimits limits;
  limits.freeUnpackedBytes = 1U << 20;
  limits.unpackedRatio = 100;
  load(limits);
  const std::string zeros(3U << 20, '\0');
  expectError(makeZip({{"zeros", zeros}}), "more data in it than 100 times the file's size");
  expectError(packedBy("zstd", zeros), "more data in it than 100 times the file's size");
  limits.unpackedRatio = 2000;
  load(limits);
  EXPECT_EQ(scan(makeZip({{"zeros", zeros}})).outcome, Outcome::kClean);
}

TEST_F(EngineBudgets, DataInLayersOfManyKindsIsCountedTogether) {
  EngineLimits limits = smallLimits();
  testsupport::Members members;
  for (char c = 'a'; c < 'i'; ++c) {
    members.emplace_back(std::string(1, c), packedBy("zstd", std::string(800000, c)));
  }
  load(limits);
  expectError(testsupport::archiveOf(members, "7zip"), "more data in it");
  members.resize(3);
  const Verdict verdict = scan(testsupport::archiveOf(members, "7zip"));
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
}

TEST_F(EngineBudgets, MembersInLayersOfManyKindsAreCountedTogether) {
  std::vector<testsupport::ZipMember> zips;
  for (int i = 0; i < 6; ++i) {
    std::vector<testsupport::ZipMember> members;
    for (int k = 0; k < 10; ++k) {
      members.push_back({std::to_string(k), std::to_string(i) + " member " + std::to_string(k)});
    }
    zips.push_back({std::to_string(i), packedBy("zstd", makeZip(members))});
  }
  expectError(makeZip(zips), "more members");
}

TEST_F(EngineBudgets, ProcessorTimeEndsAScan) {
  EngineLimits limits;
  limits.processorMs = 1;
  limits.processorMsPer100Mb = 0;
  limits.clockFactor = 100000;
  load(limits);
  expectError(packedBy("zstd", testsupport::noise(1000) + std::string(100U << 20, '\0')),
              "more processor time than its budget of 1 ms");
}

TEST_F(EngineBudgets, AnArchiveNestedAHundredDeepIsAnError) {
  load(EngineLimits{});
  ScanOptions options;
  options.maxLayers = 1000;
  expectError(makeNestedZip(100, "test.com", eicar()), "nested deeper", options);
}

TEST_F(EngineBudgets, AnImageThatContainsItselfIsAnError) {
  load(EngineLimits{});
  ScanOptions options;
  options.maxLayers = 1000;
  expectError(makeImageOfItself(), "nested deeper", options);
}

TEST_F(EngineBudgets, MoreBeginningsOfArchivesThanCanBeRememberedAreAnError) {
  load(EngineLimits{});
  std::string beginnings;
  while (beginnings.size() < 3600) {
    beginnings += std::string("\x1F\x8B\x08\x00", 4);
  }
  std::vector<testsupport::ZipMember> members;
  for (int i = 0; i < 150; ++i) {
    members.push_back({std::to_string(i), std::to_string(i) + beginnings});
  }
  expectError(makeZip(members), "more archives in it than the engine's limit");
}

TEST_F(EngineBudgets, ASparseFileCostsWhatItsDataCosts) {
  EngineLimits limits;
  limits.processorMs = 3000;  // the holes alone take ten seconds
  load(limits);
  const Verdict empty = scanPath(sparse(kGibibyte, 0, "some text"));
  EXPECT_EQ(empty.outcome, Outcome::kClean) << describe(empty);
  const off_t smaller = 64 << 20;
  for (const off_t place : {off_t{0}, off_t{12345}, smaller / 2, smaller / 2 + 4095, smaller - 200}) {
    const Verdict found = scanPath(sparse(smaller, place, genericSample()));
    EXPECT_EQ(found.outcome, Outcome::kInfected) << place << describe(found);
  }
  const Verdict packed = scanPath(sparse(smaller, smaller / 2, makeGzip(genericSample())));
  EXPECT_EQ(packed.outcome, Outcome::kInfected) << describe(packed);
}

TEST_F(EngineBudgets, ASparseFileWhoseContentIsFoundByItsPlaceIsScannedWhole) {
  EngineLimits limits;
  limits.processorMs = 100;
  limits.clockFactor = 1000;
  load(limits);
  std::string program = testsupport::readFile("/bin/true");
  ASSERT_GT(program.size(), 1000U);
  const Verdict verdict = scanPath(sparse(kGibibyte, 0, program));
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("more processor time than its budget of 1"));
  const Verdict small = scanPath(sparse(100 << 10, 0, program));
  EXPECT_EQ(small.outcome, Outcome::kClean) << describe(small);
}

}  // namespace
}  // namespace agent
