#include "engine/Engine.h"

#include <clamav.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string_view>

#include "engine/Digest.h"
#include "engine/FileBudget.h"
#include "engine/FileHashes.h"
#include "engine/FileScan.h"
#include "engine/ScanBudget.h"
#include "engine/ScanRecord.h"
#include "engine/SignatureLoader.h"
#include "engine/SparseFile.h"
#include "json/CppJson.h"
#include "platform/Posix.h"

namespace agent {
namespace {

constexpr std::uint64_t kFileBytesUnit = 64 * 1024;      // libclamav cuts members at its own block's edge
constexpr std::uint64_t kLargestFileBytes = 0x7FFF0000;  // libclamav scans nothing of 2 GiB and more
constexpr std::uint64_t kMostScanMs = 0xFFFFFFFF;        // of libclamav's own clock

// The context of libclamav's callbacks.
struct LibraryScan {
  ScanRecord& record;
  ScanBudget& budget;
  bool foundByPlace = false;  // a layer holds what is found by its place
};

// The record of the current scan: libclamav's messages come without a context. Null between scans.
ScanRecord* currentRecord = nullptr;

std::string_view orEmpty(const char* text) {
  return text == nullptr ? std::string_view{} : std::string_view(text);
}

void onMessage(cl_msg severity, const char*, const char* message, void*) {
  std::string_view text = orEmpty(message);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  if (severity != CL_MSG_ERROR) {
    return;
  }
  if (currentRecord != nullptr) {
    currentRecord->onFailure(text);
  } else {
    noteLoadMessage(text);
  }
}

cl_error_t onLayer(int, const char* type, const char**, size_t, const char* name, size_t size,
                   const char* data, uint32_t level, uint32_t, void* context) {
  auto& scan = *static_cast<LibraryScan*>(context);
  if (!scan.budget.addLayer(size)) {
    scan.record.notWhole({}, 0, "more members than the engine's limit");
    return CL_BREAK;
  }
  if (data == nullptr && size > 0) {
    scan.record.notWhole(orEmpty(name), level, "cannot be read");
  }
  scan.foundByPlace = scan.foundByPlace || level > 0 || !isFoundAnywhere(orEmpty(type));
  const bool goesOn =
      !scan.budget.ranOut() && scan.record.onLayer({orEmpty(type), orEmpty(name), level, data, size});
  return goesOn ? CL_CLEAN : CL_BREAK;
}

cl_error_t onMember(const char* container, unsigned long, const char* name, unsigned long realBytes,
                    int encrypted, unsigned int, void* context) {
  static_cast<LibraryScan*>(context)->record.onMember(orEmpty(container), orEmpty(name), realBytes,
                                                      encrypted != 0);
  return CL_CLEAN;
}

void onFind(int, const char* name, void* context) {
  auto& scan = *static_cast<LibraryScan*>(context);
  if (orEmpty(name) == "Heuristics.Limits.Exceeded.MaxScanSize") {
    scan.record.notWhole({}, 0, scan.budget.dataReason());
  } else if (orEmpty(name) == "Heuristics.Limits.Exceeded.MaxScanTime") {
    scan.record.notWhole({}, 0, clockReason(scan.budget.budget().clock));
  }
  scan.record.onFind(orEmpty(name));
}

platform::Expected<void> initialiseLibrary() {
  static const cl_error_t result = [] {
    cl_set_clcb_msg(onMessage);
    std::signal(SIGXFSZ, SIG_IGN);  // a temporary file that grows too large is an error of its write
    return cl_init(CL_INIT_DEFAULT);
  }();
  if (result != CL_SUCCESS) {
    return platform::failure(std::string("the engine cannot start: ") + cl_strerror(result));
  }
  return {};
}

// libclamav's limits, one a row. libclamav silently skips data above some of them: each of those is set to
// the file limit.
void setLimits(cl_engine* engine, const EngineLimits& limits, std::uint64_t fileBytes) {
  const struct {
    cl_engine_field field;
    std::uint64_t value;
  } rows[] = {
      {CL_ENGINE_MAX_FILESIZE, fileBytes},
      {CL_ENGINE_MAX_SCANSIZE, limits.maxScanBytes},
      {CL_ENGINE_MAX_FILES, limits.maxFiles},
      {CL_ENGINE_MAX_RECURSION, limits.maxRecursion},
      {CL_ENGINE_MAX_SCANTIME, kMostScanMs},  // ScanBudget counts the time; libclamav would count pauses
      {CL_ENGINE_MAX_EMBEDDEDPE, fileBytes},
      {CL_ENGINE_MAX_HTMLNORMALIZE, fileBytes},
      {CL_ENGINE_MAX_HTMLNOTAGS, fileBytes},
      {CL_ENGINE_MAX_SCRIPTNORMALIZE, fileBytes},
      {CL_ENGINE_MAX_ZIPTYPERCG, fileBytes},
      {CL_ENGINE_PCRE_MAX_FILESIZE, fileBytes},
      {CL_ENGINE_MAX_PARTITIONS, 1024},
      {CL_ENGINE_MAX_RECHWP3, 64},
      // libclamav's cache of clean content ignores the options of a scan and the data that a scan left out.
      {CL_ENGINE_DISABLE_CACHE, 1},
  };
  for (const auto& row : rows) {
    cl_engine_set_num(engine, row.field, static_cast<long long>(row.value));
  }
}

// Limits the size of each file this process writes, while the object lives.
class WriteLimit {
 public:
  explicit WriteLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit now = before_;
    now.rlim_cur = std::min(bytes, before_.rlim_cur);
    setrlimit(RLIMIT_FSIZE, &now);
  }
  ~WriteLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  WriteLimit(const WriteLimit&) = delete;
  WriteLimit& operator=(const WriteLimit&) = delete;

