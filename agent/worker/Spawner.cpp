#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "worker/Messages.h"
#include "worker/SpawnerImpl.h"
#include "worker/SpawnerProcess.h"

namespace agent {
namespace {

constexpr int kMostFailures = 3;

// Until there is something to read, for us or read by another.
void waitForReport(const TemplateLink& link, std::chrono::milliseconds limit) {
  std::array<pollfd, 2> waiting{{{link.channel.fd(), POLLIN, 0}, {link.settled.get(), POLLIN, 0}}};
  poll(waiting.data(), waiting.size(),
       static_cast<int>(std::max<std::chrono::milliseconds::rep>(limit.count(), 0)));
}

}  // namespace

void TemplateLink::settle() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(settled.get(), &one, sizeof one);
}

Spawner::Impl::Impl(Config config) : config_(std::move(config)), folders_(config_.tempFolder) {
  auto [ours, theirs] = Channel::pair();
  if (!ours) {
    throw std::system_error(errno, std::generic_category(), "no socket pair for the spawner");
  }
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ < 0) {
    throw std::system_error(errno, std::generic_category(), "the spawner cannot be forked");
  }
  if (pid_ == 0) {
    ours.close();
    runSpawner(config_, folders_, std::move(theirs), self);
  }
  spawner_ = std::move(ours);
  restartTemplate();
}

Spawner::Impl::~Impl() {
  template_.reset();
  spawner_.close();
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  folders_.remove();
}

Spawner::Impl::Template Spawner::Impl::startTemplate(std::string& problem) {
  platform::Descriptor settled(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  auto [ours, theirs] = Channel::pair();
  if (!ours || !settled) {
    problem = "no way to reach a template: " + std::generic_category().message(errno);
    return nullptr;
  }
  if (!spawner_.send(encode(ForkRequest{}), theirs.fd())) {
    problem = "the spawner process has ended: nothing can be scanned until the agent is started again";
    return nullptr;
  }
  return std::make_shared<const TemplateLink>(TemplateLink{std::move(ours), std::move(settled)});
}

// With the mutex held, or before anybody else knows of us.
void Spawner::Impl::restartTemplate() {
  ++generation_;
  std::string problem;
  template_ = startTemplate(problem);
  state_.loading = template_ != nullptr;
  if (!template_) {
    state_ = SignatureState{};
    state_.detail = problem;
  }
}

// Reads what the template has said. With the mutex held.
void Spawner::Impl::absorb() {
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
      failures_ = 0;
      continue;
    }
    const bool whileLoading = state_.loading;
    template_.reset();
    if (!whileLoading && !state_.loaded) {
      return;  // it ended because there was nothing to load: its report stands
    }
    if (whileLoading && ++failures_ >= kMostFailures) {
      state_ = SignatureState{};
      state_.detail = "the process that loads the signatures died " + std::to_string(failures_) + " times";
      return;
    }
    restartTemplate();
  }
}

SignatureState Spawner::Impl::state() {
  const std::lock_guard lock(mutex_);
  absorb();
  return state_;
}

SignatureState Spawner::Impl::waitLoaded(std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    Template waiting;
    {
      const std::lock_guard lock(mutex_);
      absorb();
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (!state_.loading || left.count() <= 0) {
        return state_;
      }
      waiting = template_;
    }
    waitForReport(*waiting, std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
  }
}

std::optional<SignatureState> Spawner::Impl::awaitReport(const Template& fresh) {
  Channel::Packet packet;
  if (fresh->channel.receive(packet, true) != Channel::Received::kPacket) {
    return std::nullopt;
  }
  const auto report = decode<StateReport>(packet.bytes);
  return report ? std::optional(report->state) : std::nullopt;
}

bool Spawner::Impl::reload(std::string* why) {
  const std::lock_guard oneAtATime(reloadMutex_);
  std::string problem;
  Template fresh;
  {
    const std::lock_guard lock(mutex_);
    fresh = reloading_ = abandoned_ ? nullptr : startTemplate(problem);
  }
  const auto report = fresh ? awaitReport(fresh) : std::nullopt;
  const std::lock_guard lock(mutex_);
  reloading_.reset();
  // Our own signatures alone are better than none, and worse than what is in force.
  const bool lessThanNow =
      report && state_.system == SystemDatabase::kInForce && report->system == SystemDatabase::kLeftOut;
  if (!report || !report->loaded || lessThanNow) {
    if (why != nullptr) {
      *why = report       ? report->detail
             : abandoned_ ? "the agent is ending"
             : fresh      ? "the process that loads the signatures died"
                          : problem;
    }
    return false;
  }
  template_ = fresh;
  state_ = *report;
  failures_ = 0;
  ++generation_;
  return true;
}

void Spawner::Impl::abandonReload() {
  const std::lock_guard lock(mutex_);
  abandoned_ = true;
  if (reloading_) {
    reloading_->channel.shutDown();
  }
}

Spawner::Impl::Forked Spawner::Impl::forkWorker() {
  const std::lock_guard lock(mutex_);
  absorb();
  Forked forked;
  if (state_.loading) {
    forked.loading = template_;
    return forked;
  }
  if (!template_) {
    forked.problem = state_.detail;
    return forked;
  }
  auto [ours, theirs] = Channel::pair();
  if (!ours || !template_->channel.send(encode(ForkRequest{}), theirs.fd())) {
    forked.problem = "no worker can be asked for: " + std::generic_category().message(errno);
    return forked;
  }
  forked.channel = std::move(ours);
  forked.generation = generation_;
  return forked;
}

unsigned Spawner::Impl::generation() {
  const std::lock_guard lock(mutex_);
  return generation_;
}

Spawner::Spawner(Config config) : impl_(std::make_unique<Impl>(std::move(config))) {}
Spawner::~Spawner() = default;

SignatureState Spawner::signatureState() const {
  return impl_->state();
}

SignatureState Spawner::waitLoaded(std::chrono::milliseconds limit) const {
  return impl_->waitLoaded(limit);
}

std::vector<std::string> Spawner::temporaryFolders() const {
  std::vector<std::string> folders;
  for (const auto* folder : {&impl_->folders().quick(), &impl_->folders().disk()}) {
    if (!folder->empty()) {
      folders.push_back(*folder);
    }
  }
  return folders;
}

bool Spawner::reload(std::string* why) {
  return impl_->reload(why);
}

void Spawner::abandonReload() {
  impl_->abandonReload();
}

}  // namespace agent
