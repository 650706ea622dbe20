#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Expected.h"
#include "task/CallerRights.h"
#include "task/FilePipeline.h"
#include "task/HomeFolders.h"
#include "task/Places.h"
#include "task/ScanContext.h"
#include "task/Walker.h"

namespace agent {

/// Walks with the caller's rights: the paths of a custom scan, or the stages of a fast or full scan. The
/// task's thread, except for done().
class ScanWalk final : private WalkSink {
 public:
  ScanWalk(const ScanContext& context, Walker::Options options);

  /// Opens the paths of the plan. Fails with the first path that cannot be walked.
  platform::Expected<void> prepare();
  /// Walks, and hands each entry to `files` with the agent's own rights.
  void run(FilePipeline& files);
  /// The rights in force while the walk runs, for CallerRights::Suspended; else null.
  const CallerRights* rights() const { return rights_.get(); }
  /// The part of the whole walk that has ended, 0 to 1. Any thread.
  double done() const { return done_.load(std::memory_order_relaxed); }

 private:
  void walkPaths();
  void walkStages();
  void walkStage(const Stage& stage, double share);
  void walkPlace(const Place& place, double share);
  void walkRunningPrograms(double share);
  void walkNamedPrograms(const Place& place, const std::string& path, int depth);
  void walkNamedProgram(const std::string& path, const HomeFolder* by);
  void walkSetuidFiles(double share);
  platform::Expected<std::optional<EncounteredFile>> openPlace(const std::string& path,
                                                               const HomeFolder* home) const;
  void listPlaces(const std::vector<Stage>& stages);
  bool isInPlaces(const std::string& path) const;

  void file(EncounteredFile file) override;
  void skipped(const std::string& path, const std::string& reason) override;
  void failed(const std::string& path, const std::string& reason) override;
  bool keepGoing() override { return context_.control.keepGoing(); }
  void advanced(double share) override;

  const ScanContext context_;
  Walker::Options options_;
  std::optional<Walker> walker_;
  std::vector<EncounteredFile> paths_;
  std::unique_ptr<CallerRights> rights_;
  FilePipeline* files_ = nullptr;
  std::vector<HomeFolder> homes_;
  std::vector<std::string> placePaths_;            // of all stages
  std::set<std::pair<std::string, uid_t>> named_;  // paths that settings name, with the user of the settings
  std::set<std::pair<dev_t, ino_t>> namedFiles_;   // of these, those that were walked
  bool searching_ = false;                         // for setuid files
  std::atomic<double> done_{0};
};

}  // namespace agent