 private:
  rlimit before_{};
};

Verdict errorVerdict(std::string reason) {
  return notScanned(Outcome::kError, std::move(reason));
}

}  // namespace

class Engine::Impl {
 public:
  Impl(EngineHandle engine, const EngineLimits& limits, std::uint64_t fileBytes, bool comparesPictures,
       SignatureState loaded)
      : signatures(std::move(loaded)),
        engine_(std::move(engine)),
        limits_(limits),
        fileBytes_(fileBytes),
        comparesPictures_(comparesPictures) {}

  const SignatureState signatures;
  std::string quickTemp, diskTemp;
  const EngineLimits& limits() const { return limits_; }

  Verdict scan(int fd, const std::string& name, const ScanOptions& options) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
      return errorVerdict("cannot be examined: " + platform::errnoText(errno));
    }
    if (!S_ISREG(status.st_mode)) {
      return errorVerdict("not a regular file");
    }
    Verdict verdict = scanContent(fd, status, name, options);
    if (verdict.outcome == Outcome::kInfected || options.hashesWanted) {
      if (!fillHashes(fd, verdict) && verdict.outcome == Outcome::kClean) {
        return errorVerdict("cannot be read to its end");
      }
    }
    return verdict;
  }

 private:
  Verdict scanContent(int fd, const struct stat& status, const std::string& name,
                      const ScanOptions& options) {
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > fileBytes_) {
      return errorVerdict("larger than the engine's limit of " + std::to_string(fileBytes_) +
                          " bytes for one file");
    }
    ScanBudget budget(budgetOf(limits_, status), limits_.maxFiles);
    const std::string lastPart = platform::splitPath(name).name;
    const auto sparse =
        isMostlyHoles(fd, size) ? scanWithoutHoles(budget, fd, size, lastPart, options) : std::nullopt;
    Verdict verdict = sparse ? *sparse : scanWhole(budget, fd, size, lastPart, options);
    return budget.ranOut() && verdict.outcome != Outcome::kInfected ? errorVerdict(budget.reason()) : verdict;
  }

  Verdict scanWhole(ScanBudget& budget, int fd, std::uint64_t size, const std::string& name,
                    const ScanOptions& options) {
    if (!quickTemp.empty() && size <= limits_.quickTempBytes / 2) {
      useTemp(quickTemp, budget);
      const WriteLimit limit(limits_.quickTempBytes);
      ScanRecord record(options, fileBytes_);
      Verdict verdict = run(record, budget, fd, name, options).verdict;
      if (!record.tempFull() || budget.ranOut()) {
        return verdict;
      }
    }
    useTemp(diskTemp, budget);
    ScanRecord record(options, fileBytes_);
    return run(record, budget, fd, name, options).verdict;
  }

  // Nothing when only a scan of the whole file can tell.
  std::optional<Verdict> scanWithoutHoles(ScanBudget& budget, int fd, std::uint64_t size,
                                          const std::string& name, const ScanOptions& options) {
    useTemp(diskTemp, budget);
    TempFile copy(diskTemp, budget.tempSpace());
    if (!copyWithoutHoles(fd, size, copy)) {
      return std::nullopt;
    }
    ScanRecord record(options, fileBytes_);
    Ran ran = run(record, budget, copy.fd(), name, options);
    const bool isWhole = ran.verdict.outcome == Outcome::kClean && !ran.foundByPlace;
    return isWhole || ran.verdict.outcome == Outcome::kInfected ? std::optional(std::move(ran.verdict))
                                                                : std::nullopt;
  }

  void useTemp(const std::string& folder, ScanBudget& budget) {
    budget.watchFolder(folder);
    if (!folder.empty() && folder != tempNow_) {
      cl_engine_set_str(engine_.get(), CL_ENGINE_TMPDIR, folder.c_str());
      tempNow_ = folder;
    }
  }

  struct Ran {
    Verdict verdict;
    bool foundByPlace = false;
  };
  Ran run(ScanRecord& record, ScanBudget& budget, int fd, const std::string& name,
          const ScanOptions& options) {
    const cl_scan_options flags = flagsOf(options);
    LibraryScan library{record, budget};
    FileScan scan(
        [&](int file, const std::string& fileName) { return scanByLibrary(library, file, fileName, flags); },
        record, limits_, budget, tempNow_);
    scan.scan(fd, name);
    return {record.finish({}), library.foundByPlace || scan.foundArchives()};
  }

  // Returns libclamav's failure; empty after a success.
  std::string scanByLibrary(LibraryScan& scan, int fd, const std::string& name, cl_scan_options flags) {
    const ScanBudget& budget = scan.budget;
    setLimit(CL_ENGINE_MAX_SCANSIZE, budget.bytesLeft(), limits_.maxScanBytes);
    setLimit(CL_ENGINE_MAX_FILES, budget.layersLeft(), limits_.maxFiles);
    const char* virus = nullptr;
    unsigned long scanned = 0;
    currentRecord = &scan.record;
    const cl_error_t result =
        cl_scandesc_callback(fd, name.c_str(), &virus, &scanned, engine_.get(), &flags, &scan);
    currentRecord = nullptr;
    if (result == CL_EMEM) {
      return "it needs more memory than a scan may use";
    }
    const bool whole = result == CL_CLEAN || result == CL_VIRUS;
    return whole ? std::string{} : std::string(orEmpty(cl_strerror(result)));
  }

  void setLimit(cl_engine_field field, std::uint64_t left, std::uint64_t most) {
    constexpr std::uint64_t kLeast = 1;  // zero would mean: no limit
    cl_engine_set_num(engine_.get(), field, static_cast<long long>(std::max(kLeast, std::min(left, most))));
  }

  cl_scan_options flagsOf(const ScanOptions& options) const {
    cl_scan_options flags{};
    flags.general = CL_SCAN_GENERAL_ALLMATCHES | CL_SCAN_GENERAL_HEURISTICS;
    flags.parse = ~0U;
    if (!options.archives) {
      flags.parse &= ~static_cast<unsigned>(CL_SCAN_PARSE_ARCHIVE);
    }
    if (!comparesPictures_) {
      flags.parse &= ~static_cast<unsigned>(CL_SCAN_PARSE_IMAGE_FUZZY_HASH);
    }
    flags.heuristic =
        CL_SCAN_HEURISTIC_EXCEEDS_MAX | CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE | CL_SCAN_HEURISTIC_ENCRYPTED_DOC;
    const bool heuristicEngine = ((options.enabledEngines >> json::kEngineUmb) & 1U) != 0;
    if (options.heuristics && heuristicEngine) {
      flags.heuristic |= CL_SCAN_HEURISTIC_BROKEN | CL_SCAN_HEURISTIC_BROKEN_MEDIA |
                         CL_SCAN_HEURISTIC_MACROS | CL_SCAN_HEURISTIC_PHISHING_SSL_MISMATCH |
                         CL_SCAN_HEURISTIC_PHISHING_CLOAK | CL_SCAN_HEURISTIC_PARTITION_INTXN;
    }
    return flags;
  }

  EngineHandle engine_;
  EngineLimits limits_;
  std::uint64_t fileBytes_;
  bool comparesPictures_;
  std::string tempNow_;
};

