#include <gmock/gmock.h>

#include "EngineFixture.h"
#include "json/CppJson.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::hashSample;
using testsupport::makeGzip;
using testsupport::makeNestedZip;
using testsupport::makeTar;
using testsupport::makeZip;

class EngineOptions : public testing::EngineFixture {};

TEST_F(EngineOptions, WithArchivesOffAnArchiveIsSkippedWithAReason) {
  ScanOptions options;
  options.archives = false;
  const Verdict verdict = scan(makeZip({{"test.com", eicar()}}), options);
  EXPECT_EQ(verdict.outcome, Outcome::kSkipped) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("archives are not unpacked"));
}

TEST_F(EngineOptions, WithArchivesOffOtherFilesAreStillScanned) {
  ScanOptions options;
  options.archives = false;
  EXPECT_EQ(scan(eicar(), options).outcome, Outcome::kInfected);
  EXPECT_EQ(scan("plain text of no interest", options).outcome, Outcome::kClean);
}

TEST_F(EngineOptions, AnArchiveOfAnUnlistedKindIsSkippedWithAReason) {
  ScanOptions options;
  options.archiveFormats = {"zip", "rar"};
  const Verdict verdict = scan(makeGzip(eicar()), options);
  EXPECT_EQ(verdict.outcome, Outcome::kSkipped) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("gz"));
  EXPECT_EQ(scan(makeZip({{"test.com", eicar()}}), options).outcome, Outcome::kInfected);
}

TEST_F(EngineOptions, AnyEndingOfAKindSelectsTheKind) {
  ScanOptions options;
  options.archiveFormats = {"tgz", "tar"};
  EXPECT_EQ(scan(makeGzip(makeTar({{"x", eicar()}})), options).outcome, Outcome::kInfected);
}

TEST_F(EngineOptions, TheReasonNamesAnInnerArchiveThatIsNotUnpacked) {
  ScanOptions options;
  options.archiveFormats = {"zip"};
  const Verdict verdict = scan(makeZip({{"inner.gz", makeGzip(eicar())}}), options);
  EXPECT_EQ(verdict.outcome, Outcome::kSkipped) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("inner.gz"));
}

TEST_F(EngineOptions, AnArchiveWithALeftOutAndAnUnscannableMemberIsAnError) {
  ScanOptions options;
  options.archiveFormats = {"zip"};
  const testsupport::ZipMember leftOut{"inner.gz", makeGzip("left out by the setting")};
  testsupport::ZipMember odd{"odd", "some text that is packed by a method nobody here knows"};
  odd.method = 14;
  for (const auto& members : {std::vector{leftOut, odd}, {odd, leftOut}}) {
    const Verdict verdict = scan(makeZip(members), options);
    EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr("packed by method 14"));
  }
}

TEST_F(EngineOptions, AnArchiveLargerThanTheSettingIsSkippedWithAReason) {
  ScanOptions options;
  options.maxArchiveBytes = 1000;
  testsupport::ZipMember stored{"big", std::string(5000, 'x') + genericSample()};
  stored.deflate = false;
  const Verdict verdict = scan(makeZip({stored}), options);
  EXPECT_EQ(verdict.outcome, Outcome::kSkipped) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("larger than the 1000 bytes"));
  EXPECT_EQ(scan(makeZip({{"test.com", eicar()}}), options).outcome, Outcome::kInfected);
}

TEST_F(EngineOptions, TheArchiveSizeLimitDoesNotApplyToOtherFiles) {
  ScanOptions options;
  options.maxArchiveBytes = 1000;
  EXPECT_EQ(scan(std::string(5000, 'x') + genericSample(), options).outcome, Outcome::kInfected);
}

TEST_F(EngineOptions, AsManyLayersAsTheSettingAreUnpacked) {
  ScanOptions options;
  options.maxLayers = 3;
  EXPECT_EQ(scan(makeNestedZip(3, "test.com", eicar()), options).outcome, Outcome::kInfected);
  const Verdict deeper = scan(makeNestedZip(4, "test.com", eicar()), options);
  EXPECT_EQ(deeper.outcome, Outcome::kError) << describe(deeper);
  EXPECT_THAT(deeper.reason, HasSubstr("nested deeper than 3 layers"));
}

TEST_F(EngineOptions, ADetectionWhoseEngineIsOffDoesNotCount) {
  ScanOptions options;
  options.enabledEngines = ~(1U << json::kEngineRda);
  EXPECT_EQ(scan(eicar(), options).outcome, Outcome::kClean);
  EXPECT_EQ(scan(hashSample(), options).outcome, Outcome::kInfected);
  options.enabledEngines = ~(1U << json::kEngineRdaOld);
  EXPECT_EQ(scan(eicar(), options).outcome, Outcome::kInfected);
  EXPECT_EQ(scan(hashSample(), options).outcome, Outcome::kClean);
}

