#include "engine/Engine.h"

#include <clamav.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>

#include "engine/FileHashes.h"
#include "engine/ScanRecord.h"
#include "engine/SignatureFolder.h"
#include "json/CppJson.h"

namespace agent {
namespace {

constexpr std::uint64_t kFileBytesUnit = 64 * 1024;      // libclamav cuts members at its own block's edge
constexpr std::uint64_t kLargestFileBytes = 0x7FFF0000;  // libclamav scans nothing of 2 GiB and more
constexpr std::uint32_t kDatabaseOptions = CL_DB_STDOPT | CL_DB_PUA;

struct FreeEngine {
  void operator()(cl_engine* engine) const { cl_engine_free(engine); }
};
using EngineHandle = std::unique_ptr<cl_engine, FreeEngine>;

// The record of the scan under way, for messages, which come without a context. Null between scans.
ScanRecord* currentRecord = nullptr;
// What libclamav said last outside a scan: the reason when a load fails.
std::string lastLoadMessage;

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
    lastLoadMessage = text;
  }
}

cl_error_t onLayer(int, const char* type, const char**, size_t, const char* name, size_t size,
                   const char* data, uint32_t level, uint32_t, void* context) {
  auto& record = *static_cast<ScanRecord*>(context);
  return record.onLayer({orEmpty(type), orEmpty(name), level, data, size}) ? CL_CLEAN : CL_BREAK;
}

cl_error_t onMember(const char* container, unsigned long, const char* name, unsigned long realBytes,
                    int encrypted, unsigned int, void* context) {
  static_cast<ScanRecord*>(context)->onMember(orEmpty(container), orEmpty(name), realBytes, encrypted != 0);
  return CL_CLEAN;
}

void onFind(int, const char* name, void* context) {
  static_cast<ScanRecord*>(context)->onFind(orEmpty(name));
}

std::string initialiseLibrary() {
  static const cl_error_t result = [] {
    cl_set_clcb_msg(onMessage);
    std::signal(SIGXFSZ, SIG_IGN);  // a temporary file that grows too large is an error of its write
    return cl_init(CL_INIT_DEFAULT);
  }();
  return result == CL_SUCCESS ? std::string{} : cl_strerror(result);
}

// The limits as rows: what libclamav calls it, and what it gets. Everything that libclamav leaves out
// without a word when a file is larger than some limit of its own stands at the file limit here.
void setLimits(cl_engine* engine, const EngineLimits& limits, std::uint64_t fileBytes) {
  const struct {
    cl_engine_field field;
    std::uint64_t value;
  } rows[] = {
      {CL_ENGINE_MAX_FILESIZE, fileBytes},
      {CL_ENGINE_MAX_SCANSIZE, limits.maxScanBytes},
      {CL_ENGINE_MAX_FILES, limits.maxFiles},
      {CL_ENGINE_MAX_RECURSION, limits.maxRecursion},
      {CL_ENGINE_MAX_SCANTIME, limits.maxScanMs},
      {CL_ENGINE_MAX_EMBEDDEDPE, fileBytes},
      {CL_ENGINE_MAX_HTMLNORMALIZE, fileBytes},
      {CL_ENGINE_MAX_HTMLNOTAGS, fileBytes},
      {CL_ENGINE_MAX_SCRIPTNORMALIZE, fileBytes},
      {CL_ENGINE_MAX_ZIPTYPERCG, fileBytes},
      {CL_ENGINE_PCRE_MAX_FILESIZE, fileBytes},
      {CL_ENGINE_MAX_PARTITIONS, 1024},
      {CL_ENGINE_MAX_RECHWP3, 64},
      // Its cache of clean content knows neither the options of a scan nor what was left out of it.
      {CL_ENGINE_DISABLE_CACHE, 1},
  };
  for (const auto& row : rows) {
    cl_engine_set_num(engine, row.field, static_cast<long long>(row.value));
  }
}

// A soft limit on the size of any file this process writes, for as long as the object lives.
class WriteLimit {
 public:
  explicit WriteLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit now = before_;
    now.rlim_cur = std::min(bytes, before_.rlim_max);
    setrlimit(RLIMIT_FSIZE, &now);
  }
  ~WriteLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  WriteLimit(const WriteLimit&) = delete;
  WriteLimit& operator=(const WriteLimit&) = delete;

 private:
  rlimit before_{};
};

Verdict errorVerdict(std::string reason) {
  Verdict verdict;
  verdict.outcome = Outcome::kError;
  verdict.reason = std::move(reason);
  return verdict;
}

}  // namespace

class Engine::Impl {
 public:
  Impl(EngineHandle engine, const EngineLimits& limits, std::uint64_t fileBytes, bool comparesPictures)
      : engine_(std::move(engine)),
        limits_(limits),
        fileBytes_(fileBytes),
        comparesPictures_(comparesPictures) {}

  void setTempFolders(const std::string& quick, const std::string& disk) {
    quickTemp_ = quick;
    diskTemp_ = disk;
  }

  Verdict scan(int fd, const std::string& name, const ScanOptions& options) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
      return errorVerdict("cannot be examined: " + std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
      return errorVerdict("not a regular file");
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    Verdict verdict = scanContent(fd, size, name, options);
    if (verdict.outcome == Outcome::kInfected || options.hashesWanted) {
      if (!fillHashes(fd, verdict) && verdict.outcome == Outcome::kClean) {
        return errorVerdict("cannot be read to its end");
      }
    }
    return verdict;
  }

