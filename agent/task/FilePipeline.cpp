#include "task/FilePipeline.h"

#include <fcntl.h>

#include <exception>

#include "json/CppJson.h"
#include "task/AgentLog.h"
#include "task/FileFilter.h"
#include "task/FileSystems.h"

namespace agent {

namespace {

constexpr std::size_t kMostDetections = 32;  // waiting to be handled, each with an open file
constexpr const char* kGivenUp =
    "given up: three scanning processes died on it within an hour; it is scanned again once the file or the "
    "signatures have changed";
constexpr const char* kDeathOnFile = "death of scanning processes";

/// Deaths of one owner's files that are events: 10, 100, ...
bool isOwnerEvent(std::size_t deaths) {
  while (deaths > 10 && deaths % 10 == 0) {
    deaths /= 10;
  }
  return deaths == 10;
}

FileEnd endWith(Outcome outcome, std::string reason) {
  FileEnd end;
  end.verdict.outcome = outcome;
  end.verdict.reason = std::move(reason);
  return end;
}

}  // namespace

FilePipeline::FilePipeline(const ScanContext& context, Spawner& spawner, const std::string& signatureVersion)
    : context_(context),
      spawner_(spawner),
      signatureVersion_(signatureVersion),
      cacheKey_(signatureVersion + "/" + context.plan.cacheKey),
      handler_(context),
      pool_(spawner, context.plan.parallelism) {
  if (context.store.regions().hashesNeeded()) {
    cacheKey_ += "/" + std::to_string(context.store.regions().generation());
  }
}

void FilePipeline::waitUntilDone() {
  while (!pool_.drain() || !handler_.waitBelow(1)) {
    context_.control.keepGoing();
  }
}

void FilePipeline::hold() {
  pool_.hold();
  handler_.hold();
  links_.hold();
}

void FilePipeline::release() {
  links_.release();
  handler_.release();
  pool_.release();
}

void FilePipeline::waitHeld() {
  pool_.waitHeld();
  handler_.waitHeld();
}

void FilePipeline::cancel() {
  pool_.cancel(true);
  links_.release();
  handler_.release();
}

void FilePipeline::skipped(const std::string& path, const std::string& reason) {
  context_.counters.encountered(path);
  countSkipped(path, reason);
}

void FilePipeline::failed(const std::string& path, const std::string& reason) {
  context_.counters.encountered(path);
  countFailed(path, reason);
}

void FilePipeline::countSkipped(const std::string& path, const std::string& reason) {
  context_.counters.skipped(reason);
  AGENT_LOG_OF(context_.caller.uid, LogLevel::kDebug, "%s: skipped: %s", path.c_str(), reason.c_str());
}

void FilePipeline::countFailed(const std::string& path, const std::string& reason) {
  context_.counters.failed();
  AGENT_LOG_OF(context_.caller.uid, LogLevel::kWarning, "%s: not scanned: %s", path.c_str(), reason.c_str());
}

/// The verdict of the lists on the path as reached, or on the resolved path. A file with one rejected path is
/// rejected.
RegionVerdict FilePipeline::regionOf(const EncounteredFile& file) const {
  const RegionVerdict asReached = context_.store.regions().byPath(file.path);
  if (file.resolved.empty() || asReached == RegionVerdict::kRejected) {
    return asReached;
  }
  const RegionVerdict resolved = context_.store.regions().byPath(file.resolved);
  return resolved == RegionVerdict::kNone ? asReached : resolved;
}

void FilePipeline::file(EncounteredFile file) {
  context_.counters.encountered(file.path);
  const RegionVerdict region = regionOf(file);
  if (region == RegionVerdict::kTrusted) {
    context_.counters.trusted();
    AGENT_LOG_OF(context_.caller.uid, LogLevel::kDebug, "%s: skipped: trusted", file.path.c_str());
    return;
  }
  const bool rejected = region == RegionVerdict::kRejected;
  if (!rejected) {
    if (const auto included = checkIncluded(context_.plan, file); !included) {
      countSkipped(file.path, included.error());
      return;
    }
  }
  const auto met = std::make_shared<EncounteredFile>(std::move(file));
  // The rejection of one name is no result for the others.
  const LinkedFiles::Met link = rejected ? LinkedFiles::Met{} : links_.meet(met);
  if (link.turn == LinkedFiles::Turn::kEnded) {
    handler_.waitBelow(kMostDetections);
    endAs(met, *link.end);
  }
  if (link.turn != LinkedFiles::Turn::kScan) {
    return;
  }
  const bool cacheable = context_.plan.useCache && hasUsableTimes(*met);
  if (context_.plan.readCache && cacheable && !rejected &&
      context_.store.cache().isClean(FileIdentity::of(met->status), cacheKey_)) {
    context_.counters.knownClean();
    AGENT_LOG(LogLevel::kDebug, "%s: clean: %s", met->path.c_str(), kKnownClean);
    endNames(*met, endWith(Outcome::kClean, {}));
    return;
  }
  if (context_.store.workerDeaths().isGivenUp(FileIdentity::of(met->status), signatureVersion_)) {
    handler_.waitBelow(kMostDetections);
    ended(met, notScanned(Outcome::kError, kGivenUp), rejected, false);
    return;
  }
  submit(met, rejected, cacheable);
}

/// True when a change of the content changes the times. The cache knows files by their times.
bool FilePipeline::hasUsableTimes(const EncounteredFile& file) {
  const auto [entry, fresh] = usableTimes_.try_emplace(file.status.st_dev, true);
  if (fresh) {
    entry->second = !fileSystemOf(file.fd.get()).inMemory;
  }
  return entry->second;
}

/// The worker gets a second descriptor. The first stays open until the file is counted or handled.
void FilePipeline::submit(const File& file, bool rejected, bool cacheable) {
  platform::Descriptor copy(fcntl(file->fd.get(), F_DUPFD_CLOEXEC, 0));
  if (!copy) {
    broke(file, "not scanned: the agent has too many open files");
    return;
  }
  ScanOptions options = context_.plan.options;
  options.hashesWanted = rejected || context_.store.regions().hashesNeeded();
  handler_.waitBelow(kMostDetections);
  pool_.scan(std::move(copy), file->path, options, [this, file, rejected, cacheable](Verdict verdict) {
    try {
      ended(file, std::move(verdict), rejected, cacheable);
    } catch (const std::exception& error) {
      broke(file, error.what());
    }
  });
}

/// A failure of the agent's own.
void FilePipeline::broke(const File& file, const std::string& reason) {
  context_.counters.failed();
  AGENT_LOG_OF(context_.caller.uid, LogLevel::kError, "%s: %s", file->path.c_str(), reason.c_str());
  endNames(*file, endWith(Outcome::kError, reason));
}

/// Applies the lists of hashes, and the rejection of the path, to a verdict. True for a trusted hash. A file
/// that the engine could not scan has hashes, too.
bool FilePipeline::applyRegions(Verdict& verdict, bool rejected) const {
  store::Regions& regions = context_.store.regions();
  const RegionVerdict byHash = regions.hashesNeeded() ? regions.byHash(verdict) : RegionVerdict::kNone;
  const bool cancelled = verdict.outcome == Outcome::kSkipped && context_.control.stopping();
  if (byHash == RegionVerdict::kRejected || (rejected && !cancelled)) {
    verdict.outcome = Outcome::kInfected;
    verdict.detections.insert(
        verdict.detections.begin(),
        Detection{"Rejected.ByAdministrator", json::kEngineRejectList, json::RiskType::kRejected, "否决项"});
    return false;
  }
  return byHash == RegionVerdict::kTrusted;
}

/// Counts the death. The third one of a file, and many of one owner's files, are events of their own.
void FilePipeline::noteDeath(const EncounteredFile& file, const std::string& reason) {
  const uid_t owner = file.status.st_uid;
  const auto count = context_.store.workerDeaths().add(FileIdentity::of(file.status), owner,
                                                       signatureVersion_, store::WorkerDeaths::Clock::now());
  AGENT_LOG_OF(
      context_.caller.uid, LogLevel::kWarning,
      "%s: a scanning process died on it: death %zu of this file and %zu of the files of user %u (%zu "
      "files) within an hour",
      file.path.c_str(), count.ofFile, count.ofOwner, owner, count.ownersFiles);
  const auto event = [&](const std::string& object, const std::string& text) {
    AGENT_LOG(LogLevel::kError, "%s: %s: %s", kDeathOnFile, object.c_str(), text.c_str());
    context_.store.audit(context_.caller, kDeathOnFile, object, text);
  };
  if (count.givenUp) {
    event(file.path, kGivenUp + (" (owner " + std::to_string(owner)) + "; the last death: " + reason + ")");
  }
  if (isOwnerEvent(count.ofOwner)) {
    event("user " + std::to_string(owner), std::to_string(count.ofOwner) + " deaths on " +
                                               std::to_string(count.ownersFiles) +
                                               " files of this user within an hour");
  }
}

/// On the pool's thread, or for a file that is given up on the walking one: each file ends here.
void FilePipeline::ended(const File& file, Verdict verdict, bool rejected, bool cacheable) {
  if (verdict.workerDied) {
    noteDeath(*file, verdict.reason);
  }
  FileEnd end;
  end.trusted = applyRegions(verdict, rejected);
  end.verdict = std::move(verdict);
  if (end.verdict.outcome == Outcome::kClean) {
    endedClean(*file, cacheable);
  } else {
    endAs(file, end);
  }
  if (!rejected) {
    endNames(*file, std::move(end));
  }
}

void FilePipeline::endedClean(const EncounteredFile& file, bool cacheable) {
  context_.counters.clean();
  const FileIdentity scanned = FileIdentity::of(file.status);
  struct stat now {};
  const bool sameSignatures = spawner_.uses(signatureVersion_);
  if (cacheable && sameSignatures && fstat(file.fd.get(), &now) == 0 && FileIdentity::of(now) == scanned) {
    context_.store.cache().remember(scanned, cacheKey_, file.statusNs);
  }
}

/// Keeps the end of a file for its further names. Ends those that waited.
void FilePipeline::endNames(const EncounteredFile& first, FileEnd end) {
  if (first.status.st_nlink > 1) {
    const auto kept = std::make_shared<const FileEnd>(std::move(end));
    for (const File& name : links_.ended(first, kept)) {
      endAs(name, *kept);
    }
  }
}

/// A further name of a file that was detected is a detection of its own: each name is handled.
void FilePipeline::endAs(const File& file, const FileEnd& end) {
  switch (end.verdict.outcome) {
    case Outcome::kClean:
      countSkipped(file->path, "another name of a clean file");
      break;
    case Outcome::kInfected:
      handler_.add({file, end.verdict, end.trusted});
      break;
    case Outcome::kError:
      countFailed(file->path, end.verdict.reason);
      break;
    case Outcome::kSkipped:
      countSkipped(file->path, end.verdict.reason);
      break;
  }
}

}  // namespace agent
