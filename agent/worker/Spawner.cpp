#include "worker/Spawner.h"

#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "engine/SignatureFolder.h"
#include "platform/Posix.h"
#include "worker/CallFilter.h"
#include "worker/Pidfd.h"
#include "worker/SpawnerProcess.h"

namespace agent {
namespace {

constexpr int kMostFailures = 3;
constexpr int kSpawnerEndMs = 2000;

// Waits until a report arrives, or another thread has read it.
void waitForReport(const TemplateLink& link, std::chrono::milliseconds limit) {
  std::array<pollfd, 2> waiting{{{link.channel.fd(), POLLIN, 0}, {link.settled.get(), POLLIN, 0}}};
  poll(waiting.data(), waiting.size(),
       static_cast<int>(std::max<std::chrono::milliseconds::rep>(limit.count(), 0)));
}

std::string died(const std::optional<CallBreach>& breach) {
  return "the process that loads the signatures died" + (breach ? ": " + breachText(*breach) : "");
}

bool holds(const std::vector<std::string>& names, const std::string& database) {
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& name) { return databaseOf(name) == database; });
}

// Whether a database that is in use did not load from the system's folder any more.
bool givesLess(const SignatureState& fresh, const SignatureState& now) {
  if (fresh.unsettled) {
    return !now.files.empty() || !now.copies.empty();
  }
  return std::any_of(fresh.notInUse.begin(), fresh.notInUse.end(), [&](const std::string& database) {
    const bool fromFolder = std::any_of(now.files.begin(), now.files.end(), [&](const SignatureFile& file) {
      return databaseOf(file.name) == database;
    });
    return fromFolder || (holds(now.copies, database) && !holds(fresh.copies, database));
  });
}

}  // namespace

void TemplateLink::settle() const {
  eventfd_write(settled.get(), 1);
}

Spawner::Spawner(Config config) : config_(std::move(config)), folders_(config_.tempFolder) {
  if (config_.program.empty()) {
    forkSpawner();
  }
  restartTemplate();
}

void Spawner::forkSpawner() {
  auto ends = Channel::pair();
  if (!ends) {
    throw std::runtime_error("no socket pair for the spawner: " + ends.error());
  }
  auto& [ours, theirs] = *ends;
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("the spawner cannot be forked: " + platform::errnoText(errno));
  }
  if (pid_ == 0) {
    ours.close();
    runForkedSpawner(config_, folders_, std::move(theirs));
  }
  spawner_ = std::move(ours);
}

// Executed, never forked only: this process has threads, and locks that a thread holds.
platform::Expected<void> Spawner::startSpawner() {
  const auto failed = [this](const std::string& reason) {
    return platform::failure(config_.program + " cannot be started: " + reason);
  };
  auto ends = Channel::pair();
  if (!ends) {
    return failed(ends.error());
  }
  const auto& [ours, theirs] = *ends;
  if (const auto sent = ours.send(encode(SpawnerStart{folders_.disk().value_or("")})); !sent) {
    return failed(sent.error().reason);
  }
  std::string name = config_.program;
  std::string mode = kSpawnerMode;
  std::array<char*, 3> arguments{name.data(), mode.data(), nullptr};
  std::array<char*, 1> noEnvironment{nullptr};
  posix_spawn_file_actions_t actions;
  int error = posix_spawn_file_actions_init(&actions);
  if (error == 0) {
    error = posix_spawn_file_actions_adddup2(&actions, theirs.fd(), kChannelFd);
    if (error == 0) {
      error = posix_spawn(&pid_, name.c_str(), &actions, nullptr, arguments.data(), noEnvironment.data());
    }
    posix_spawn_file_actions_destroy(&actions);
  }
  if (error != 0) {
    pid_ = -1;
    return failed(platform::errnoText(error));
  }
  spawner_ = std::move(ends->first);
  ++spawners_;
  ++fruitless_;
  return {};
}

