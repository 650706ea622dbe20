// The test files of libclamav's own package: one small program, packed by the tools of many systems.

#include <algorithm>
#include <string>
#include <vector>

#include "EngineFixture.h"
#include "engine/Digest.h"

namespace agent::testing {
namespace {

const std::string kFolder = "/usr/share/clamav-testfiles";

std::vector<std::string> filesOf(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class LibraryFiles : public EngineFixture {
 protected:
  // Packers of programs change all but the code.
  void loadSignatureOf(const std::string& program) {
    constexpr std::size_t kCode = 64, kCodeBytes = 48;
    const std::string code = program.substr(kCode, kCodeBytes);
    signatures_.write("program.ndb", "Own.Program:0:*:" + toHex(code.data(), code.size()) + "\n");
    load(EngineLimits{}, signatures_.path());
  }

 private:
  testsupport::TempDir signatures_;
};

TEST_F(LibraryFiles, EachFileOfThePackageIsInfectedByASignatureOfTheProgramInThem) {
  if (!std::filesystem::exists(kFolder + "/clam.exe")) {
    GTEST_SKIP() << "the package clamav-testfiles is not installed";
  }
  loadSignatureOf(testsupport::readFile(kFolder + "/clam.exe"));
  const auto files = filesOf(kFolder);
  EXPECT_GE(files.size(), 44U);
  for (const auto& path : files) {
    const Verdict verdict = scanPath(path);
    EXPECT_EQ(verdict.outcome, Outcome::kInfected) << path << ": " << describe(verdict);
  }
}

}  // namespace
}  // namespace agent::testing
