#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/ArchiveKinds.h"
#include "engine/DetectionNames.h"
#include "engine/LayerContents.h"
#include "engine/ScanTypes.h"
#include "engine/TempFile.h"
#include "engine/ZipAudit.h"

namespace agent {

/// Part of the version of results. Changed with each change of a table or a rule that may turn a clean file
/// into an error.
inline constexpr const char* kAuditVersion = "7";

/// The place of a layer in the file.
struct Place {
  std::uint32_t level = 0;     ///< files around the layer; 0: the file itself
  std::uint32_t archives = 0;  ///< archives among them
};

/// An archive that libarchive unpacks after libclamav's scan, or bytes that are scanned once more.
struct Pending {
  const ArchiveKind* kind = nullptr;
  std::string name;   ///< of the layer
  Place place;        ///< of the archive's members
  bool kept = false;  ///< in the file of kept layers; else in the scanned file
  std::uint64_t offset = 0, size = 0;
  std::vector<std::uint64_t> later;  ///< further beginnings, by their offset from `offset`
  Failure failure = Failure::kCounts;
  std::size_t links = 0;  ///< of a zip: members that are unpacked as further Pendings
  std::string otherwise;  ///< the reason for an archive that cannot be unpacked; empty: the unpacker's
};

/// Collects the reports of libclamav's callbacks and of the unpacker during the scan of one file, and makes
/// the verdict of them. Never calls libclamav.
class ScanRecord {
 public:
  /// maxFileBytes: libclamav's limit; a member of exactly this size has been cut.
  ScanRecord(const ScanOptions& options, std::uint64_t maxFileBytes)
      : options_(options), maxFileBytes_(maxFileBytes) {}

  /// A scan by libclamav begins: of the file, or of a member that was unpacked by libarchive. keep: receives
  /// the bytes of the layers that are pending; must live until the pending ones are unpacked.
  void begin(const Place& place, TempFile& keep);
  /// The scan by libclamav has ended. failure: libclamav's text; empty after a success.
  void end(std::string_view failure);
  /// The archives that were found since the last call.
  std::vector<Pending> takePending() { return std::exchange(pending_, {}); }

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
  /// Content was left out. level: of the left-out layer.
  void notWhole(std::string_view name, std::uint32_t level, const std::string& why) {
    leaveOut(name, level, why, error_);
  }
  /// True when libclamav has scanned, or will scan, a layer with this SHA-256; else remembers the layer.
  bool isKnown(const std::string& sha256) { return !known_.try_emplace(sha256, 0).second; }
  /// Whether libclamav has unpacked a layer with this key by itself. Each layer answers once.
  bool takeUnpacked(const std::string& layerKey);
  static std::string layerKey(const std::string& sha256, std::uint64_t bytes);
  bool hasDetection() const { return !detections_.empty(); }

  /// All scans have ended. failure: as for end().
  Verdict finish(std::string_view failure);

  std::uint64_t maxFileBytes() const { return maxFileBytes_; }
  /// A temporary file could not be written: too large, or the disk is full.
  bool tempFull() const { return tempFull_; }

 private:
  static constexpr std::size_t kLevels = 128;  // more than libclamav's own limit
  struct Open {
    const ArchiveKind* kind = nullptr;
    bool entered = false;      // the scan is inside this level
    bool yielded = false;      // a member of the archive was scanned, or the archive is left out
    bool pending = false;      // libarchive unpacks the archive after the scan
    bool partPending = false;  // libarchive unpacks an archive in it after the scan
    std::string name;
  };

  void closeFrom(std::size_t level);
  std::uint32_t archivesAround(std::uint32_t level) const;
  enum class Reported : bool { kNo, kYes };
  /// reported: a reason against it goes into the record.
  bool mayUnpack(const ArchiveKind& kind, const Layer& layer, std::uint64_t archiveBytes, Reported reported);
  void scanWithoutFirstByte(const Layer& layer);
  void lookAt(const Layer& layer, const ArchiveKind* kind, const Contents& contents);
  void lookForZip(const Layer& layer, const ArchiveKind* kind, bool hasEnd);
  bool unpackLater(const Layer& layer, const ArchiveKind* kind, const Part& part, std::string otherwise);
  void unpackZipLater(const Layer& layer, const ArchiveKind* kind, const AuditedZip& audited);
  bool keepLayer(const Layer& layer);
  bool counts(const Detection& detection, FindKind kind) const;
  void leaveOut(std::string_view name, std::uint32_t level, const std::string& why, std::string& into);

  const ScanOptions& options_;
  std::uint64_t maxFileBytes_;
  std::array<Open, kLevels> open_;
  std::vector<Detection> detections_;
  Place base_;                // of the file that libclamav scans
  TempFile* keep_ = nullptr;  // null between scans
  std::uint64_t keptAt_ = 0;
  bool layerIsKept_ = false;  // the current layer, at keptAt_
  std::vector<Pending> pending_;
  std::size_t pendingSoFar_ = 0;
  bool anyZipPending_ = false;
  std::map<std::string, unsigned> known_;  // SHA-256 or key; how often libclamav has unpacked the layer
  std::string error_;                      // the first reason why the file was not scanned whole; empty: none
  std::string skipped_;                    // the first reason from the settings; empty: none
  bool tempFull_ = false;
};

}  // namespace agent
