// The verdict from the callbacks of a scan. The tests make the library's calls.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "EngineFixture.h"
#include "engine/ScanRecord.h"
#include "json/CppJson.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;

constexpr std::uint64_t kFileLimit = 1000;

class ScanRecords : public ::testing::Test {
 protected:
  bool layer(const char* type, const char* name, std::uint32_t level, std::size_t size = 30) {
    std::string content(size, 'x');
    const auto end = testsupport::makeZip({});
    content.replace(size - end.size(), end.size(), end);  // also as the content of a zip
    return record_.onLayer({type, name, level, content.data(), size});
  }
  void expect(Outcome outcome, const std::string& reason = "", const std::string& failure = "") {
    const Verdict verdict = record_.finish(failure);
    EXPECT_EQ(verdict.outcome, outcome) << describe(verdict);
    EXPECT_EQ(verdict.reason, reason);
  }

  ScanOptions options_;
  ScanRecord record_{options_, kFileLimit};
};

TEST_F(ScanRecords, AnArchiveThatMustYieldButYieldsNothingIsAnError) {
  EXPECT_TRUE(layer("CL_TYPE_7Z", "outer", 0));
  expect(Outcome::kError, "a 7z archive that could not be unpacked");
}

TEST_F(ScanRecords, TheReasonNamesAnArchiveInsideAnother) {
  layer("CL_TYPE_ZIP", "outer", 0);
  layer("CL_TYPE_7Z", "inner.7z", 1);
  expect(Outcome::kError, "\"inner.7z\" inside: a 7z archive that could not be unpacked");
}

TEST_F(ScanRecords, AnArchiveThatYieldsAMemberIsWhole) {
  layer("CL_TYPE_7Z", "outer", 0);
  layer("CL_TYPE_TEXT_ASCII", "a", 1);
  expect(Outcome::kClean);
}

TEST_F(ScanRecords, AnArchiveThatYieldsOnlyADeeperMemberIsWhole) {
  layer("CL_TYPE_7Z", "outer", 0);
  layer("CL_TYPE_TEXT_ASCII", "a", 2);
  expect(Outcome::kClean);
}

TEST_F(ScanRecords, AnArchiveThatMayBeEmptyNeedNotYield) {
  layer("CL_TYPE_GZ", "outer", 0);
  expect(Outcome::kClean);
}

TEST_F(ScanRecords, EachOfSeveralSiblingArchivesMustYield) {
  layer("CL_TYPE_ZIP", "outer", 0);
  layer("CL_TYPE_7Z", "first.7z", 1);
  layer("CL_TYPE_7Z", "second.7z", 1);
  layer("CL_TYPE_TEXT_ASCII", "a", 2);
  expect(Outcome::kError, "\"first.7z\" inside: a 7z archive that could not be unpacked");
}

TEST_F(ScanRecords, AnArchiveBelowASkippedLevelMustYield) {
  layer("CL_TYPE_MSEXE", "program", 0);
  layer("CL_TYPE_7Z", "behind.7z", 2);
  expect(Outcome::kError, "\"behind.7z\" inside: a 7z archive that could not be unpacked");
}

TEST_F(ScanRecords, AnEndedArchiveIsNoLayerOfLaterFiles) {
  options_.maxLayers = 2;
  EXPECT_TRUE(layer("CL_TYPE_ZIP", "outer", 0));
  layer("CL_TYPE_MSEXE", "a", 1);
  EXPECT_TRUE(layer("CL_TYPE_GZ", "a.gz", 2));
  layer("CL_TYPE_MSEXE", "b", 1);
  EXPECT_TRUE(layer("CL_TYPE_GZ", "b.gz", 3)) << "level 2 was passed over";
  EXPECT_FALSE(layer("CL_TYPE_GZ", "deeper.gz", 4));
  expect(Outcome::kError, "\"deeper.gz\" inside: archives nested deeper than 2 layers");
}

TEST_F(ScanRecords, TheDeepestLevelIsScannedAndOneMoreIsAnError) {
  EXPECT_TRUE(layer("CL_TYPE_TEXT_ASCII", "last", 127));
  EXPECT_FALSE(layer("CL_TYPE_TEXT_ASCII", "deep", 128));
  expect(Outcome::kError, "\"deep\" inside: nested deeper than can be followed");
}

TEST_F(ScanRecords, AMemberOfTheCutSizeIsAnErrorAndASmallerOneIsNot) {
  layer("CL_TYPE_ZIP", "outer", 0, kFileLimit);
  layer("CL_TYPE_TEXT_ASCII", "whole", 1, kFileLimit - 1);
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kClean) << "the file itself may have that size";
  layer("CL_TYPE_TEXT_ASCII", "cut", 1, kFileLimit);
  expect(Outcome::kError, "\"cut\" inside: cut at the engine's limit of 1000 bytes");
}

TEST_F(ScanRecords, AnArchiveOfTheLargestSizeIsUnpackedAndALargerOneIsLeftOut) {
  EXPECT_TRUE(layer("CL_TYPE_ZIP", "any", 0, 900)) << "no limit";
  options_.maxArchiveBytes = 100;
  EXPECT_TRUE(layer("CL_TYPE_ZIP", "outer", 0, 100));
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kClean);
  EXPECT_FALSE(layer("CL_TYPE_ZIP", "outer", 0, 101));
  expect(Outcome::kSkipped, "an archive larger than the 100 bytes that are unpacked");
}

