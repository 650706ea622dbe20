#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "engine/ZipAudit.h"
#include "support/ArchiveMaker.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using testsupport::makeZip;

// Held in a block of just that size, so that a sanitizer sees a read beyond its end.
std::string audit(const std::string& zip) {
  const auto exact = std::make_unique<char[]>(zip.size());
  std::copy(zip.begin(), zip.end(), exact.get());
  return auditZip(exact.get(), zip.size());
}

const std::string kHonest =
    makeZip({{"one.txt", "content of one"}, {"folder/", ""}, {"two.txt", "content of two"}});

TEST(ZipAudit, AnHonestZipHasNoProblem) {
  EXPECT_EQ(audit(kHonest), "");
  EXPECT_EQ(audit(makeZip({})), "");
}

TEST(ZipAudit, AZipBehindAProgramHasNoProblem) {
  EXPECT_EQ(audit("#!/bin/sh\nexit\n" + kHonest), "");
}

TEST(ZipAudit, AZipWithACommentHasNoProblem) {
  std::string zip = kHonest + "a comment";
  zip[kHonest.size() - 2] = 9;
  EXPECT_EQ(audit(zip), "");
}

TEST(ZipAudit, EveryCutOfAZipIsAProblem) {
  for (std::size_t size = 0; size < kHonest.size(); ++size) {
    EXPECT_NE(audit(kHonest.substr(0, size)), "") << "cut to " << size;
  }
}

TEST(ZipAudit, ADirectoryOfTheSixtyFourBitFormatIsAProblem) {
  std::string zip = kHonest;
  zip.replace(zip.size() - 6, 4, "\xFF\xFF\xFF\xFF");
  EXPECT_THAT(audit(zip), HasSubstr("64-bit directory"));
}

TEST(ZipAudit, AnyBytesAreReadWithinTheirBounds) {
  const unsigned seed = 41;
  RecordProperty("seed", static_cast<int>(seed));
  std::mt19937 generator(seed);
  for (int round = 0; round < 20000; ++round) {
    std::string zip = kHonest;
    for (int change = 0; change < 4; ++change) {
      zip[generator() % zip.size()] = static_cast<char>(generator() % 4 == 0 ? 0xFF : generator() & 0xFF);
    }
    audit(zip.substr(generator() % 8, zip.size()));
  }
}

}  // namespace
}  // namespace agent
