#include "engine/ScanRecord.h"

#include <algorithm>

#include "engine/ZipAudit.h"
#include "platform/Text.h"

namespace agent {
namespace {

constexpr std::uint64_t kSizeUnknown = 0xFFFFFFFF;  // reported by libclamav for a 64-bit member
constexpr std::size_t kMostDetections = 32;

}  // namespace

void ScanRecord::leaveOut(std::string_view name, std::uint32_t level, const std::string& why,
                          std::string& into) {
  if (into.empty()) {
    into = level == 0 || name.empty() ? why : "\"" + platform::visibleText(name) + "\" inside: " + why;
  }
}

void ScanRecord::closeFrom(std::size_t level) {
  for (std::size_t i = level; i < kLevels && open_[i].entered; ++i) {
    Open& layer = open_[i];
    if (layer.kind != nullptr && layer.kind->mustYield && !layer.yielded) {
      leaveOut(layer.name, static_cast<std::uint32_t>(i),
               "a " + nameOf(*layer.kind) + " archive that could not be unpacked", error_);
    }
    layer = Open{};
  }
}

bool ScanRecord::mayUnpack(const ArchiveKind& kind, const Layer& layer) {
  const auto depth = static_cast<std::uint32_t>(std::count_if(
      open_.begin(), open_.begin() + layer.level, [](const Open& o) { return o.kind != nullptr; }));
  if (!options_.archives) {
    leaveOut(layer.name, layer.level, "an archive (" + nameOf(kind) + "), and archives are not unpacked",
             skipped_);
  } else if (!isAmong(kind, options_.archiveFormats)) {
    leaveOut(layer.name, layer.level, "an archive of a kind that is not unpacked (" + nameOf(kind) + ")",
             skipped_);
  } else if (options_.maxArchiveBytes != 0 && layer.size > options_.maxArchiveBytes) {
    leaveOut(
        layer.name, layer.level,
        "an archive larger than the " + std::to_string(options_.maxArchiveBytes) + " bytes that are unpacked",
        skipped_);
  } else if (depth >= options_.maxLayers) {
    leaveOut(layer.name, layer.level,
             "archives nested deeper than " + std::to_string(options_.maxLayers) + " layers", error_);
  } else {
    return true;
  }
  return false;
}

bool ScanRecord::onLayer(const Layer& layer) {
  if (layer.level >= kLevels) {
    leaveOut(layer.name, layer.level, "nested deeper than can be followed", error_);
    return false;
  }
  closeFrom(layer.level);
  for (std::size_t i = 0; i < layer.level; ++i) {
    open_[i].entered = true;  // libclamav skips a level for an archive behind a program's code
    open_[i].yielded = true;
  }
  const ArchiveKind* kind = archiveKindOf(layer.type);
  open_[layer.level] = Open{kind, true, false, std::string(layer.name)};
  if (layer.level > 0 && layer.size >= maxFileBytes_) {
    leaveOut(layer.name, layer.level,
             "cut at the engine's limit of " + std::to_string(maxFileBytes_) + " bytes", error_);
  }
  if (kind != nullptr && !mayUnpack(*kind, layer)) {
    open_[layer.level].yielded = true;
    return false;
  }
  if (layer.data != nullptr && ((kind != nullptr && kind->zip) || isZipDocument(layer.type))) {
    if (const auto audited = auditZip(layer.data, layer.size); !audited) {
      leaveOut(layer.name, layer.level, audited.error(), error_);
    }
  }
  return true;
}

void ScanRecord::onMember(std::string_view container, std::string_view name, std::uint64_t realBytes,
                          bool encrypted) {
  if (realBytes == kSizeUnknown) {
    leaveOut(name, 1, "has a 64-bit size: not unpacked", error_);
  }
  if (encrypted && container != "CL_TYPE_ZIP" && !isZipDocument(container)) {
    leaveOut(name, 1, "encrypted: its content cannot be scanned", error_);
  }
}

bool ScanRecord::counts(const Detection& detection, FindKind kind) const {
  const bool engineOn = ((options_.enabledEngines >> detection.engineCode) & 1U) != 0;
  return engineOn && (kind == FindKind::kDetection || options_.heuristics);
}

void ScanRecord::onFind(std::string_view libraryName) {
  Find find = readFind(libraryName);
  if (find.kind == FindKind::kNotScanned) {
    leaveOut({}, 0, find.reason, error_);
    return;
  }
  const bool known = std::any_of(detections_.begin(), detections_.end(),
                                 [&](const Detection& d) { return d.name == find.detection.name; });
  if (!known && detections_.size() < kMostDetections && counts(find.detection, find.kind)) {
    detections_.push_back(std::move(find.detection));
  }
}

void ScanRecord::onFailure(std::string_view message) {
  if (message.find("write error") != std::string_view::npos) {
    tempFull_ = true;
  }
  leaveOut({}, 0, "the engine reports: " + platform::visibleText(message), error_);
}

Verdict ScanRecord::finish(std::string_view failure) {
  closeFrom(0);
  if (!failure.empty()) {
    leaveOut({}, 0, "the engine reports: " + platform::visibleText(failure), error_);
  }
  if (!detections_.empty()) {
    return {Outcome::kInfected, {}, detections_, {}, {}, {}};
  }
  if (!error_.empty()) {
    return notScanned(Outcome::kError, error_);
  }
  if (!skipped_.empty()) {
    return notScanned(Outcome::kSkipped, skipped_);
  }
  return {Outcome::kClean, {}, {}, {}, {}, {}};
}

}  // namespace agent
