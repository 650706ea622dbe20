#include <gmock/gmock.h>

#include "EngineFixture.h"
#include "json/CppJson.h"

namespace agent {
namespace {

using testing::describe;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::hashSample;
using testsupport::makeGzip;
using testsupport::makeNestedZip;
using testsupport::makeTar;
using testsupport::makeZip;
using testsupport::scriptSample;

class EngineDetection : public testing::EngineFixture {
 protected:
  void expectFound(const std::string& content, const std::string& name) {
    const Verdict verdict = scan(content);
    ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
    EXPECT_EQ(verdict.detections.front().name, name);
  }
  void expectClean(const std::string& content) {
    const Verdict verdict = scan(content);
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
  }
};

TEST_F(EngineDetection, TheTestFileIsFoundWithItsKindAndEngine) {
  const Verdict verdict = scan(eicar());
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  ASSERT_GE(verdict.detections.size(), 1U);
  EXPECT_EQ(verdict.detections[0].name, "TAV.Test.EICAR");
  EXPECT_EQ(verdict.detections[0].engineCode, json::kEngineRda);
  EXPECT_EQ(verdict.detections[0].riskType, json::RiskType::kTestFile);
  EXPECT_EQ(verdict.detections[0].riskTypeName, "测试文件");
}

TEST_F(EngineDetection, TheTestFileWithALineEndIsFound) {
  expectFound(eicar() + "\r\n", "TAV.Test.EICAR");
}

TEST_F(EngineDetection, ATextThatQuotesTheTestStringIsNoTestFile) {
  expectClean("echo '" + eicar() + "' > test.com\nls -l test.com\n");
}

TEST_F(EngineDetection, TheTestStringAppendedToAnotherFileIsFound) {
  expectFound(std::string(100000, 'x') + eicar() + "\n", "TAV.Test.EICAR.Appended");
}

TEST_F(EngineDetection, TheTestFileInAZipIsFound) {
  expectFound(makeZip({{"readme.txt", "hello hello hello"}, {"a/b/test.com", eicar()}}), "TAV.Test.EICAR");
}

TEST_F(EngineDetection, TheTestFileInATarGzIsFound) {
  expectFound(makeGzip(makeTar({{"one", "some text"}, {"two", eicar()}})), "TAV.Test.EICAR");
}

TEST_F(EngineDetection, TheTestFileFourZipsDeepIsFound) {
  expectFound(makeNestedZip(4, "test.com", eicar()), "TAV.Test.EICAR");
}

TEST_F(EngineDetection, TheGenericStringIsFoundAnywhere) {
  expectFound("before " + genericSample() + " behind", "TAV.Test.Generic");
}

TEST_F(EngineDetection, TheScriptStringIsFoundInUpperAndLowerCase) {
  expectFound("#!/bin/sh\n" + scriptSample() + "\n", "TAV.Test.Script");
}

TEST_F(EngineDetection, AFileIsFoundByItsHash) {
  const Verdict verdict = scan(hashSample());
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  EXPECT_EQ(verdict.detections[0].name, "TAV.Hash.Test");
  EXPECT_EQ(verdict.detections[0].engineCode, json::kEngineRdaOld);
}

TEST_F(EngineDetection, OrdinaryFilesAreClean) {
  expectClean("");
  expectClean("x");
  expectClean("just some text\n");
  expectClean(std::string(70000, '\0'));
  expectClean(makeZip({{"a.txt", "hello hello hello"}, {"empty/", ""}}));
}

}  // namespace
}  // namespace agent
