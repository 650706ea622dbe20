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
  pool_.drain();
  handler_.waitBelow(1);
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
  AGENT_LOG(LogLevel::kDebug, "%s: skipped: %s", path.c_str(), reason.c_str());
}

void FilePipeline::countFailed(const std::string& path, const std::string& reason) {
  context_.counters.failed();
  AGENT_LOG(LogLevel::kWarning, "%s: not scanned: %s", path.c_str(), reason.c_str());
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
    AGENT_LOG(LogLevel::kDebug, "%s: skipped: trusted", file.path.c_str());
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
  AGENT_LOG(LogLevel::kError, "%s: %s", file->path.c_str(), reason.c_str());
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

/// On the pool's thread: each file that was submitted ends here.
void FilePipeline::ended(const File& file, Verdict verdict, bool rejected, bool cacheable) {
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