// The spawner ends with its channel; one that is stopped is killed.
void Spawner::endSpawner() {
  spawner_.close();
  if (pid_ <= 0) {
    return;
  }
  const platform::Descriptor process(pidfd_open(pid_, 0));
  pollfd ended{process.get(), POLLIN, 0};
  if (process && poll(&ended, 1, kSpawnerEndMs) == 0) {
    kill(pid_, SIGKILL);
  }
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

Spawner::~Spawner() {
  template_.reset();
  endSpawner();
  folders_.remove();
}

// Replaces a spawner that has ended. With the mutex held, or in the constructor.
platform::Expected<void> Spawner::askForTemplate(int channel) {
  const auto asked = [&] { return spawner_ && spawner_.send(encode(ForkRequest{}), channel); };
  if (asked()) {
    return {};
  }
  if (config_.program.empty()) {
    return platform::failure(
        "the spawner process has ended: nothing can be scanned until the agent is started again");
  }
  if (spawner_) {
    endSpawner();
    folders_.clear();  // the kernel ends the templates and workers of a dead spawner
  }
  if (auto started = startSpawner(); !started) {
    return started;
  }
  return asked() ? platform::Expected<void>{} : platform::failure("the spawner process ended at its start");
}

platform::Expected<Spawner::Template> Spawner::startTemplate(bool copyForMissing) {
  platform::Descriptor settled(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  auto ends = settled ? Channel::pair() : platform::failure(platform::errnoText(errno));
  if (!ends) {
    return platform::failure("no way to reach a template: " + ends.error());
  }
  auto& [ours, theirs] = *ends;
  if (!config_.program.empty()) {
    if (!folders_.disk()) {
      return platform::failure(folders_.disk().error());
    }
    if (const auto sent = ours.send(encode(startMessage(copyForMissing))); !sent) {
      return platform::failure("a template cannot be told what to load: " + sent.error().reason);
    }
  }
  if (const auto asked = askForTemplate(theirs.fd()); !asked) {
    return platform::failure(asked.error());
  }
  return std::make_shared<const TemplateLink>(TemplateLink{std::move(ours), std::move(settled)});
}

TemplateStart Spawner::startMessage(bool copyForMissing) const {
  TemplateStart start;
  start.shippedSignatures = config_.shippedSignatures;
  start.systemSignatures = config_.systemSignatures;
  start.signatureCopies = config_.signatureCopies;
  start.copyForMissing = copyForMissing;
  start.limits = config_.limits;
  start.tempFolder = folders_.disk().value_or("");
  start.user = config_.user;
  start.tempBytes = config_.tempBytes;
  start.memoryBytes = config_.memoryBytes;
  start.unconfined = config_.unconfined;
  return start;
}

// With the mutex held, or in the constructor.
void Spawner::restartTemplate() {
  ++generation_;
  const auto fresh = startTemplate();
  template_ = fresh.value_or(nullptr);
  if (fresh) {
    state_.loading = true;
  } else {
    state_ = SignatureState{};
    state_.detail = fresh.error();
  }
}

// Takes the template's messages, or the end of its channel. With the mutex held.
void Spawner::readReports() {
  while (template_) {
    Channel::Packet packet;
    const auto received = template_->channel.receive(packet, false);
    if (received == Channel::Received::kNothing) {
      return;
    }
    template_->settle();
    const auto report =
        received == Channel::Received::kPacket ? decode<StateReport>(packet.bytes) : std::nullopt;
    if (report) {
      state_ = report->state;
      confinement_ = report->confinement;
      failures_ = 0;
      fruitless_ = 0;
      continue;
    }
    const auto breach =
        received == Channel::Received::kPacket ? decode<CallBreach>(packet.bytes) : std::nullopt;
    if (breach) {
      breach_ = breachText(*breach);
    }
    const bool whileLoading = state_.loading;
    template_.reset();
    if (!whileLoading && !state_.loaded) {
      return;  // the template ended because it loaded nothing: its report stands
    }
    if (whileLoading && ++failures_ >= kMostFailures) {
      state_ = SignatureState{};
      state_.detail = std::string(fruitless_ >= kMostFailures ? "the spawner process and " : "") +
                      "the process that loads the signatures died " + std::to_string(failures_) + " times" +
                      (breach ? ": " + breachText(*breach) : "");
      return;
    }
    restartTemplate();
  }
}

SignatureState Spawner::signatureState() {
  const std::lock_guard lock(mutex_);
  readReports();
  return state_;
}

ConfinementState Spawner::confinement() {
  const std::lock_guard lock(mutex_);
  readReports();
  return confinement_;
}

unsigned Spawner::replacedSpawners() {
  const std::lock_guard lock(mutex_);
  return spawners_ == 0 ? 0 : spawners_ - 1;
}

bool Spawner::isCurrent(unsigned generation) {
  const std::lock_guard lock(mutex_);
  readReports();
  return generation == generation_ && template_ != nullptr;
}

std::string Spawner::takeBreach() {
  const std::lock_guard lock(mutex_);
  readReports();
  return std::exchange(breach_, {});
}

SignatureState Spawner::waitLoaded(std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    Template waiting;
    {
      const std::lock_guard lock(mutex_);
      readReports();
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (!state_.loading || left.count() <= 0) {
        return state_;
      }
      waiting = template_;
    }
    waitForReport(*waiting, std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
  }
}

platform::Expected<StateReport> Spawner::awaitReport(const Template& fresh) {
  Channel::Packet packet;
  if (fresh->channel.receive(packet, true) != Channel::Received::kPacket) {
    return platform::failure(died(std::nullopt));
  }
  if (const auto report = decode<StateReport>(packet.bytes)) {
    return *report;
  }
  return platform::failure(died(decode<CallBreach>(packet.bytes)));
}

// With the mutex held.
tl::unexpected<std::string> Spawner::keepOld(const std::string& reason) {
  if (state_.loaded) {
    state_.shortage = "the signatures of an earlier load are in use: " + reason;
  }
  return platform::failure(reason);
}

platform::Expected<void> Spawner::reload() {
  const std::lock_guard oneAtATime(reloadMutex_);
  platform::Expected<Template> fresh;
  {
    const std::lock_guard lock(mutex_);
    // A file that is removed while the agent runs is no longer wanted, unless its copy is in use already.
    fresh = abandoned_ ? platform::failure("the agent is ending") : startTemplate(!state_.copies.empty());
    reloading_ = fresh.value_or(nullptr);
  }
  const platform::Expected<StateReport> report =
      fresh ? awaitReport(*fresh) : platform::failure(fresh.error());
  const std::lock_guard lock(mutex_);
  reloading_.reset();
  if (!report) {
    return abandoned_ ? platform::failure("the agent is ending") : keepOld(report.error());
  }
  if (!report->state.loaded || givesLess(report->state, state_)) {
    return keepOld(report->state.shortage.empty() ? report->state.detail : report->state.shortage);
  }
  template_ = *fresh;
  state_ = report->state;
  confinement_ = report->confinement;
  failures_ = 0;
  fruitless_ = 0;
  ++generation_;
  return {};
}

void Spawner::abandonReload() {
  const std::lock_guard lock(mutex_);
  abandoned_ = true;
  if (reloading_) {
    reloading_->channel.shutDown();
  }
}

platform::Expected<Spawner::Forked> Spawner::forkWorker() {
  const std::lock_guard lock(mutex_);
  readReports();
  if (state_.loading) {
    return Forked{{}, 0, template_};
  }
  if (!template_) {
    return platform::failure(state_.detail);
  }
  const auto failed = [](const std::string& reason) {
    return platform::failure("no worker can be asked for: " + reason);
  };
  auto ends = Channel::pair();
  if (!ends) {
    return failed(ends.error());
  }
  if (const auto sent = template_->channel.send(encode(ForkRequest{}), ends->second.fd()); !sent) {
    return failed(sent.error().reason);
  }
  return Forked{std::move(ends->first), generation_, nullptr};
}

bool Spawner::uses(const std::string& signatureVersion) {
  const std::lock_guard lock(mutex_);
  return state_.version == signatureVersion;
}

unsigned Spawner::generation() {
  const std::lock_guard lock(mutex_);
  return generation_;
}

std::vector<std::string> Spawner::temporaryFolders() const {
  std::vector<std::string> folders{folders_.quick(), folders_.disk().value_or("")};
  std::erase(folders, "");
  return folders;
}

}  // namespace agent
