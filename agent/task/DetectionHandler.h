#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/Expected.h"
#include "task/RiskRecords.h"
#include "task/RunningPrograms.h"
#include "task/ScanContext.h"

namespace agent {

/// Reports and handles the detections of a scan, one after the other, on a thread of its own. The walk and
/// the workers do not wait for a quarantine. After a stop of the task, detections are reported as not
/// handled; a quarantine under way is undone.
class DetectionHandler {
 public:
  explicit DetectionHandler(const ScanContext& context);
  ~DetectionHandler();  ///< handles the queued detections first
  DetectionHandler(const DetectionHandler&) = delete;
  DetectionHandler& operator=(const DetectionHandler&) = delete;

  /// Queues a detection. The handler sets riskId and times of the detection later. Never waits. Any thread.
  void add(DetectedFile detected);
  /// Waits until fewer than `most` are queued (1: until all are handled). False as soon as the handler is
  /// held and more are left.
  bool waitBelow(std::size_t most);
  /// No detection begins to be handled until release(). The one under way stands between two steps, also
  /// between two blocks of a quarantine, and goes on at the release. Any thread.
  void hold();
  void release();
  /// Waits until a held handler handles nothing, or is held no more.
  void waitHeld();

 private:
  void run();
  bool keepGoing();
  void waitForOwner();
  bool held();
  std::string stopText() const;
  void handle(DetectedFile& detected);
  void handleFile(const DetectedFile& detected);
  void handleProcesses(const DetectedFile& detected);
  void recordDeed(const char* action, const std::string& object, const std::string& done,
                  const std::string& reason) const;
  platform::Expected<Remark> remove(const DetectedFile& detected);
  platform::Expected<void> checkAllowed(const EncounteredFile& file) const;

  const ScanContext context_;
  RunningPrograms programs_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<DetectedFile> queue_;
  bool busy_ = false;
  bool held_ = false;
  bool stands_ = false;  // a held detection under way
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
