#include "service/AgentApp.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <optional>

#include "platform/CGlobalTag.h"
#include "platform/CLogDebug.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "service/AgentService.h"
#include "service/BusLink.h"
#include "service/Callers.h"
#include "service/SignatureKeeper.h"
#include "task/AgentLog.h"
#include "worker/WorkerPool.h"

namespace agent {

namespace {

constexpr const char* kName = "tavagentd";
constexpr std::chrono::seconds kLastWordsLimit{3};  // for consoles to take the end of their tasks
constexpr std::chrono::seconds kEndLimit{20};       // for scans to end
constexpr time_t kSignatureLookSec = 30;
constexpr time_t kLoadingLookSec = 1;

/// Why the agent does not serve; ends the start-up.
struct StartFailure {
  int exitCode;
  std::string why;
};

int say(int exitCode, const std::string& line) {
  AGENT_LOG(exitCode == kExitOk ? LogLevel::kInfo : LogLevel::kError, "%s", line.c_str());
  std::fprintf(stderr, "%s: %s\n", kName, platform::visibleText(line).c_str());
  return exitCode;
}

void openLog(const platform::InstallTree& tree, int level) {
  CLogDebug* log = CLogDebug::Create();
  log->SetProperty(CLogDebug::kPath, tree.log() + "/");
  log->SetProperty(CLogDebug::kName, kName);
  log->SetProperty(CLogDebug::kSize, std::to_string(8u << 20));
  log->SetProperty(CLogDebug::kBackupCount, "5");
  log->SetProperty(CLogDebug::kLevel, std::to_string(level));
  if (const auto made = CLogDebug::makeFolder(); !made) {
    std::fprintf(stderr, "%s: no log is written: %s\n", kName, made.error().c_str());
  }
}

/// Many open folders and files are an agent's daily work.
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

/// A terminal's interrupt goes to the spawner and its workers, too: they ignore it, the agent ends them.
std::unique_ptr<Spawner> startSpawner(const platform::InstallTree& tree, const Options& options) {
  const sigset_t signals = ownSignals();
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  Spawner::Config config;
  config.shippedSignatures = tree.signatures();
  config.systemSignatures = options.systemSignatures;
  config.tempFolder =
      tree.state() + "/tmp";  // what is unpacked there is closed to others, and no scan meets it
  CDir::make(config.tempFolder, 0700);
  auto spawner = std::make_unique<Spawner>(std::move(config));
  signal(SIGINT, SIG_DFL);
  signal(SIGHUP, SIG_DFL);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return spawner;
}

[[noreturn]] void otherRuns(const platform::InstallTree& tree, const CGlobalTag& mark) {
  throw StartFailure{kExitOtherRuns,
                     "another agent (pid " + mark.attribute("pid") + ") serves " + tree.root + " already"};
}

/// The agent's mark lies in its own folder: the one of the sockets is the bus's group's, too, whose members
/// could hold it or forge its pid.
void takeMark(CGlobalTag& mark, const platform::InstallTree& tree) {
  switch (mark.trylock(false)) {
    case CGlobalTag::kAcquired:
      return;
    case CGlobalTag::kHeldElsewhere:
      otherRuns(tree, mark);
    default:
      throw StartFailure{kExitFailed, "the agent's mark cannot be taken: " + mark.lastError()};
  }
}

/// The agent's methods on its endpoint.
class Offer {
 public:
  Offer(jsonrpchelper::IJsonRpcServerHelper& helper, lunet::IEndpoint& endpoint)
      : helper_(helper), endpoint_(endpoint) {
    if (const std::uint32_t error = helper_.registerOn(endpoint_); error != lunet::kOk) {
      throw StartFailure{kExitFailed,
                         "the agent's methods cannot be offered: bus error " + std::to_string(error)};
    }
  }
  ~Offer() { helper_.unregisterFrom(endpoint_); }  // returns when none is being called any more
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;

 private:
  jsonrpchelper::IJsonRpcServerHelper& helper_;
  lunet::IEndpoint& endpoint_;
};

/// Everything that serves, in the order of its making; unmade in the reverse order.
class Agent {
 public:
  Agent(const Options& options, const platform::InstallTree& tree, const BusSettings& bus)
      : tree_(tree),
        signatures_({tree.signatures(), options.systemSignatures}, [this] { reloadSignatures(); }),
        mark_(lunet::kAgentGuid, {tree.state()}) {
    {
      // Known early, and free again: the spawner must not inherit the mark.
      CGlobalTag probe(lunet::kAgentGuid, {tree.state()});
      takeMark(probe, tree);
    }
    spawner_ = startSpawner(tree, options);
    takeMark(mark_, tree);
    mark_.setAttribute("pid", std::to_string(getpid()));
    store_ = Store::open(tree.state());
    for (const std::string& notice : store_->notices()) {
      AGENT_LOG(LogLevel::kWarning, "store: %s", notice.c_str());
    }
    if (const auto prepared = bus_.prepare(tree, bus); !prepared) {
      throw StartFailure{kExitFailed, prepared.error()};
    }
    openService(bus.group);
  }

