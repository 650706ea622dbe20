#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "store/StepHook.h"
#include "support/TempDir.h"
#include "task/DetectionHandler.h"

namespace agent {
namespace {

class Unheard : public TaskEvents {
 public:
  void state(State, const std::string&) override {}
  void progress(int) override {}
  void overview(const Json::Value&) override {}
  void stage(int, const std::string&) override {}
  void attributes(const Json::Value&) override {}
  void risk(int, int, const Json::Value&) override {}
  void repaired(int, int, const Json::Value&, const Json::Value& result) override { last = result; }
  void waitForRoom(const std::function<bool()>&) override {}
  void whenTold(std::function<void()>) override {}
  Json::Value last;
};

class Deletion : public testing::Test {
 protected:
  void TearDown() override { store::stepHook = nullptr; }

  std::shared_ptr<ScanJob> scanned(const std::string& path) {
    auto job = std::make_shared<ScanJob>();
    job->path = path;
    job->fd = platform::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    fstat(job->fd.get(), &job->status);
    job->identity = FileIdentity::of(job->status);
    job->folderWritable = true;
    return job;
  }
  int deleteFound(std::shared_ptr<ScanJob> job) {
    ScanPlan plan;
    plan.fixMethod = 0;
    plan.handling = ScanPlan::Handling::kDelete;
    const CallerId caller{.uid = geteuid(), .gid = getegid(), .groups = {}, .pid = getpid()};
    Verdict verdict;
    verdict.outcome = Outcome::kInfected;
    verdict.detections.push_back(Detection{"Test", 0, 1, "test"});
    Counters counters;
    TaskControl control;
    DetectionHandler handler({plan, caller, *store_, counters, events_, control});
    handler.found(std::move(job), std::move(verdict));
    handler.waitBelow(1);
    return events_.last["handle_result"].asInt();
  }
  static std::string content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  testsupport::TempDir folder_;
  std::unique_ptr<Store> store_ = Store::open(folder_.at("state"));
  Unheard events_;
};

TEST_F(Deletion, TheScannedFileIsRemovedAndNothingIsLeft) {
  std::filesystem::create_directory(folder_.at("d"));
  const std::string path = folder_.write("d/file", "bad");
  EXPECT_EQ(deleteFound(scanned(path)), 1);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.at("d")));
}

TEST_F(Deletion, AnotherFileThatWasTakenAtTheLastMomentIsPutBack) {
  std::filesystem::create_directory(folder_.at("d"));
  const std::string path = folder_.write("d/file", "bad");
  const std::string good = folder_.write("good", "good");
  store::stepHook = [&](const std::string& step) {
    if (step == "moved") {
      for (const auto& entry : std::filesystem::directory_iterator(folder_.at("d"))) {
        std::filesystem::rename(good, entry.path());
      }
    }
  };
  EXPECT_EQ(deleteFound(scanned(path)), 4);
  EXPECT_EQ(content(path), "good");
}

}  // namespace
}  // namespace agent
