#include <gmock/gmock.h>
#include <sys/statfs.h>

#include "WorkerFixture.h"
#include "support/BombMaker.h"

// Files made to take all that a machine has, with the limits and processes of the agent. Too slow for ctest:
// the program is only built.

namespace agent {
namespace {

using testing::describe;
using testsupport::eicar;
using testsupport::makeZip;
using testsupport::ZipMember;

std::uint64_t bytesInUse(const std::string& folder) {
  struct statfs status {};
  EXPECT_EQ(statfs(folder.c_str(), &status), 0) << folder;
  return (status.f_blocks - status.f_bfree) * static_cast<std::uint64_t>(status.f_bsize);
}

class Bombs : public testing::ConfinedWorkerFixture {
 protected:
  void SetUp() override {
    ConfinedWorkerFixture::SetUp();
    if (IsSkipped()) {
      return;
    }
    pool_.emplace(spawner(), 1);
    scan("first", eicar());
  }
  Verdict scan(const std::string& name, const std::string& content) {
    return ConfinedWorkerFixture::scan(*pool_, name, content);
  }
  Verdict scanFile(const std::string& path) {
    pool_->scan(openFile(path), path, {}, keep(path));
    pool_->drain();
    return verdict(path);
  }
  std::string write(const std::string& content) const { return dir().write("bomb", content); }
  // No content of a file is in memory by now.
  void expectError(const std::string& path, const ScanOptions& options = {}) {
    const Use before = inUse();
    const auto begun = std::chrono::steady_clock::now();
    pool_->scan(openFile(path), path, options, keep("bomb"));
    pool_->drain();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    std::printf("%.1f s: %s\n", took.count(), describe(verdict("bomb")).c_str());
    EXPECT_EQ(verdict("bomb").outcome, Outcome::kError) << describe(verdict("bomb"));
    std::filesystem::remove(path);
    EXPECT_EQ(scan("after", eicar()).outcome, Outcome::kInfected) << describe(verdict("after"));
    EXPECT_TRUE(testsupport::waitFor([&] { return inUse().unpacked == before.unpacked; }));
    EXPECT_EQ(inUse().files, before.files);
    EXPECT_LE(inUse().agentKb, before.agentKb + 4 * 1024);
    EXPECT_TRUE(testsupport::waitFor([&] { return inUse().shared <= before.shared; }));
    EXPECT_TRUE(testsupport::waitFor([&] { return inUse().disk <= before.disk + kOfOthers; }));
  }

 private:
  static constexpr std::uint64_t kOfOthers = 64U << 20;  ///< other programs write to the disk meanwhile
  struct Use {
    std::uint64_t unpacked = 0;  ///< in the root of the template
    std::ptrdiff_t files = 0;    ///< in the agent's folders, of which one is in /dev/shm
    long agentKb = 0;            ///< resident memory of this process
    std::uint64_t shared = 0;    ///< of the whole /dev/shm
    std::uint64_t disk = 0;      ///< of the whole disk that holds the agent's folders
  };
  Use inUse() {
    std::ptrdiff_t files = 0;
    for (const std::string& folder : spawner().temporaryFolders()) {
      files +=
          std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
    }
    const std::string root = "/proc/" + std::to_string(processesNamed("tav-template").at(0)) + "/root";
    std::istringstream pages(testsupport::readFile("/proc/self/statm"));
    long size = 0, resident = 0;
    pages >> size >> resident;
    return {bytesInUse(root), files, resident * sysconf(_SC_PAGESIZE) / 1024, bytesInUse("/dev/shm"),
            bytesInUse(dir().path())};
  }
  std::optional<WorkerPool> pool_;
};

TEST_F(Bombs, OneGigabyteOfZerosZipped) {
  const std::string path = write(makeZip({{"zeros", std::string(1U << 30, '\0')}}));
  expectError(path);
}

TEST_F(Bombs, FourGigabytesOfZerosInMembersOfAZip) {
  const auto make = [] {
    std::vector<ZipMember> members;
    for (int i = 0; i < 18; ++i) {
      members.push_back({std::to_string(i), std::to_string(i) + std::string(250U << 20, '\0')});
    }
    return makeZip(members);
  };
  const std::string path = write(make());
  expectError(path);
}

TEST_F(Bombs, ADocumentOf720StreamsThatShareTheirSectors) {
  const std::string path = write(testsupport::makeDocumentOfSharedStreams(720, 6'500'000));
  expectError(path);
}

TEST_F(Bombs, ArchivesNestedAHundredDeep) {
  ScanOptions options;
  options.maxLayers = 1000;
  expectError(write(testsupport::makeNestedZip(100, "test.com", eicar())), options);
}

TEST_F(Bombs, AHundredThousandMembers) {
  const auto make = [] {
    std::vector<ZipMember> members;
    for (int i = 0; i < 100000; ++i) {
      members.push_back({std::to_string(i), "the text of member " + std::to_string(i)});
    }
    return makeZip(members, true);
  };
  const std::string path = write(make());
  expectError(path);
}

TEST_F(Bombs, AnImageThatContainsItself) {
  ScanOptions options;
  options.maxLayers = 1000;
  expectError(write(testsupport::makeImageOfItself()), options);
}

// Its holes are scanned, too: within the time or not at all.
TEST_F(Bombs, ASparseGibibyteThatIsAProgramHasTheTimeOfItsBlocks) {
  const std::string path = dir().write("sparse", testsupport::readFile("/bin/true"));
  ASSERT_EQ(truncate(path.c_str(), 1 << 30), 0);
  const Verdict verdict = scanFile(path);
  EXPECT_TRUE(verdict.outcome == Outcome::kClean ||
              verdict.reason == "the scan used more processor time than its budget of 15 s")
      << describe(verdict);
}

TEST_F(Bombs, ASparseGibibyteOfNothingIsClean) {
  const std::string path = dir().write("sparse", "text");
  ASSERT_EQ(truncate(path.c_str(), 1 << 30), 0);
  const Verdict verdict = scanFile(path);
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
}

}  // namespace
}  // namespace agent
