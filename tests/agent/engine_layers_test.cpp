// What the bytes of a layer say: the table of magic bytes and the checks of headers.

#include <gmock/gmock.h>

#include "EngineFixture.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using namespace std::string_literals;
using testing::describe;
using ::testing::HasSubstr;
using testsupport::archiveOf;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::makeTar;
using testsupport::makeZip;
using testsupport::packedBy;

struct Row {
  std::string what, content;
};

class EngineLayers : public testing::EngineFixture {
 protected:
  void expect(Outcome outcome, const Row& row, const std::string& reason = {}) {
    const Verdict verdict = scan(row.content);
    EXPECT_EQ(verdict.outcome, outcome) << row.what << ": " << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason)) << row.what;
  }
  void expectFound(const Row& row) { expect(Outcome::kInfected, row); }
  void expectClean(const Row& row) { expect(Outcome::kClean, row); }
};

// libclamav matches no signature with files that begin with one of these.
TEST_F(EngineLayers, AFileThatLooksLikeASoundOrADatabaseIsScanned) {
  for (const std::string& magic :
       {"ID3"s, "OggS"s, ".RMF"s, "\xFF\xFB\x90"s, "SQLite format 3\0"s, "SIP-HIT (SIP/H"s, "SYMC\1\0"s,
        "\x37\x7F\x06\x82\0\x2D\xE2\x18"s, "\xD9\xD5\x05\xF9\x20\xA1\x63\xD7"s}) {
    expectFound({magic, magic + genericSample()});
    expectFound({magic, makeZip({{"inner", magic + " some text " + genericSample()}})});
    expectFound({magic, magic + magic + packedBy("gzip", magic + genericSample())});
    expectClean({magic, magic + " some text"});
  }
}

}  // namespace
}  // namespace agent
