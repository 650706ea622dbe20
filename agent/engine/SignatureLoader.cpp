#include "engine/SignatureLoader.h"

#include <clamav.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "engine/Digest.h"
#include "engine/SignatureChoice.h"
#include "engine/SignatureFolder.h"
#include "platform/Posix.h"

namespace agent {
namespace {

constexpr std::uint32_t kDatabaseOptions = CL_DB_STDOPT | CL_DB_PUA;
constexpr int kMostLoads = 3;

std::string lastLoadMessage;

std::string failureText(cl_error_t result) {
  return cl_strerror(result) + (lastLoadMessage.empty() ? std::string{} : " (" + lastLoadMessage + ")");
}

struct Failure {
  std::string path;        // empty: no single file
  std::size_t before = 0;  // files that had loaded before
  std::string reason;
};

struct Built {
  EngineHandle engine;
  unsigned int count = 0;  // of signatures
};

platform::Expected<void> add(const std::string& path, Built& built) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return platform::failure("not a regular file");
  }
  lastLoadMessage.clear();
  const cl_error_t result = cl_load(path.c_str(), built.engine.get(), &built.count, kDatabaseOptions);
  return result == CL_SUCCESS ? platform::Expected<void>{} : platform::failure(failureText(result));
}

class Load {
 public:
  explicit Load(const SignatureSources& sources)
      : sources_(sources), shipped_(sources.shipped), system_(sources.system), copies_(sources.copies) {}

  std::string identity() const { return shipped_.identity() + "\n" + system_.identity() + system_.problem(); }

  platform::Expected<LoadedSignatures> run() {
    if (shipped_.empty()) {
      return platform::failure(shipped_.problem());
    }
    SignatureChoice choice(system_, copies_, sources_.copyForMissing);
    for (bool looked = false;; looked = true) {
      const auto chosen = choice.paths();
      auto built = build(withOurs(chosen));
      if (built) {
        return finish(std::move(*built), choice);
      }
      const Failure& failed = built.error();
      if (failed.before >= chosen.size() && (chosen.empty() || !failed.path.empty())) {
        return platform::failure((failed.path.empty() ? "" : failed.path + ": ") + failed.reason);
      }
      if (!failed.path.empty()) {
        choice.refuse(failed.path, failed.reason);
      }
      const bool others = !looked && refuseBadOnes(choice, failed.path.empty() ? 0 : failed.before);
      if (failed.path.empty() && !others) {
        choice.refuseAll(failed.reason);
      }
    }
  }

 private:
  std::vector<std::string> withOurs(std::vector<std::string> paths) const {
    for (const std::string& name : shipped_.names()) {
      paths.push_back(shipped_.at(name));
    }
    return paths;
  }

  tl::expected<Built, Failure> build(const std::vector<std::string>& paths) const {
    Built built{sources_.newEngine()};
    if (!built.engine) {
      return tl::unexpected(Failure{"", paths.size(), "no memory for the engine"});
    }
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (sources_.beforeFile) {
        sources_.beforeFile(paths[i]);
      }
      if (const auto loaded = add(paths[i], built); !loaded) {
        return tl::unexpected(Failure{paths[i], i, loaded.error()});
      }
    }
    lastLoadMessage.clear();
    if (const cl_error_t result = cl_engine_compile(built.engine.get()); result != CL_SUCCESS) {
      const std::string reason = "the signatures cannot be compiled: " + failureText(result);
      return tl::unexpected(Failure{"", paths.size(), reason});
    }
    return built;
  }

  // Looks at the files from that place on, each in an engine of its own: a folder with many bad files costs
  // three loads at most.
  bool refuseBadOnes(SignatureChoice& choice, std::size_t from) const {
    const auto before = choice.paths();
    for (std::size_t i = from; i < before.size(); ++i) {
      if (const auto built = build({before[i]}); !built) {
        choice.refuse(before[i], built.error().reason);
      }
    }
    return choice.paths() != before;
  }

  platform::Expected<LoadedSignatures> finish(Built built, const SignatureChoice& choice) const {
    LoadedSignatures loaded;
    loaded.engine = std::move(built.engine);
    SignatureState& state = loaded.state;
    choice.describe(state);
    state.loaded = true;
    state.count = built.count;
    const auto ofSystem = choice.paths();
    state.detail =
        std::to_string(state.count) + " signatures from " +
        (ofSystem.empty() ? shipped_.path() + " alone" : system_.path() + " and " + shipped_.path()) +
        (state.shortage.empty() ? "" : ": " + state.shortage);
    for (const std::string& path : withOurs(ofSystem)) {
      const platform::Descriptor file = platform::openQuietly(AT_FDCWD, path.c_str(), 0);
      const std::string sha256 = digestOfFile(file.get(), Digest::Kind::kSha256).value_or("");
      loaded.contentKey.append(path).append(" ").append(sha256).append("\n");
      loaded.comparesPictures = loaded.comparesPictures || comparesPictures(path);
      const std::string name = platform::splitPath(path).name;
      struct stat status {};
      if (path == system_.at(name) && name.size() <= SignatureState::kLongestName &&
          state.files.size() < SignatureState::kMostFiles && fstat(file.get(), &status) == 0) {
        state.files.push_back({name, static_cast<std::uint64_t>(status.st_size), sha256});
      }
    }
    return loaded;
  }

  const SignatureSources& sources_;
  const SignatureFolder shipped_, system_, copies_;
};

void noteUnsettled(SignatureState& state) {
  const std::string text =
      "the signature files changed during each of " + std::to_string(kMostLoads) + " loads";
  state.shortage += (state.shortage.empty() ? "" : "; ") + text;
  state.detail += ": " + text;
  state.unsettled = true;
  state.files.clear();  // not good enough for a copy
  if (state.system == SystemDatabase::kInForce) {
    state.system = SystemDatabase::kPartly;
  }
}

}  // namespace

void FreeEngine::operator()(cl_engine* engine) const {
  cl_engine_free(engine);
}

void noteLoadMessage(std::string_view text) {
  lastLoadMessage = text;
}

platform::Expected<LoadedSignatures> loadSignatures(const SignatureSources& sources) {
  for (int number = 1;; ++number) {
    Load load(sources);
    auto loaded = load.run();
    const bool settled = Load(sources).identity() == load.identity();
    if (settled || number == kMostLoads) {
      if (!settled && loaded) {
        noteUnsettled(loaded->state);
      }
      return loaded;
    }
  }
}

}  // namespace agent
