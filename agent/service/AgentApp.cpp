#include "service/AgentApp.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>

#include "platform/CGlobalTag.h"
#include "platform/CLogDebug.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"
#include "service/AgentService.h"
#include "service/BusLink.h"
#include "service/Callers.h"
#include "service/ScannerSettings.h"
#include "service/SignatureCopy.h"
#include "service/SignatureKeeper.h"
#include "service/Status.h"
#include "task/AgentLog.h"
#include "worker/WorkerPool.h"

namespace agent {

namespace {

constexpr const char* kName = "tavagentd";
constexpr std::chrono::seconds kLastNotificationsLimit{3};
constexpr std::chrono::seconds kEndLimit{20};  // for scans to end
constexpr std::chrono::seconds kRestorePatience{60};
constexpr time_t kSignatureLookSec = 30;
constexpr time_t kLoadingLookSec = 1;

/// Ends the start-up.
class StartFailure : public std::runtime_error {
 public:
  StartFailure(int exitCode, const std::string& reason) : std::runtime_error(reason), exitCode_(exitCode) {}
  int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

int report(int exitCode, const std::string& line) {
  AGENT_LOG(exitCode == kExitOk ? LogLevel::kInfo : LogLevel::kError, "%s", line.c_str());
  std::fprintf(stderr, "%s: %s\n", kName, platform::visibleText(line).c_str());
  return exitCode;
}

void openLog(const platform::InstallTree& tree, LogLevel level) {
  CLogDebug* log = CLogDebug::Create();
  log->SetProperty(CLogDebug::kPath, tree.log() + "/");
  log->SetProperty(CLogDebug::kName, kName);
  log->SetProperty(CLogDebug::kSize, std::to_string(8u << 20));
  log->SetProperty(CLogDebug::kBackupCount, "5");
  log->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(level)));
  if (const auto made = CLogDebug::makeFolder(); !made) {
    std::fprintf(stderr, "%s: no log is written: %s\n", kName, made.error().c_str());
  }
}

/// A scan holds many folders and files open.
void raiseFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

sigset_t ownSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&set, number);
  }
  return set;
}

std::string copiesFolder(const platform::InstallTree& tree) {
  return tree.state() + "/signatures";
}

/// Blocks the agent's signals for serve(). The spawner and its workers ignore these signals: the agent ends
/// them.
std::unique_ptr<Spawner> startSpawner(const platform::InstallTree& tree, const Options& options) {
  const sigset_t signals = ownSignals();
  signal(SIGPIPE, SIG_IGN);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  Spawner::Config config;
  config.shippedSignatures = tree.signatures();
  config.systemSignatures = options.systemSignatures;
  config.signatureCopies = copiesFolder(tree);
  config.tempFolder = tree.state() + "/tmp";  // closed to others, and no scan enters it
  CDir::make(config.tempFolder, 0700);
  config.program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "tavscand";
  if (const auto read = readScannerSettings(tree, config); !read) {
    throw StartFailure(kExitFailed, read.error());
  }
  return std::make_unique<Spawner>(std::move(config));
}

std::unique_ptr<Store> openStore(const platform::InstallTree& tree) {
  store::AuditOptions audit;
  audit.systemLog = "/dev/log";
  if (const auto read = readAuditSettings(tree, audit.keeping); !read) {
    throw StartFailure(kExitFailed, read.error());
  }
  return Store::open(tree.state(), kRestorePatience, std::move(audit));
}

/// The lock lies in the agent's own folder. In the folder of the sockets, members of the bus's group could
/// hold the lock or forge its pid.
void takeLock(CGlobalTag& lock, const platform::InstallTree& tree) {
  switch (lock.trylock(false)) {
    case CGlobalTag::kAcquired:
      return;
    case CGlobalTag::kHeldElsewhere:
      throw StartFailure(kExitOtherRuns, "another agent (pid " + lock.attribute("pid") + ") serves " +
                                             tree.root + " already");
    default:
      throw StartFailure(kExitFailed, "the agent's mark cannot be taken: " + lock.lastError());
  }
}

/// Offers the agent's methods on its endpoint.
class Offer {
 public:
  Offer(jsonrpchelper::IJsonRpcServerHelper& helper, lunet::IEndpoint& endpoint)
      : helper_(helper), endpoint_(endpoint) {
    if (const std::uint32_t error = helper_.registerOn(endpoint_); error != lunet::kOk) {
      throw StartFailure(kExitFailed,
                         "the agent's methods cannot be offered: bus error " + std::to_string(error));
    }
  }
  ~Offer() { helper_.unregisterFrom(endpoint_); }  // waits for the calls under way
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;

 private:
  jsonrpchelper::IJsonRpcServerHelper& helper_;
  lunet::IEndpoint& endpoint_;
};

