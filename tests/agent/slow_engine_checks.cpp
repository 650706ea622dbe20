#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "EngineFixture.h"

// The limits at their real size. Too slow for ctest: the program is only built.

namespace agent {
namespace {

using testing::describe;
using testsupport::genericSample;
using testsupport::makeZip;
using testsupport::ZipMember;

class EngineRealLimits : public testing::EngineFixture {
 protected:
  void SetUp() override { load(EngineLimits{}); }
};

TEST_F(EngineRealLimits, ASignatureAtTheEndOfAZipMemberOf150MegabytesIsFound) {
  const Verdict verdict = scan(makeZip({{"big", std::string(150U << 20, '\0') + genericSample()}}));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

TEST_F(EngineRealLimits, ASignatureAtTheEndOfALargeMemberWithAFalseSizeIsFound) {
  ZipMember member{"big", std::string(150U << 20, '\0') + genericSample()};
  member.declaredBytes = 1000;
  const Verdict verdict = scan(makeZip({member}));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

TEST_F(EngineRealLimits, OneGigabyteOfZerosAsASixtyFourBitMemberIsAnError) {
  ZipMember member{"zeros", std::string(1U << 30, '\0')};
  member.sizes64 = true;
  const Verdict verdict = scan(makeZip({member}));
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
}

TEST_F(EngineRealLimits, AMemberAboveTheLimitIsAnError) {
  const Verdict verdict = scan(makeZip({{"big", std::string((1U << 30) + 100, '\0') + genericSample()}}));
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
}

TEST_F(EngineRealLimits, AWebPageLargerThanTheLibrarysOwnLimitIsScannedWhole) {
  std::string page = "<html><body>\n";
  while (page.size() < (45U << 20)) {
    page += "<p>some text <a href=\"http://localhost/\">and a link</a></p>\n";
  }
  const Verdict verdict = scan(page + genericSample() + "</body></html>");
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
}

}  // namespace
}  // namespace agent