TEST_F(EngineOptions, AnEngineThatIsOffHidesNoDetectionOfAnother) {
  ScanOptions options;
  options.enabledEngines = ~(1U << json::kEngineRdaOld);
  const Verdict verdict = scan(makeZip({{"hash", hashSample()}, {"test.com", eicar()}}), options);
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  ASSERT_EQ(verdict.detections.size(), 1U) << describe(verdict);
  EXPECT_EQ(verdict.detections[0].name, "TAV.Test.EICAR");
}

TEST_F(EngineOptions, EachDetectionOfAFileIsReportedOnce) {
  const std::string twice = genericSample() + " and " + genericSample();
  const Verdict verdict = scan(makeZip({{"one", twice}, {"two", twice}, {"test.com", eicar()}}));
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  EXPECT_EQ(verdict.detections.size(), 2U) << describe(verdict);
}

TEST_F(EngineOptions, AHeuristicAlertCountsInAStrongScanOnly) {
  // A program file whose header describes missing data: broken, and therefore suspicious.
  std::string broken = std::string(
                           "\x7F"
                           "ELF\x02\x01\x01",
                           7) +
                       std::string(9, '\0');
  broken +=
      std::string("\x02\x00\x3E\x00\x01\x00\x00\x00", 8) + std::string(40, '\x7E') + std::string(200, '\x11');
  ScanOptions options;
  const Verdict normal = scan(broken, options);
  EXPECT_NE(normal.outcome, Outcome::kInfected) << describe(normal);
  options.heuristics = true;
  const Verdict strong = scan(broken, options);
  ASSERT_EQ(strong.outcome, Outcome::kInfected) << describe(strong);
  EXPECT_EQ(strong.detections[0].engineCode, json::kEngineUmb);
  EXPECT_EQ(strong.detections[0].riskType, json::RiskType::kHeuristic);
  options.enabledEngines = ~(1U << json::kEngineUmb);
  EXPECT_NE(scan(broken, options).outcome, Outcome::kInfected);
}

TEST_F(EngineOptions, HashesComeWithADetectionAndOtherwiseOnlyWhenWanted) {
  const Verdict found = scan(eicar());
  EXPECT_EQ(found.md5, "44d88612fea8a8f36de82e1278abb02f");
  EXPECT_EQ(found.sha1, "3395856ce81f2b7382dee72602f798b642f14140");
  EXPECT_EQ(found.sha256, "275a021bbfb6489e54d471899f7db9d1663fc695ec2fe2a2c4538aabf651fd0f");
  EXPECT_TRUE(scan("abc").md5.empty());
  ScanOptions options;
  options.hashesWanted = true;
  EXPECT_EQ(scan("abc", options).md5, "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(scan("", options).md5, "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(EngineOptions, HashesAreOfTheWholeFileHoweverLong) {
  ScanOptions options;
  options.hashesWanted = true;
  const Verdict whole = scan(std::string(600'001, 'a'), options);
  EXPECT_EQ(whole.md5, "cebccbe4724f4b7ead6e47686ea224db") << describe(whole);
  EXPECT_EQ(whole.sha1, "6feab119a869bde3d691d6a39226359841bac7d8");
  EXPECT_EQ(whole.sha256, "fece2fa2258dbd33cc9aa06edbb321c2749444995f5fc3b24d639a20bad61688");
  const Verdict other = scan(std::string(600'000, 'a') + "b", options);
  EXPECT_NE(other.md5, whole.md5);
  EXPECT_NE(other.sha1, whole.sha1);
  EXPECT_NE(other.sha256, whole.sha256);
}

TEST_F(EngineOptions, AVerdictDoesNotDependOnEarlierScansOfTheFile) {
  ScanOptions off;
  off.archives = false;
  const std::string zip = makeZip({{"test.com", eicar()}});
  EXPECT_EQ(scan(zip, off).outcome, Outcome::kSkipped);
  EXPECT_EQ(scan(zip).outcome, Outcome::kInfected);
  testsupport::ZipMember huge{"huge", std::string(2000000, '\0')};
  const std::string cut = makeZip({huge});
  EXPECT_EQ(scan(cut).outcome, Outcome::kError);
  EXPECT_EQ(scan(cut).outcome, Outcome::kError);
}

}  // namespace
}  // namespace agent