TEST_F(ScanRecords, ALeftOutArchiveNeedNotYield) {
  options_.archives = false;
  EXPECT_FALSE(layer("CL_TYPE_7Z", "outer", 0));
  expect(Outcome::kSkipped, "an archive (7z), and archives are not unpacked");
}

TEST_F(ScanRecords, TheDirectoryOfEveryKindOfZipIsAudited) {
  const std::string cutOff = "PK\3\4 and no directory";
  for (const char* type : {"CL_TYPE_ZIP", "CL_TYPE_ZIPSFX", "CL_TYPE_OOXML_WORD", "CL_TYPE_OOXML_XL"}) {
    ScanRecord record(options_, kFileLimit);
    EXPECT_TRUE(record.onLayer({type, "name", 0, cutOff.data(), cutOff.size()}));
    EXPECT_THAT(record.finish("").reason, HasSubstr("has no directory")) << type;
  }
  for (const char* type : {"CL_TYPE_GZ", "CL_TYPE_TEXT_ASCII"}) {
    ScanRecord record(options_, kFileLimit);
    EXPECT_TRUE(record.onLayer({type, "name", 0, cutOff.data(), cutOff.size()}));
    EXPECT_EQ(record.finish("").outcome, Outcome::kClean) << type;
  }
}

TEST_F(ScanRecords, AMemberOfUnknownSizeIsAnError) {
  record_.onMember("CL_TYPE_ZIP", "large", 0xFFFFFFFE, false);
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kClean);
  record_.onMember("CL_TYPE_ZIP", "larger", 0xFFFFFFFF, false);
  expect(Outcome::kError, "\"larger\" inside: has a 64-bit size: not unpacked");
}

TEST_F(ScanRecords, AnEncryptedMemberIsAnErrorUnlessTheLibraryReportsIt) {
  record_.onMember("CL_TYPE_ZIP", "in-zip", 5, true);
  record_.onMember("CL_TYPE_OOXML_WORD", "in-document", 5, true);
  record_.onMember("CL_TYPE_RAR", "plain", 5, false);
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kClean);
  record_.onMember("CL_TYPE_RAR", "in-rar", 5, true);
  expect(Outcome::kError, "\"in-rar\" inside: encrypted: its content cannot be scanned");
}

TEST_F(ScanRecords, AHeuristicDetectionCountsOnlyInAStrongScanWithItsEngine) {
  for (const char* name : {"Heuristics.Broken.Executable", "PUA.Win.Tool.Foo-1"}) {
    const std::uint32_t engine =
        1U << (std::string(name)[0] == 'H' ? json::kEngineUmb : json::kEngineUnwanted);
    for (const bool strong : {false, true}) {
      for (const bool engineOn : {false, true}) {
        ScanOptions options;
        options.heuristics = strong;
        options.enabledEngines = engineOn ? engine : ~engine;
        ScanRecord record(options, kFileLimit);
        record.onFind(name);
        EXPECT_EQ(record.finish("").outcome, strong && engineOn ? Outcome::kInfected : Outcome::kClean)
            << name << strong << engineOn;
      }
    }
  }
}

TEST_F(ScanRecords, AnAlertForLeftOutContentIsNoDetectionInAStrongScanEither) {
  options_.heuristics = true;
  options_.enabledEngines = ~0U;
  record_.onFind("Heuristics.Limits.Exceeded.MaxFiles");
  expect(Outcome::kError, "more members than the engine's limit");
}

TEST_F(ScanRecords, ALayerThatCannotBeReadIsAnError) {
  EXPECT_TRUE(record_.onLayer({"CL_TYPE_ANY", "outer", 0, nullptr, 0}));
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kClean);
  EXPECT_TRUE(record_.onLayer({"CL_TYPE_ANY", "inner", 1, nullptr, 10}));
  expect(Outcome::kError, "\"inner\" inside: cannot be read");
}

TEST_F(ScanRecords, UpToThirtyTwoDetectionsOfAFileAreReportedEachOnce) {
  for (int i = 0; i < 40; ++i) {
    record_.onFind("Win.Virus.Sample-" + std::to_string(i));
    record_.onFind("Win.Virus.Sample-" + std::to_string(i));
  }
  const Verdict verdict = record_.finish("");
  EXPECT_EQ(verdict.detections.size(), 32U);
  EXPECT_EQ(verdict.detections.back().name, "Win.Virus.Sample-31");
}

TEST_F(ScanRecords, OfSeveralReasonsTheFirstIsReported) {
  record_.onFind("Heuristics.Limits.Exceeded.MaxFiles");
  record_.onFailure("something failed");
  expect(Outcome::kError, "more members than the engine's limit", "the end");
}

TEST_F(ScanRecords, AFailureAtTheEndOfTheScanIsAnError) {
  expect(Outcome::kError, "the engine reports: no\\x1bmemory", "no\x1bmemory");
}

TEST_F(ScanRecords, OnlyAFailedWriteMeansFullTemporarySpace) {
  record_.onFailure("cannot open something");
  EXPECT_FALSE(record_.tempFull());
  record_.onFailure("write error on a file");
  EXPECT_TRUE(record_.tempFull());
}

TEST_F(ScanRecords, ADetectionOutranksAnErrorAndAnErrorOutranksALeftOutMember) {
  options_.archiveFormats = {"zip"};
  layer("CL_TYPE_GZ", "outer", 0);
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kSkipped);
  record_.onFailure("something failed");
  EXPECT_EQ(ScanRecord(record_).finish("").outcome, Outcome::kError);
  record_.onFind("Win.Virus.Sample-1");
  expect(Outcome::kInfected);
}

}  // namespace
}  // namespace agent