 private:
  Verdict scanContent(int fd, std::uint64_t size, const std::string& name, const ScanOptions& options) {
    if (size > fileBytes_) {
      return errorVerdict("larger than the engine's limit of " + std::to_string(fileBytes_) +
                          " bytes for one file");
    }
    const auto slash = name.rfind('/');
    const std::string lastPart = slash == std::string::npos ? name : name.substr(slash + 1);
    if (!quickTemp_.empty() && size <= limits_.quickTempBytes / 2) {
      useTemp(quickTemp_);
      const WriteLimit limit(limits_.quickTempBytes);
      ScanRecord record(options, fileBytes_);
      Verdict verdict = run(record, fd, lastPart, options);
      if (!record.tempFull()) {
        return verdict;
      }
    }
    useTemp(diskTemp_);
    ScanRecord record(options, fileBytes_);
    return run(record, fd, lastPart, options);
  }

  void useTemp(const std::string& folder) {
    if (!folder.empty() && folder != tempNow_) {
      cl_engine_set_str(engine_.get(), CL_ENGINE_TMPDIR, folder.c_str());
      tempNow_ = folder;
    }
  }

  Verdict run(ScanRecord& record, int fd, const std::string& name, const ScanOptions& options) {
    cl_scan_options flags = flagsOf(options);
    const char* virus = nullptr;
    unsigned long scanned = 0;
    currentRecord = &record;
    const cl_error_t result =
        cl_scandesc_callback(fd, name.c_str(), &virus, &scanned, engine_.get(), &flags, &record);
    currentRecord = nullptr;
    const bool whole = result == CL_CLEAN || result == CL_VIRUS;
    return record.finish(whole ? std::string_view{} : orEmpty(cl_strerror(result)));
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
  std::string quickTemp_, diskTemp_, tempNow_;
};

namespace {

struct Loaded {
  EngineHandle engine;
  unsigned long count = 0;
  std::string problem;
};

Loaded loadFolders(const Engine::Config& config, std::uint64_t fileBytes,
                   const std::vector<std::string>& folders) {
  Loaded loaded;
  loaded.engine.reset(cl_engine_new());
  if (!loaded.engine) {
    loaded.problem = "no memory for the engine";
    return loaded;
  }
  setLimits(loaded.engine.get(), config.limits, fileBytes);
  unsigned int count = 0;
  cl_error_t result = CL_SUCCESS;
  lastLoadMessage.clear();
  for (const auto& folder : folders) {
    result = cl_load(folder.c_str(), loaded.engine.get(), &count, kDatabaseOptions);
    if (result != CL_SUCCESS) {
      loaded.problem = folder + ": " + cl_strerror(result) +
                       (lastLoadMessage.empty() ? std::string{} : " (" + lastLoadMessage + ")");
      return loaded;
    }
  }
  result = cl_engine_compile(loaded.engine.get());
  if (result != CL_SUCCESS) {
    loaded.problem = std::string("the signatures cannot be compiled: ") + cl_strerror(result);
    return loaded;
  }
  cl_engine_set_clcb_file_inspection(loaded.engine.get(), onLayer);
  cl_engine_set_clcb_meta(loaded.engine.get(), onMember);
  cl_engine_set_clcb_virus_found(loaded.engine.get(), onFind);
  loaded.count = count;
  return loaded;
}

std::uint64_t wholeUnits(std::uint64_t bytes) {
  return std::clamp(bytes / kFileBytesUnit * kFileBytesUnit, kFileBytesUnit, kLargestFileBytes);
}

}  // namespace

Engine::Engine(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Engine::~Engine() = default;

std::unique_ptr<Engine> Engine::load(const Config& config, SignatureState& state) {
  state = SignatureState{};
  if (const auto problem = initialiseLibrary(); !problem.empty()) {
    state.detail = "the engine cannot start: " + problem;
    return nullptr;
  }
  const SignatureFolder shipped(config.shippedSignatures);
  const SignatureFolder system(config.systemSignatures);
  if (shipped.empty()) {
    state.detail = shipped.problem();
    return nullptr;
  }
  std::string remark = system.problem();
  const std::uint64_t fileBytes = wholeUnits(config.limits.maxFileBytes);
  Loaded loaded;
  bool withSystem = !system.empty();
  if (withSystem) {
    loaded = loadFolders(config, fileBytes, {system.path(), shipped.path()});
    if (!loaded.problem.empty()) {
      remark = loaded.problem;
      withSystem = false;
    }
  }
  if (!withSystem) {
    loaded = loadFolders(config, fileBytes, {shipped.path()});
  }
  if (!loaded.problem.empty()) {
    state.detail = loaded.problem;
    return nullptr;
  }
  state.loaded = true;
  state.system = withSystem         ? SystemDatabase::kInForce
                 : system.present() ? SystemDatabase::kLeftOut
                                    : SystemDatabase::kNone;
  state.count = loaded.count;
  state.version = sha256Of(std::string(cl_retver()) + '\n' + shipped.contentKey() +
                           (withSystem ? system.contentKey() : std::string{}));
  state.detail = std::to_string(loaded.count) + " signatures" +
                 (withSystem ? " from " + system.path() + " and " + shipped.path()
                             : " from " + shipped.path() + " alone: " + remark);
  const bool pictures = shipped.comparesPictures() || (withSystem && system.comparesPictures());
  return std::unique_ptr<Engine>(
      new Engine(std::make_unique<Impl>(std::move(loaded.engine), config.limits, fileBytes, pictures)));
}

void Engine::setTempFolders(const std::string& quick, const std::string& disk) {
  impl_->setTempFolders(quick, disk);
}

Verdict Engine::scan(int fd, const std::string& name, const ScanOptions& options) {
  return impl_->scan(fd, name, options);
}

}  // namespace agent