/// All parts of the agent, in the order of their making, and destroyed in the reverse order.
class Agent {
 public:
  Agent(const Options& options, const platform::InstallTree& tree, const BusSettings& bus)
      : tree_(tree),
        systemSignatures_(options.systemSignatures),
        copy_(copiesFolder(tree)),
        signatures_({tree.signatures(), options.systemSignatures}, [this] { reloadSignatures(); }),
        lock_(lunet::kAgentGuid, {tree.state()}) {
    takeLock(lock_, tree);
    lock_.setAttribute("pid", std::to_string(getpid()));
    std::remove(confinementFile(tree).c_str());  // of an earlier agent
    std::remove(versionsFile(tree).c_str());
    spawner_ = startSpawner(tree, options);
    store_ = openStore(tree);
    if (const auto read = readPauseSetting(tree, forgottenPause_); !read) {
      throw StartFailure(kExitFailed, read.error());
    }
    for (const std::string& notice : store_->notices()) {
      AGENT_LOG(LogLevel::kWarning, "store: %s", notice.c_str());
    }
    if (const auto prepared = bus_.prepare(tree, bus); !prepared) {
      throw StartFailure(kExitFailed, prepared.error());
    }
    openService(bus.group);
  }

  ~Agent() {
    ended_ = true;
    spawner_->abandonReload();
    offer_.reset();
    service_->StopListening();
    if (tasks_) {
      const bool ended = tasks_->stopAll("the agent is ending", kEndLimit);
      if (!notifications_->drain(kLastNotificationsLimit)) {
        AGENT_LOG(LogLevel::kWarning, "%s", "not every console has taken the end of its task");
      }
      if (!ended) {
        std::_Exit(kExitFailed);  // a thread hangs in a file system; the next start cleans up
      }
    }
    notifications_.reset();
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// The folders that no scan enters. A scan would report the unpacked content there as further files.
  std::vector<std::string> ownFolders() const {
    std::vector<std::string> folders{resolved(tree_.state())};
    for (const std::string& folder : spawner_->temporaryFolders()) {
      folders.push_back(resolved(folder));
    }
    return folders;
  }

  /// Returns after SIGTERM or SIGINT.
  void serve() {
    const sigset_t signals = ownSignals();
    while (true) {
      const bool loading = signatures_.startWanted() || !logSignatures();
      const timespec limit{loading ? kLoadingLookSec : kSignatureLookSec, 0};
      const int number = sigtimedwait(&signals, nullptr, &limit);
      store_->settleAudit();
      if (number == SIGTERM || number == SIGINT) {
        AGENT_LOG(LogLevel::kInfo, "ending: signal %d", number);
        return;
      }
      if (number == SIGHUP) {
        signatures_.requestLoad();
      } else if (!loading) {
        signatures_.look();
      }
    }
  }

 private:
  void openService(const std::string& groupName) {
    const auto group = groupByName(groupName);
    if (!group) {
      AGENT_LOG(LogLevel::kError, "%s: only root and the agent's user may use it", group.error().c_str());
    }
    notifications_ = std::make_unique<NotificationQueue>();
    tasks_ = std::make_unique<TaskManager>(TaskManager::Parts{
        *store_, *spawner_, *notifications_, bus_.endpoint(), ownFolders(), forgottenPause_});
    helper_ = std::make_unique<jsonrpchelper::IJsonRpcServerHelper>();
    service_ = std::make_unique<AgentService>(*helper_, *store_, *tasks_, group.value_or(std::nullopt));
    service_->StartListening();
    // The first request waits for the notifications of interrupted tasks: a task of that request must not
    // count as interrupted. Notifications need the open address, and requests may come as soon as it is open.
    std::promise<void> notified;
    helper_->acceptOnly([first = notified.get_future().share()](const jsonrpchelper::Caller&) {
      first.wait();
      return true;
    });
    offer_.emplace(*helper_, bus_.endpoint());
    if (const auto opened = bus_.open(lunet::kAgentGuid); !opened) {
      throw StartFailure(kExitFailed, opened.error());
    }
    tasks_->notifyInterruptedTasks();
    notified.set_value();
  }

  static std::string resolved(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), free);
    return real ? real.get() : path;
  }

  /// Logs each change of the loaded signatures. False during a load.
  bool logSignatures() {
    const SignatureState state = spawner_->signatureState();
    const std::string lines = versionLines(state);
    if (!state.loading && lines != loggedSignatures_) {
      // The detail of a load has the shortage; a reload that failed adds one.
      const bool known = state.detail.find(state.shortage) != std::string::npos;
      AGENT_LOG(levelOf(state), "signatures: %s%s%s; version %s; %s; limits: %s", state.detail.c_str(),
                known ? "" : "; ", known ? "" : state.shortage.c_str(), state.version.c_str(),
                state.rules.c_str(), state.limits.c_str());
      if (const int error = CFile::replaceAtomically(versionsFile(tree_), lines, 0600); error != 0) {
        AGENT_LOG(LogLevel::kError, "--status cannot tell the signatures: %s",
                  platform::errnoText(error).c_str());
      }
      loggedSignatures_ = lines;
    }
    if (!state.loading) {
      keepCopy(state);
    }
    logConfinement();
    return !state.loading;
  }

  static LogLevel levelOf(const SignatureState& state) {
    if (state.loaded && state.shortage.empty()) {
      return LogLevel::kInfo;
    }
    return state.loaded && state.system == SystemDatabase::kNone ? LogLevel::kWarning : LogLevel::kError;
  }

  /// Copies each new set of the system's files, on a thread of its own.
  void keepCopy(const SignatureState& state) {
    const bool running =
        copying_.valid() && copying_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    if (running || state.unsettled || state.files.empty() || state.version == copiedVersion_) {
      return;
    }
    copiedVersion_ = state.version;
    copying_ = std::async(std::launch::async, [this, state] {
      if (const auto copied = copy_.update(systemSignatures_, state, ended_); !copied) {
        AGENT_LOG(LogLevel::kError, "the copy of the system's signatures stays as it is: %s",
                  copied.error().c_str());
      }
    });
  }

  /// Logs deaths of the spawner, and each change of the confinement, which it keeps for --status.
  void logConfinement() {
    if (const unsigned replaced = spawner_->replacedSpawners(); replaced != loggedReplacements_) {
      AGENT_LOG(LogLevel::kError, "the spawner process died and was replaced (%u times so far)", replaced);
      loggedReplacements_ = replaced;
    }
    if (const std::string breach = spawner_->takeBreach(); !breach.empty()) {
      AGENT_LOG(LogLevel::kError, "a worker template was ended: %s", breach.c_str());
    }
    const ConfinementState state = spawner_->confinement();
    const std::string text = describe(state);
    if (!state.known || text == loggedConfinement_) {
      return;
    }
    AGENT_LOG(state.essentialMissing  ? LogLevel::kError
              : state.missing.empty() ? LogLevel::kInfo
                                      : LogLevel::kWarning,
              "confinement of the scanning processes: %s", text.c_str());
    if (const int error = CFile::replaceAtomically(confinementFile(tree_), text, 0600); error != 0) {
      AGENT_LOG(LogLevel::kError, "--status cannot tell the confinement: %s",
                platform::errnoText(error).c_str());
    }
    loggedConfinement_ = text;
  }

  /// On a thread of its own: the main thread waits for signals.
  void reloadSignatures() {
    if (const auto loaded = spawner_->reload()) {
      AGENT_LOG(LogLevel::kInfo, "%s", "signatures were loaded again");
    } else {
      AGENT_LOG(LogLevel::kError, "signatures could not be loaded again, the old ones stay in force: %s",
                loaded.error().c_str());
    }
  }

  const platform::InstallTree& tree_;
  const std::string systemSignatures_;
  const SignatureCopy copy_;
  std::atomic<bool> ended_{false};
  std::string copiedVersion_;
  std::future<void> copying_;
  std::string loggedSignatures_;
  std::string loggedConfinement_;
  unsigned loggedReplacements_ = 0;
  std::unique_ptr<Spawner> spawner_;
  SignatureKeeper signatures_;  // made before the spawner loads; its loads use the spawner
  CGlobalTag lock_;
  std::unique_ptr<Store> store_;
  BusLink bus_;
  std::unique_ptr<NotificationQueue> notifications_;
  std::chrono::milliseconds forgottenPause_{std::chrono::hours(1)};
  std::unique_ptr<TaskManager> tasks_;
  std::unique_ptr<jsonrpchelper::IJsonRpcServerHelper> helper_;
  std::unique_ptr<AgentService> service_;
  std::optional<Offer> offer_;
};

}  // namespace

int serve(const Options& options, Daemon* daemon) {
  const platform::InstallTree tree(options.installDir);
  umask(022);  // others access the folder of the sockets; the code closes private files itself
  raiseFileLimit();
  openLog(tree, options.logLevel);
  try {
    const auto bus = readBusSettings(tree, kName);
    if (!bus) {
      return report(kExitFailed, bus.error());
    }
    Agent agent(options, tree, *bus);
    AGENT_LOG(LogLevel::kInfo, "serving %s (pid %d)", tree.root.c_str(), getpid());
    if (daemon != nullptr) {
      daemon->ready();
    } else {
      std::fprintf(stderr, "%s: serving %s (pid %d)\n", kName, platform::visibleText(tree.root).c_str(),
                   getpid());
    }
    agent.serve();
  } catch (const StartFailure& failure) {
    return report(failure.exitCode(), failure.what());
  } catch (const std::exception& error) {
    return report(kExitFailed, error.what());
  }
  AGENT_LOG(LogLevel::kInfo, "%s", "ended");
  return kExitOk;
}

}  // namespace agent
