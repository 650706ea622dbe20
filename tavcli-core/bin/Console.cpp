#include "bin/Console.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

#include "bin/AgentWatch.h"
#include "bin/BatchLoop.h"
#include "bin/CContainerMgr.h"
#include "bin/CommandLine.h"
#include "bin/Complain.h"
#include "bin/ContainerConfig.h"
#include "bin/InstallDir.h"
#include "bin/InteractiveLoop.h"
#include "bin/MarkDirectory.h"
#include "bin/Pause.h"
#include "bin/UnattendedOutput.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "lineeditor/Signals.h"
#include "lineeditor/Terminal.h"
#include "platform/CGlobalTag.h"
#include "platform/Expected.h"
#include "platform/Text.h"
#include "shell/TavCliCompletion.h"

namespace tavcli {

namespace {

constexpr int kExitOk = 0;
constexpr int kExitInteractiveFailed = -1;
constexpr int kExitBatchFailed = 2;

/// The shortest wait for the readers of an unattended run's output.
constexpr std::chrono::seconds kOutputGrace{2};

/// The link to the agent. The destructor takes the link down, whichever way the program ends.
class Link {
 public:
  explicit Link(const ContainerConfig& config) : manager_(config) {}
  ~Link() { down(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  bool up() { return manager_.init() && manager_.start(); }
  void down() {
    manager_.stop();
    manager_.uninit();
  }
  bool agentAnswers() { return manager_.agentAnswers(); }

 private:
  CContainerMgr manager_;
};

/// Sets the shell's hook for QUIT. The destructor removes the hook and restores the terminal, whichever way
/// the prompt ends.
class QuitHook {
 public:
  explicit QuitHook(std::function<void()> hook) { TavCliCompletion::instance().setQuitHook(std::move(hook)); }
  ~QuitHook() {
    TavCliCompletion::instance().setQuitHook(nullptr);
    lineeditor::restoreTerminal();
  }
  QuitHook(const QuitHook&) = delete;
  QuitHook& operator=(const QuitHook&) = delete;
};

/// The configuration of the tree that the program runs from. The mark then lies in the folder of the tree's
/// bus.
ContainerConfig useInstallTree() {
  ContainerConfig config = containerConfigFor(installDirectory());
  useMarkDirectory(config.installDir, config.busConfigFile);
  return config;
}

/// The steps of both run modes after the mark is taken. Null after a failed step; the step has printed its
/// line.
std::unique_ptr<Link> bringUp(CGlobalTag& mark, ContainerConfig config, const Surroundings& surroundings,
                              const char* withoutUuid) {
  mark.setAttribute("pid", std::to_string(getpid()));
  if (surroundings.generateUuid(config.uuid) != 0) {
    if (withoutUuid != nullptr) {
      std::puts(withoutUuid);
    }
    return nullptr;
  }
  auto link = std::make_unique<Link>(config);
  if (!link->up()) {
    std::puts("init afx failed");
    return nullptr;
  }
  TavCliCompletion::instance().init();
  std::fflush(stdout);
  return link;
}

int runAttended(const Surroundings& surroundings) {
  lineeditor::installSignalHandlers();
  const ContainerConfig config = useInstallTree();
  CGlobalTag mark(containerGuid(), CGlobalTag::TagConfig::getUserConfig());
  switch (mark.trylock(false)) {
    case CGlobalTag::kAcquired:
      std::printf("Container[%s] single process mark create success\n", containerGuid().c_str());
      break;
    case CGlobalTag::kHeldElsewhere:
      std::printf("Container[%s] is Running\n", containerGuid().c_str());
      return kExitOk;
    default:
      std::printf("Container[%s] single process mark create failed\n", containerGuid().c_str());
      complain("tavcli: " + mark.lastError());
      return kExitInteractiveFailed;
  }
  const std::unique_ptr<Link> link = bringUp(mark, config, surroundings, nullptr);
  if (!link) {
    return kExitInteractiveFailed;
  }
  const QuitHook hook([&link] {
    lineeditor::restoreTerminal();
    link->down();
  });
  runInteractive();
  return kExitOk;
}

/// Takes the mark. The error is the exit code.
tl::expected<void, int> takeMark(CGlobalTag& mark, int timeoutSec, IPause& pause) {
  switch (waitForMark(
      timeoutSec, [&mark] { return mark.trylock(false); }, pause)) {
    case MarkWait::kAcquired:
      return {};
    case MarkWait::kFailed:
      std::puts("singleTag failed");
      complain("tavcli: " + mark.lastError());
      return tl::unexpected<int>(kExitBatchFailed);
    case MarkWait::kTimedOut:
      std::puts("bSuccess failed");
      return tl::unexpected<int>(kExitNoMark);
    case MarkWait::kSignal:
      break;
  }
  return tl::unexpected<int>(kExitBatchFailed);
}

BatchEnd runMarked(const BatchOptions& options, const ContainerConfig& config,
                   const Surroundings& surroundings, IPause& pause) {
  CGlobalTag mark(containerGuid(), CGlobalTag::TagConfig::getUserConfig());
  if (const auto taken = takeMark(mark, options.timeoutSec, pause); !taken) {
    return {taken.error()};
  }
  const std::unique_ptr<Link> link = bringUp(mark, config, surroundings, "uuid gen failed.");
  if (!link) {
    return {kExitBatchFailed};
  }
  AgentWatch watch([&link] { return link->agentAnswers(); }, complain);
  pause.setEverySecond([&watch] { watch.look(); });
  const BatchHost host{[](const char* line) {
                         TavCliCompletion::instance().executeLine(line);
                         std::fflush(stdout);
                       },
                       complain,
                       [] { return CppJson::readInt64(ScanRunState::instance().result(), "virusnum", 0); }};
  const BatchEnd end = runBatch(options, host, pause);
  pause.setEverySecond(nullptr);
  watch.lookForReturn();
  return end;
}

/// Waits for a slow reader of the output: after the end of the scan for the rest of the timeout, after
/// another end for a moment. A signal ends the wait.
void finishOutput(UnattendedOutput& output, const BatchEnd& end, IPause& pause) {
  bool written = output.waitUntilWritten(kOutputGrace);
  for (std::int64_t left = end.signalled ? 0 : end.secondsLeft; left > 0 && !written; --left) {
    if (pause.sleep(std::chrono::seconds(1)) == IPause::End::kSignal) {
      return;
    }
    written = output.waitUntilWritten({});
  }
  if (output.dropped()) {
    complain("tavcli: part of the output is missing: its reader took too little of it");
    output.waitUntilWritten(kOutputGrace);
  }
}

BatchEnd runChecked(const std::vector<std::string>& words, const Surroundings& surroundings, IPause& pause) {
  const auto options = checkBatchOptions(parseCommandLine(words));
  if (!options) {
    if (!options.error().out.empty()) {
      std::puts(options.error().out.c_str());
    }
    if (!options.error().err.empty()) {
      complain(options.error().err);
    }
    return {kExitBatchFailed};
  }
  return runMarked(*options, useInstallTree(), surroundings, pause);
}

int runUnattended(const std::vector<std::string>& words, const Surroundings& surroundings) {
  const std::unique_ptr<IPause> pause = surroundings.makePause();
  UnattendedOutput output;
  const BatchEnd end = runChecked(words, surroundings, *pause);
  finishOutput(output, end, *pause);
  pause->endBySignal();
  return end.exitCode;
}

}  // namespace

Surroundings::Surroundings()
    : generateUuid([](std::string& uuid) {
        uuid = CUuid::generate();
        return 0;
      }),
      makePause([] { return std::make_unique<SignalAwarePause>(); }) {}

int runConsole(const std::vector<std::string>& arguments, const Surroundings& surroundings) noexcept {
  try {
    // When the reader of the output goes away, the output is lost, but not the report.
    std::signal(SIGPIPE, SIG_IGN);
    if (arguments.size() < 2) {
      return runAttended(surroundings);
    }
    return runUnattended({arguments.begin() + 1, arguments.end()}, surroundings);
  } catch (const std::exception& exception) {
    complain(std::string("tavcli: ") + exception.what());
  }
  return arguments.size() < 2 ? kExitInteractiveFailed : kExitBatchFailed;
}

}  // namespace tavcli