namespace {

EngineHandle newEngine(const EngineLimits& limits, std::uint64_t fileBytes) {
  EngineHandle engine(cl_engine_new());
  if (engine) {
    setLimits(engine.get(), limits, fileBytes);
    cl_engine_set_clcb_file_inspection(engine.get(), onLayer);
    cl_engine_set_clcb_meta(engine.get(), onMember);
    cl_engine_set_clcb_virus_found(engine.get(), onFind);
  }
  return engine;
}

// What scans, beside signatures and limits.
std::string rulesText() {
  return std::string("tavagentd " TAV_VERSION ", libclamav ") + cl_retver() + ", " + unpackerVersion() +
         ", audit " + kAuditVersion;
}

std::uint64_t wholeUnits(std::uint64_t bytes) {
  return std::clamp(bytes / kFileBytesUnit * kFileBytesUnit, kFileBytesUnit, kLargestFileBytes);
}

}  // namespace

Engine::Engine(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Engine::~Engine() = default;

platform::Expected<std::unique_ptr<Engine>> Engine::load(const Config& config) {
  if (const auto ready = initialiseLibrary(); !ready) {
    return platform::failure(ready.error());
  }
  const std::uint64_t fileBytes = wholeUnits(config.limits.maxFileBytes);
  auto loaded = loadSignatures({config.shippedSignatures, config.systemSignatures, config.signatureCopies,
                                config.copyForMissing, [&] { return newEngine(config.limits, fileBytes); },
                                config.beforeSignatureFile});
  if (!loaded) {
    return platform::failure(loaded.error());
  }
  SignatureState& state = loaded->state;
  state.rules = rulesText();
  state.limits = describe(config.limits);
  state.version = sha256Of(state.rules + '\n' + state.limits + '\n' + loaded->contentKey);
  return std::unique_ptr<Engine>(new Engine(std::make_unique<Impl>(
      std::move(loaded->engine), config.limits, fileBytes, loaded->comparesPictures, std::move(state))));
}

const SignatureState& Engine::signatures() const {
  return impl_->signatures;
}

const EngineLimits& Engine::limits() const {
  return impl_->limits();
}

void Engine::setTempFolders(const std::string& quick, const std::string& disk) {
  impl_->quickTemp = quick;
  impl_->diskTemp = disk;
}

Verdict Engine::scan(int fd, const std::string& name, const ScanOptions& options) {
  return impl_->scan(fd, name, options);
}

}  // namespace agent
