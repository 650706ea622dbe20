#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TaskListener.h"
#include "json/Values.h"
#include "support/Json.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/TempDir.h"
#include "task/ScanTask.h"

namespace agent {

/// A whole scan in this process: real store, real workers, a fake owner.
class ScanTaskTest : public ::testing::Test {
 protected:
  ScanTaskTest() { EXPECT_EQ(0, chmod(dir.path().c_str(), 0755)); }
  static Spawner::Config config(const testsupport::TempDir& dir) {
    Spawner::Config config;
    config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
    config.systemSignatures = dir.at("system");
    config.tempFolder = dir.path();
    config.beforeFile = [dir = dir.path()](const std::string& name) {
      std::ofstream(dir + "/begun", std::ios::app) << name << "\n";
      testsupport::waitFor([&] { return access((dir + "/hold").c_str(), F_OK) != 0; },
                           std::chrono::minutes(5));
      if (name.ends_with("deadly")) {
        _exit(1);
      }
    };
    return config;
  }
  static ScanPlan custom(const std::vector<std::string>& items) {
    ScanPlan plan;
    plan.mode = json::ScanMode::kCustom;
    plan.scanType = json::toScanType(plan.mode, false);
    plan.items = items;
    plan.parallelism = 1;
    plan.useCache = plan.readCache = true;
    return plan;
  }
  std::chrono::milliseconds forgottenPause{std::chrono::hours(1)};
  std::unique_ptr<ScanTask> begin(const ScanPlan& plan) {
    owner = std::make_shared<TaskListener>();
    owner->held = held;
    owner->attributesFail = attributesFail;
    owner->onStage = onStage;
    auto task =
        std::make_unique<ScanTask>(ScanTask::Parts{*store, *scanner, ownFolders,
                                                   std::chrono::milliseconds(20), fileSystem, forgottenPause},
                                   "token", plan, caller, owner);
    if (pausedAtFirst) {
      EXPECT_TRUE(task->pause());
    }
    task->start({[this] { ++released; }, [this] { ++delivered; }});
    return task;
  }
  void scan(const ScanPlan& plan) {
    const std::unique_ptr<ScanTask> task = begin(plan);
    EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
    EXPECT_THAT(owner->states(), ::testing::ElementsAre(json::TaskState::kCreated, json::TaskState::kStarted,
                                                        json::TaskState::kFinished));
  }
  void scan(const std::vector<std::string>& items) { scan(custom(items)); }
  /// Scans the file until the cache knows it, as the first file: one that changed a moment ago is not
  /// remembered yet.
  bool becomesKnownClean(const std::string& path) {
    return testsupport::waitFor([&] {
      scan({path});
      return store->cache().count() == 1;
    });
  }
  /// How often a worker has begun that file.
  long begun(const std::string& path) const {
    std::istringstream names(testsupport::readFile(dir.at("begun")));
    long count = 0;
    for (std::string name; std::getline(names, name);) {
      count += name == path ? 1 : 0;
    }
    return count;
  }
  /// The workers begin no file and end none until release().
  void hold() const { dir.write("hold", ""); }
  void release() const { std::filesystem::remove(dir.at("hold")); }
  /// Waits for as long as another scan takes to report its progress many times.
  void waitForManyTicks() {
    const std::shared_ptr<TaskListener> before = owner;
    hold();
    const std::unique_ptr<ScanTask> beside = begin(custom({dir.write("beside", "clean")}));
    EXPECT_TRUE(testsupport::waitFor([&] { return owner->percents().size() >= 20; }));
    release();
    EXPECT_TRUE(beside->waitOver(std::chrono::seconds(20)));
    owner = before;
  }
  /// A plan of stages whose places are all left out: the scan encounters programs only.
  ScanPlan programsOf(json::ScanMode mode) {
    fileSystem = [](int) { return FileSystem{FileSystemKind::kNetwork, "nfs"}; };
    ScanPlan plan;
    plan.mode = mode;
    plan.scanType = json::toScanType(mode, false);
    plan.parallelism = 1;
    plan.networkFileSystems = false;
    plan.memoryCheck = true;
    plan.skipBytes = 1 << 20;
    return plan;
  }
  /// Puts one entry on a list.
  void list(json::Region region, const std::string& item,
            json::RegionItemType type = json::RegionItemType::kFile) {
    Json::Value items = testsupport::jsonOf(R"({"action":0,"domain":0,"is_all":false})");
    items["type"] = json::toNumber(type);
    items["items"].append(json::encodePath(item));
    EXPECT_TRUE(store->regions().change(region, items, CallerId{0, 0, {}, getpid()}));
  }
  /// A program that sleeps and carries a detection behind its own bytes.
  std::string program(const char* name) {
    const std::string path = dir.at(name);
    std::filesystem::copy_file("/bin/sleep", path);
    std::ofstream(path, std::ios::binary | std::ios::app) << testsupport::genericSample();
    EXPECT_EQ(0, chmod(path.c_str(), 0755));
    return path;
  }
  static std::unique_ptr<testsupport::Process> run(const std::string& path, uid_t uid, gid_t gid) {
    testsupport::Process::Options options;
    options.uid = uid;
    options.gid = gid;
    auto process =
        std::make_unique<testsupport::Process>(std::vector<std::string>{path, "600"}, std::move(options));
    EXPECT_TRUE(testsupport::waitFor([&] {
      const auto all = RunningPrograms::all().value();
      return std::any_of(all.begin(), all.end(), [&](const RunningProgram& program) {
        return program.pid == process->pid() && program.path == path && program.uid == uid;
      });
    }));
    return process;
  }

  testsupport::TempDir dir{testsupport::diskFolder()};
  Spawner spawner{config(dir)};
  std::unique_ptr<Store> store = Store::open(dir.at("state"));
  Spawner* scanner = &spawner;
  std::vector<std::string> ownFolders;
  std::function<FileSystem(int)> fileSystem = fileSystemOf;
  CallerId caller{geteuid(), getegid(), {}, getpid()};
  bool attributesFail = false;          ///< of the next scan's owner
  std::shared_ptr<TaskListener> owner;  ///< of the last scan
  std::function<void(int)> onStage;
  std::atomic<int> released{0}, delivered{0};  ///< how often the tasks' hooks ran
  bool held = false;
  bool pausedAtFirst = false;
};

}  // namespace agent
