#include "engine/ScanRecord.h"

#include <algorithm>

#include "engine/Digest.h"
#include "engine/OnePiece.h"
#include "engine/ZipAudit.h"
#include "platform/Text.h"

namespace agent {
namespace {

constexpr std::uint64_t kSizeUnknown = 0xFFFFFFFF;  // reported by libclamav for a 64-bit member
constexpr std::size_t kMostDetections = 32;
constexpr std::size_t kMostPending = 100000;  // of one file: each takes memory until it is unpacked
constexpr std::size_t kUnscannedBytes = 5;  // libclamav reports, and does not scan, a member of so few bytes

// libclamav knows an old cpio and a gz by two bytes.
Failure failureOf(const ArchiveKind& kind) {
  const bool byTwoBytes = kind.type == "CL_TYPE_CPIO_OLD" || kind.reader == Reader::kGzip;
  return byTwoBytes ? Failure::kCountsIfYielded : Failure::kCounts;
}

// libclamav's type settles what the bytes leave open. A zip with a directory is audited by the directory.
Failure failureIn(const ScanRecord::Layer& layer, bool isLayer, const Part& part) {
  if (isLayer && part.failure != Failure::kCounts) {
    return failureOf(*part.kind);
  }
  const bool isAlone = part.kind->reader == Reader::kZipStream && !hasZipDirectory(layer.data, layer.size);
  return isAlone ? Failure::kCounts : part.failure;
}

}  // namespace

void ScanRecord::begin(const Place& place, TempFile& keep) {
  base_ = place;
  keep_ = &keep;
}

void ScanRecord::end(std::string_view failure) {
  closeFrom(0);
  keep_ = nullptr;
  if (!failure.empty()) {
    leaveOut({}, 0, "the engine reports: " + platform::visibleText(failure), error_);
  }
}

void ScanRecord::leaveOut(std::string_view name, std::uint32_t level, const std::string& why,
                          std::string& into) {
  if (into.empty()) {
    into = level == 0 || name.empty() ? why : "\"" + platform::visibleText(name) + "\" inside: " + why;
  }
}

void ScanRecord::closeFrom(std::size_t level) {
  for (std::size_t i = level; i < kLevels && open_[i].entered; ++i) {
    Open& layer = open_[i];
    if (layer.kind != nullptr && layer.kind->mustYield && !layer.yielded && !layer.pending) {
      leaveOut(layer.name, base_.level + static_cast<std::uint32_t>(i),
               "a " + nameOf(*layer.kind) + " archive that could not be unpacked", error_);
    }
    layer = Open{};
  }
}

std::uint32_t ScanRecord::archivesAround(std::uint32_t level) const {
  return base_.archives +
         static_cast<std::uint32_t>(std::count_if(open_.begin(), open_.begin() + level,
                                                  [](const Open& o) { return o.kind != nullptr; }));
}

bool ScanRecord::mayUnpack(const ArchiveKind& kind, const Layer& layer, std::uint64_t archiveBytes,
                           Reported reported) {
  std::string why;
  std::string* into = &skipped_;
  if (!options_.archives) {
    why = "an archive (" + nameOf(kind) + "), and archives are not unpacked";
  } else if (!isAmong(kind, options_.archiveFormats)) {
    why = "an archive of a kind that is not unpacked (" + nameOf(kind) + ")";
  } else if (options_.maxArchiveBytes != 0 && archiveBytes > options_.maxArchiveBytes) {
    why =
        "an archive larger than the " + std::to_string(options_.maxArchiveBytes) + " bytes that are unpacked";
  } else if (archivesAround(layer.level) >= options_.maxLayers) {
    why = "archives nested deeper than " + std::to_string(options_.maxLayers) + " layers";
    into = &error_;
  } else {
    return true;
  }
  if (reported == Reported::kYes || into == &error_) {
    leaveOut(layer.name, base_.level + layer.level, why, *into);
  }
  return false;
}

bool ScanRecord::onLayer(const Layer& layer) {
  const std::uint32_t level = base_.level + layer.level;
  if (level >= kLevels) {
    leaveOut(layer.name, level, "nested deeper than can be followed", error_);
    return false;
  }
  closeFrom(layer.level);
  bool insidePending = false;
  for (std::size_t i = 0; i < layer.level; ++i) {
    open_[i].entered = true;  // libclamav skips a level for an archive behind a program's code
    const bool libraryAlone = open_[i].kind != nullptr && open_[i].kind->reader == Reader::kLibclamav;
    open_[i].yielded = open_[i].yielded || !libraryAlone || i + 1 == layer.level;
    insidePending = insidePending || open_[i].pending || open_[i].partPending;
  }
  if (layer.data == nullptr && layer.size > 0) {
    leaveOut(layer.name, level, "cannot be read", error_);
  } else if (insidePending) {
    ++known_[layerKey(sha256Of({layer.data, layer.size}), layer.size)];
  }
  const ArchiveKind* kind = archiveKindOf(layer.type);
  const Contents contents = layer.data == nullptr ? Contents{} : lookInto(layer.data, layer.size, kind);
  if (kind == nullptr && !contents.parts.empty() && contents.parts[0].offset == 0 &&
      contents.parts[0].failure == Failure::kCounts && contents.parts[0].kind->reader != Reader::kNobody) {
    kind = contents.parts[0].kind;
  }
  open_[layer.level] = Open{kind, true, false, false, false, std::string(layer.name)};
  if (level > 0 && layer.size >= maxFileBytes_) {
    leaveOut(layer.name, level, "cut at the engine's limit of " + std::to_string(maxFileBytes_) + " bytes",
             error_);
  }
  if (kind != nullptr && !mayUnpack(*kind, layer, layer.size, Reported::kYes)) {
    open_[layer.level].yielded = true;
    return false;
  }
  if (layer.data != nullptr) {
    layerIsKept_ = false;
    scanWithoutFirstByte(layer);
    lookAt(layer, kind, contents);
    lookForZip(layer, kind, contents.hasZipEnd);
  }
  return true;
}

// Without its first byte, a file has another type.
void ScanRecord::scanWithoutFirstByte(const Layer& layer) {
  if (isLeftUnscanned(layer.type) && layer.size > 1 && keepLayer(layer)) {
    const bool kept = layer.level > 0;
    const Place place{base_.level + layer.level + 1, archivesAround(layer.level)};
    pending_.push_back({&rawKind(),
                        std::string(layer.name),
                        place,
                        kept,
                        (kept ? keptAt_ : 0) + 1,
                        layer.size - 1,
                        {},
                        Failure::kCounts,
                        0,
                        {}});
  }
}

// kind: of the whole layer; null: no archive.
void ScanRecord::lookAt(const Layer& layer, const ArchiveKind* kind, const Contents& contents) {
  bool kindIsListed = kind == nullptr || !isReadByLibarchive(*kind) || kind->zip;
  for (const Part& part : contents.parts) {
    if (part.kind->reader == Reader::kNobody) {
      leaveOut(layer.name, base_.level + layer.level,
               "an archive of a kind that cannot be unpacked (" + nameOf(*part.kind) + ")", skipped_);
      continue;
    }
    const bool isLayer = kind != nullptr && part.offset == 0 && part.kind->reader == kind->reader;
    kindIsListed = kindIsListed || isLayer;
    unpackLater(layer, kind,
                Part{part.kind, part.offset, failureIn(layer, isLayer, part), part.later, part.size}, {});
  }
  if (!kindIsListed) {
    unpackLater(layer, kind, {kind, 0, failureOf(*kind), {}}, {});
  }
  if (contents.hasOddTar) {
    leaveOut(layer.name, base_.level + layer.level,
             "a tar archive with a header that is read in several ways", error_);
  }
  if (contents.hasBrokenArj) {
    leaveOut(layer.name, base_.level + layer.level,
             "an arj archive that is cut off, or packed by an unknown method", error_);
  }
  if (contents.tooMany) {
    leaveOut(layer.name, base_.level + layer.level, "more archives in it than the engine's limit", error_);
  }
}

void ScanRecord::lookForZip(const Layer& layer, const ArchiveKind* kind, bool hasEnd) {
  const bool isZip = (kind != nullptr && kind->zip) || isZipDocument(layer.type);
  if (!isZip && !(hasEnd && hasZipDirectory(layer.data, layer.size))) {
    return;
  }
  const auto audited = auditZip(layer.data, layer.size);
  if (!audited) {
    leaveOut(layer.name, base_.level + layer.level, audited.error(), error_);
    unpackZipLater(layer, kind, {});  // a detection counts all the same
  } else if (!isZip || !audited->leftOut.empty()) {
    unpackZipLater(layer, kind, *audited);
    anyZipPending_ = anyZipPending_ || !audited->leftOut.empty();
  }
}

void ScanRecord::unpackZipLater(const Layer& layer, const ArchiveKind* kind, const AuditedZip& audited) {
  const Part zip{archiveKindOf("CL_TYPE_ZIP"), 0, Failure::kCounts, {}};
  if (!unpackLater(layer, kind, zip, audited.leftOut)) {
    return;
  }
  pending_.back().links = audited.links.size();
  // Without the directory, a link is unpacked as an ordinary file: whole.
  const ArchiveKind* member = archiveKindOf("TAV_ZIPSTREAM");
  for (const auto& link : audited.links) {
    unpackLater(layer, kind, {member, link.begin, Failure::kCountsUnlessYielded, {}, link.end - link.begin},
                audited.leftOut);
  }
}

// False when the settings leave the part out, or when it cannot be kept.
bool ScanRecord::unpackLater(const Layer& layer, const ArchiveKind* kind, const Part& part,
                             std::string otherwise) {
  const bool isWholeLayer = kind != nullptr && part.offset == 0 && part.kind->reader == kind->reader;
  const std::uint64_t bytes = std::min(part.size, layer.size - part.offset);
  const bool inPieces = part.offset > 0 && mayBeInPieces(layer.type) &&
                        !isInOnePiece(part.kind->reader, Bytes(layer.data, layer.size).from(part.offset));
  const Failure failure = inPieces ? Failure::kIgnored : part.failure;
  // What only looks like an archive is not reported as one.
  const auto reported = failure == Failure::kIgnored ? Reported::kNo : Reported::kYes;
  const bool isRaw = part.kind->reader == Reader::kRaw;  // no archive
  const bool mayBe = isWholeLayer || isRaw || mayUnpack(*part.kind, layer, bytes, reported);
  if (!mayBe || !keepLayer(layer)) {
    return false;
  }
  if (++pendingSoFar_ > kMostPending) {
    leaveOut(layer.name, base_.level + layer.level, "more archives in it than the engine's limit", error_);
    return false;
  }
  const bool kept = layer.level > 0;
  (isWholeLayer ? open_[layer.level].pending : open_[layer.level].partPending) = true;
  const Place members{base_.level + layer.level + 1, archivesAround(layer.level) + (isRaw ? 0U : 1U)};
  pending_.push_back({part.kind, std::string(layer.name), members, kept, (kept ? keptAt_ : 0) + part.offset,
                      bytes, part.later, failure, 0, std::move(otherwise)});
  return true;
}

// libclamav's copy of a layer is gone when its scan ends.
bool ScanRecord::keepLayer(const Layer& layer) {
  if (keep_ == nullptr) {
    return false;
  }
  if (layer.level == 0 || layerIsKept_) {
    return true;
  }
  keptAt_ = keep_->size();
  if (const auto kept = keep_->append(layer.data, layer.size); !kept) {
    onFailure(kept.error());
    return false;
  }
  layerIsKept_ = true;
  return true;
}

std::string ScanRecord::layerKey(const std::string& sha256, std::uint64_t bytes) {
  return bytes <= kUnscannedBytes ? std::to_string(bytes) + " bytes" : sha256;
}

bool ScanRecord::takeUnpacked(const std::string& layerKey) {
  const auto found = known_.find(layerKey);
  if (found == known_.end() || found->second == 0) {
    return false;
  }
  --found->second;
  return true;
}

void ScanRecord::onMember(std::string_view container, std::string_view name, std::uint64_t realBytes,
                          bool encrypted) {
  if (realBytes == kSizeUnknown && !anyZipPending_) {
    leaveOut(name, 1, "has a 64-bit size: not unpacked", error_);
  }
  if (container == "CL_TYPE_7Z" && realBytes <= kUnscannedBytes) {
    ++known_[layerKey({}, realBytes)];
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
  end(failure);
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
