#include "worker/Spawner.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "engine/SignatureFolder.h"
#include "platform/Posix.h"
#include "worker/CallFilter.h"
#include "worker/SpawnerProcess.h"

namespace agent {
namespace {

constexpr int kMostFailures = 3;

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
  auto ends = Channel::pair();
  if (!ends) {
    throw std::runtime_error("no socket pair for the spawner: " + ends.error());
  }
  auto& [ours, theirs] = *ends;
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("the spawner cannot be forked: " + platform::errnoText(errno));
  }
  if (pid_ == 0) {
    ours.close();
    runSpawner(config_, folders_, std::move(theirs), self);
  }
  spawner_ = std::move(ours);
  restartTemplate();
}

Spawner::~Spawner() {
  template_.reset();
  spawner_.close();
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  folders_.remove();
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
  if (!spawner_.send(encode(ForkRequest{}), theirs.fd())) {
    return platform::failure(
        "the spawner process has ended: nothing can be scanned until the agent is started again");
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
  start.processorSeconds =
      static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::seconds>(config_.fileTimeout).count()) + 1;
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
      state_.detail = "the process that loads the signatures died " + std::to_string(failures_) + " times" +
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
