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
/// the workers do not wait for a quarantine.
class DetectionHandler {
 public:
  explicit DetectionHandler(const ScanContext& context);
  ~DetectionHandler();  ///< handles the queued detections first
  DetectionHandler(const DetectionHandler&) = delete;
  DetectionHandler& operator=(const DetectionHandler&) = delete;

  /// Queues a detection. The handler sets riskId and times of the detection later. Never waits. Any thread.
  void add(DetectedFile detected);
  /// Waits until fewer than `most` are queued (1: until all are handled).
  void waitBelow(std::size_t most);

 private:
  void run();
  void handle(DetectedFile& detected);
  void handleFile(const DetectedFile& detected);
  void handleProcesses(const DetectedFile& detected);
  platform::Expected<Remark> remove(const DetectedFile& detected);
  platform::Expected<void> checkAllowed(const EncounteredFile& file) const;

  const ScanContext context_;
  RunningPrograms programs_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<DetectedFile> queue_;
  bool busy_ = false;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
