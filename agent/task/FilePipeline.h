#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "task/DetectionHandler.h"
#include "task/EncounteredFile.h"
#include "task/LinkedFiles.h"
#include "task/ScanContext.h"
#include "worker/WorkerPool.h"

namespace agent {

/// The way of each file that a scan encounters. The file is left out, known as clean, or scanned by a worker.
/// A scanned file is counted, remembered as clean, or handed to the DetectionHandler. Called with the agent's
/// own rights. A file with several names is scanned once. Walking thread, except for hold() and cancel().
class FilePipeline {
 public:
  /// Starts the workers. signatureVersion: results in the cache count for this version only.
  FilePipeline(const ScanContext& context, Spawner& spawner, const std::string& signatureVersion);

  /// Waits while many files are queued or many detections are not handled, unless held.
  void file(EncounteredFile file);
  void skipped(const std::string& path, const std::string& reason);
  void failed(const std::string& path, const std::string& reason);
  /// Waits until each file has ended and each detection is handled. Pauses meanwhile when the task is paused,
  /// so also with the caller's rights.
  void waitUntilDone();
  /// Files and detections wait until release(). Those under way do, too, within half a second: as
  /// WorkerPool::hold(), DetectionHandler::hold(). Any thread.
  void hold();
  void release();
  /// Waits until nothing is under way, or the hold is over.
  void waitHeld();
  /// Ends the workers: files that have not ended are skipped. Ends a hold. The task must be stopping: its
  /// detections are no longer handled. Any thread.
  void cancel();
  unsigned workerCount() const { return pool_.size(); }

 private:
  RegionVerdict regionOf(const EncounteredFile& file) const;
  bool hasUsableTimes(const EncounteredFile& file);
  using File = LinkedFiles::File;
  void submit(const File& file, bool rejected, bool cacheable);
  bool applyRegions(Verdict& verdict, bool rejected) const;
  void ended(const File& file, Verdict verdict, bool rejected, bool cacheable);
  void noteDeath(const EncounteredFile& file, const std::string& reason);
  void endedClean(const EncounteredFile& file, bool cacheable);
  void broke(const File& file, const std::string& reason);
  void endNames(const EncounteredFile& first, FileEnd end);
  void endAs(const File& file, const FileEnd& end);
  void countSkipped(const std::string& path, const std::string& reason);
  void countFailed(const std::string& path, const std::string& reason);

  const ScanContext context_;
  Spawner& spawner_;
  const std::string signatureVersion_;  // of the results in the cache, and of files that are not tried again
  std::string cacheKey_;
  std::unordered_map<dev_t, bool> usableTimes_;  // by file system
  LinkedFiles links_;
  DetectionHandler handler_;
  WorkerPool pool_;  // ends first: its callbacks use the handler
};

}  // namespace agent