  ~Agent() {
    spawner_->abandonReload();
    offer_.reset();
    service_->StopListening();
    if (tasks_) {
      const bool ended = tasks_->stopAll("the agent is ending", kEndLimit);
      if (!outbox_->drain(kLastWordsLimit)) {
        AGENT_LOG(LogLevel::kWarning, "%s", "not every console has taken the end of its task");
      }
      if (!ended) {
        std::_Exit(kExitFailed);  // a thread hangs in a file system; what is left behind is settled at the
                                  // next start
      }
    }
    outbox_.reset();
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// No scan enters these: what workers unpack, found there once more, would be told as a file of its own.
  std::vector<std::string> ownFolders() const {
    std::vector<std::string> folders{resolved(tree_.state())};
    for (const std::string& folder : spawner_->temporaryFolders()) {
      folders.push_back(resolved(folder));
    }
    return folders;
  }

  /// Until a signal ends it.
  void serve() {
    const sigset_t signals = ownSignals();
    while (true) {
      const bool loading = signatures_.turn() || !tellOfSignatures();
      const timespec limit{loading ? kLoadingLookSec : kSignatureLookSec, 0};
      const int number = sigtimedwait(&signals, nullptr, &limit);
      if (number == SIGTERM || number == SIGINT) {
        AGENT_LOG(LogLevel::kInfo, "ending: signal %d", number);
        return;
      }
      if (number == SIGHUP) {
        signatures_.ask();
      } else if (!loading) {
        signatures_.look();
      }
    }
  }

 private:
  void openService(const std::string& groupName) {
    std::string why;
    const std::optional<gid_t> group = groupByName(groupName, &why);
    if (!why.empty()) {
      AGENT_LOG(LogLevel::kError, "%s: only root and the agent's user may use it", why.c_str());
    }
    outbox_ = std::make_unique<Outbox>();
    tasks_ = std::make_unique<TaskManager>(
        TaskManager::Parts{*store_, *spawner_, *outbox_, bus_.endpoint(), ownFolders()});
    helper_ = std::make_unique<jsonrpchelper::IJsonRpcServerHelper>();
    service_ = std::make_unique<AgentService>(*helper_, *store_, *tasks_, group);
    service_->StartListening();
    // Whoever waits for the address may ask as soon as it is open, and nothing is told before. So the first
    // request waits until the lost tasks are told of: a task that it starts is not a lost one.
    std::promise<void> told;
    helper_->acceptOnly([first = told.get_future().share()](const jsonrpchelper::Caller&) {
      first.wait();
      return true;
    });
    offer_.emplace(*helper_, bus_.endpoint());
    if (const auto opened = bus_.open(lunet::kAgentGuid); !opened) {
      throw StartFailure{kExitFailed, opened.error()};
    }
    tasks_->tellOfLostTasks();
    told.set_value();
  }

  static std::string resolved(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), free);
    return real ? real.get() : path;
  }

  /// Logs what is loaded, once each time it changes. False while a load is under way.
  bool tellOfSignatures() {
    const SignatureState state = spawner_->signatureState();
    if (!state.loading && state.detail != told_) {
      const bool whole = state.loaded && state.system != SystemDatabase::kLeftOut;
      AGENT_LOG(whole ? LogLevel::kInfo : LogLevel::kError, "signatures: %s", state.detail.c_str());
      told_ = state.detail;
    }
    return !state.loading;
  }

  /// Beside the main thread, which a signal may want meanwhile.
  void reloadSignatures() {
    if (const auto loaded = spawner_->reload()) {
      AGENT_LOG(LogLevel::kInfo, "%s", "signatures were loaded again");
    } else {
      AGENT_LOG(LogLevel::kError, "signatures could not be loaded again, the old ones stay in force: %s",
                loaded.error().c_str());
    }
  }

  const platform::InstallTree& tree_;
  std::string told_;
  std::unique_ptr<Spawner> spawner_;
  SignatureKeeper signatures_;  // made before the body starts the spawner; what it runs needs that
  CGlobalTag mark_;
  std::unique_ptr<Store> store_;
  BusLink bus_;
  std::unique_ptr<Outbox> outbox_;
  std::unique_ptr<TaskManager> tasks_;
  std::unique_ptr<jsonrpchelper::IJsonRpcServerHelper> helper_;
  std::unique_ptr<AgentService> service_;
  std::optional<Offer> offer_;
};

}  // namespace

int serve(const Options& options, Readiness* readiness) {
  const platform::InstallTree tree(options.installDir);
  umask(022);  // the folder of the sockets is reached by others; what is private is closed by its maker
  raiseFileLimit();
  openLog(tree, options.logLevel);
  try {
    const auto bus = readBusSettings(tree, kName);
    if (!bus) {
      return say(kExitFailed, bus.error());
    }
    Agent agent(options, tree, *bus);
    AGENT_LOG(LogLevel::kInfo, "serving %s (pid %d)", tree.root.c_str(), getpid());
    if (readiness != nullptr) {
      readiness->ready();
    } else {
      std::fprintf(stderr, "%s: serving %s (pid %d)\n", kName, platform::visibleText(tree.root).c_str(),
                   getpid());
    }
    agent.serve();
  } catch (const StartFailure& failure) {
    return say(failure.exitCode, failure.why);
  } catch (const std::exception& error) {
    return say(kExitFailed, error.what());
  }
  AGENT_LOG(LogLevel::kInfo, "%s", "ended");
  return kExitOk;
}

}  // namespace agent
