#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/ArchiveKinds.h"
#include "engine/DetectionNames.h"
#include "engine/ScanTypes.h"

namespace agent {

/// Collects the reports of libclamav's callbacks during the scan of one file, and makes the verdict of them.
/// Never calls libclamav.
class ScanRecord {
 public:
  /// maxFileBytes: libclamav's limit; a member of exactly this size has been cut.
  ScanRecord(const ScanOptions& options, std::uint64_t maxFileBytes)
      : options_(options), maxFileBytes_(maxFileBytes) {}

  struct Layer {
    std::string_view type;  ///< libclamav's file type
    std::string_view name;
    std::uint32_t level = 0;  ///< 0: the file itself
    const char* data = nullptr;
    std::size_t size = 0;
  };
  /// A file, the outer one or a member, is about to be scanned. False: leave it out.
  bool onLayer(const Layer& layer);
  /// A container lists a member. realBytes: the unpacked size, as the container gives it.
  void onMember(std::string_view container, std::string_view name, std::uint64_t realBytes, bool encrypted);
  void onFind(std::string_view libraryName);
  /// libclamav reports a failure.
  void onFailure(std::string_view message);
  /// The scan has ended. failure: libclamav's text; empty after a success.
  Verdict finish(std::string_view failure);

  /// A temporary file could not be written: too large, or the disk is full.
  bool tempFull() const { return tempFull_; }

 private:
  static constexpr std::size_t kLevels = 128;  // more than libclamav's own limit
  struct Open {
    const ArchiveKind* kind = nullptr;
    bool entered = false;  // the scan is inside this level
    bool yielded = false;  // a member of the archive was scanned, or the archive is left out
    std::string name;
  };

  void closeFrom(std::size_t level);
  bool mayUnpack(const ArchiveKind& kind, const Layer& layer);
  bool counts(const Detection& detection, FindKind kind) const;
  void leaveOut(std::string_view name, std::uint32_t level, const std::string& why, std::string& into);

  const ScanOptions& options_;
  std::uint64_t maxFileBytes_;
  std::array<Open, kLevels> open_;
  std::vector<Detection> detections_;
  std::string error_;    // the first reason why the file was not scanned whole; empty: none
  std::string skipped_;  // the first reason from the settings; empty: none
  bool tempFull_ = false;
};

}  // namespace agent
