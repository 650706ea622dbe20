#include "Core.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

#include "platform/AlternateSignalStack.h"

namespace lunet {

namespace {

/// The limit of a handshake. Only a stopped listener reaches this limit.
constexpr std::chrono::seconds kHandshakeTime{3};
/// The limit of closing for queued messages to slow receivers.
constexpr std::chrono::seconds kLinger{1};

/// The kernel ends a process at once, without its handler, for a fault of a thread that blocks the signal.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS};

/// Threads that start meanwhile block all signals but their own faults: the program's own threads handle the
/// signals.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : kFaults) {
      sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

/// Names the link whose message is being delivered.
class DeliveringMark {
 public:
  DeliveringMark(const IncomingLink*& mark, const IncomingLink& link) : mark_(mark) { mark_ = &link; }
  ~DeliveringMark() { mark_ = nullptr; }
  DeliveringMark(const DeliveringMark&) = delete;
  DeliveringMark& operator=(const DeliveringMark&) = delete;

 private:
  const IncomingLink*& mark_;
};

}  // namespace

Core::Core(Bus& bus, Receivers& receivers)
    : bus_(bus),
      receivers_(receivers),
      acceptor_(io_, bus.folder, bus.rule, bus.log, [this](AcceptedPeer peer) { admit(std::move(peer)); }) {}

Core::~Core() {
  close();
}

Error Core::open(const Guid& self) {
  const Result<uid_t> owner = prepareFolder(bus_.folder);
  if (!owner) {
    bus_.log.write(BusLogLevel::kError, owner.error().reason);
    return owner.error().error;
  }
  self_ = self;
  folderOwner_ = *owner;
  if (geteuid() == 0 || geteuid() == folderOwner_) {
    clearLeftovers(bus_.folder);
  }
  if (const Result<void> claimed = address_.claim(bus_.folder, self); !claimed) {
    bus_.log.write(BusLogLevel::kError,
                   "address " + formatGuid(self) + " cannot be opened: " + claimed.error().reason);
    return claimed.error().error;
  }
  watcher_.start();
  acceptor_.start(address_.listener(), self, folderOwner_);
  ioWork_.emplace(io_.get_executor());
  const SignalsBlocked guard;
  ioThread_ = std::thread([this] { runLoop(io_, "lunet-io"); });
  deliveryThread_ = std::thread([this] {
    deliveryId_ = std::this_thread::get_id();
    runLoop(delivery_, "lunet-deliver");
  });
  bus_.log.write(BusLogLevel::kInfo, "address " + formatGuid(self) + " is open");
  return kOk;
}

/// The order loses no accepted message: first outgoing messages, then answers of callbacks, then the rest.
void Core::close() {
  if (closing_.exchange(true)) {
    return;
  }
  const Clock::time_point deadline = Clock::now() + kLinger;
  address_.hide();
  for (const std::shared_ptr<OutgoingLink>& link : outgoingLinks()) {
    link->waitUntilDrained(deadline);
    link->shut(kErrNotOpen);
  }
  delivery_.stop();
  if (deliveryThread_.joinable()) {
    deliveryThread_.join();
  }
  for (const std::shared_ptr<IncomingLink>& link : incomingLinks()) {
    link->waitUntilDrained(deadline);
  }
  io_.stop();
  if (ioThread_.joinable()) {
    ioThread_.join();
  }
  for (const std::shared_ptr<IncomingLink>& link : incomingLinks()) {
    link->close();
  }
  address_.release();
  bus_.log.write(BusLogLevel::kInfo, "address " + formatGuid(self_) + " is closed");
}

std::vector<std::shared_ptr<OutgoingLink>> Core::outgoingLinks() {
  std::vector<std::shared_ptr<OutgoingLink>> found;
  const std::lock_guard lock(targetsMutex_);
  for (const auto& [guid, target] : targets_) {
    const std::lock_guard targetLock(target->mutex);
    if (target->link) {
      found.push_back(target->link);
    }
  }
  return found;
}

std::set<std::shared_ptr<IncomingLink>> Core::incomingLinks() {
  const std::lock_guard lock(incomingMutex_);
  return incoming_;
}

Error Core::send(const Guid& target, const PeerIdentity* process, std::uint32_t channel, const void* data,
                 std::uint32_t length) {
  for (int attempt = 0;; ++attempt) {
    const LinkOrError link = linkTo(target, process, Clock::time_point::max());
    if (!link) {
      return link.error();
    }
    const Error error = (*link)->send(channel, data, length);
    if (error != kErrPeerLost || attempt > 0) {  // once more: the peer may be back
      return error == kErrPeerLost ? kErrNoTarget : error;
    }
  }
}

OutgoingLink::Answer Core::call(const Guid& target, std::uint32_t channel, const void* data,
                                std::uint32_t length, std::uint32_t timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  OutgoingLink::Answer answer;
  if (target == self_ && onDeliveryThread()) {
    answer.error = kErrArgument;  // this thread would have to deliver the call
    return answer;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    const LinkOrError link = linkTo(target, nullptr, deadline);
    if (!link) {
      answer.error = link.error();
      return answer;
    }
    bool sent = false;
    answer = (*link)->call(channel, data, length, deadline, &sent);
    if (sent || answer.error != kErrPeerLost) {
      return answer;
    }
  }
  return answer;
}

Error Core::reply(std::uint64_t messageId, const void* data, std::uint32_t length, void* replyContext) {
  const std::optional<PendingReply> pending = takePending(reinterpret_cast<std::uintptr_t>(replyContext));
  if (!pending || messageId != reinterpret_cast<std::uintptr_t>(replyContext)) {
    return kErrArgument;
  }
  IncomingLink& link = *pending->link;
  if (length > kMaxMessageBytes) {
    (void)link.answer({.kind = FrameKind::kRefusal, .channel = kErrTooLarge, .id = pending->callId}, nullptr);
    return kErrTooLarge;
  }
  return link.answer({.kind = FrameKind::kAnswer, .length = length, .id = pending->callId}, data);
}

const IncomingLink* Core::currentPeer() const {
  return onDeliveryThread() ? delivering_ : nullptr;
}

void Core::deliver(IncomingLink& link, const FrameHeader& header, std::string_view body) {
  const Error outcome = runReceiver(link, header, body);
  if (outcome == kErrNoTarget) {
    bus_.log.writeOf(link.identity().uid, BusLogLevel::kWarning,
                     "a message on channel " + std::to_string(header.channel) + " from " +
                         describePeer(link.guid(), link.identity()) + " has no receiver");
  }
  if (outcome != kOk && header.kind == FrameKind::kRequest) {
    (void)link.answer({.kind = FrameKind::kRefusal, .channel = outcome, .id = header.id}, nullptr);
  }
}

/// kErrNoTarget without a receiver; kErrSystem when the receiver threw and has answered nothing.
Error Core::runReceiver(IncomingLink& link, const FrameHeader& header, std::string_view body) {
  const std::uint64_t messageId = nextMessageId_++;
  const DeliveringMark mark(delivering_, link);
  bool called = false;
  try {
    const bool found = receivers_.with(header.channel, [&](const Receivers::Entry& entry) {
      void* context = header.kind == FrameKind::kRequest ? expectReply(link, messageId, header.id) : nullptr;
      called = true;
      entry.receiver->ReceiveCallback(header.channel, messageId, body.data(), header.length, context,
                                      entry.context);
    });
    return found ? kOk : kErrNoTarget;
  } catch (...) {
    logCurrentException(bus_.log, "a receiver threw");
    const bool answered = called && !takePending(messageId);
    return answered ? kOk : kErrSystem;
  }
}

void Core::ended(IncomingLink& link) {
  {
    const std::lock_guard lock(repliesMutex_);
    std::erase_if(replies_, [&link](const auto& entry) { return entry.second.link.get() == &link; });
  }
  const std::lock_guard lock(incomingMutex_);
  incoming_.erase(link.shared_from_this());
}

/// On the io thread: hands the peer to the delivery thread.
void Core::admit(AcceptedPeer peer) {
  const auto link = std::make_shared<IncomingLink>(std::move(peer), delivery_, watcher_, bus_.log, *this);
  {
    const std::lock_guard lock(incomingMutex_);
    incoming_.insert(link);
  }
  try {
    link->start();
  } catch (...) {  // no thread would read the link; closed, its caller sees the end
    link->close();
    throw;
  }
}

/// A reply context is the number of the message, because a pointer could outlive its object.
void* Core::expectReply(IncomingLink& link, std::uint64_t messageId, std::uint64_t callId) {
  const std::lock_guard lock(repliesMutex_);
  replies_.emplace(messageId, PendingReply{link.shared_from_this(), callId});
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a number as a pointer, never dereferenced
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>(messageId));
}

std::optional<Core::PendingReply> Core::takePending(std::uint64_t messageId) {
  const std::lock_guard lock(repliesMutex_);
  auto node = replies_.extract(messageId);
  return node.empty() ? std::nullopt : std::optional<PendingReply>(std::move(node.mapped()));
}

std::shared_ptr<Core::Target> Core::targetAt(const Guid& guid) {
  const std::lock_guard lock(targetsMutex_);
  std::shared_ptr<Target>& target = targets_[guid];
  if (!target) {
    target = std::make_shared<Target>();
  }
  return target;
}

/// Runs `dial` without the lock while other threads wait for its end.
template <class Dial>
Core::LinkOrError Core::dialAlone(Target& target, std::unique_lock<std::mutex>& lock, Dial dial) {
  const auto done = [&] {
    lock.lock();
    target.dialling = false;
    target.dialled.notify_all();
  };
  target.dialling = true;
  lock.unlock();
  try {
    LinkOrError link = dial();
    done();
    return link;
  } catch (...) {
    done();
    throw;
  }
}

/// The connection to an address, made when there is none. Other threads wait meanwhile.
Core::LinkOrError Core::linkTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline) {
  const std::shared_ptr<Target> target = targetAt(guid);
  std::unique_lock lock(target->mutex);
  if (target->dialling) {  // by another thread
    deadline = std::min(deadline, Clock::now() + kHandshakeTime);
    if (!target->dialled.wait_until(lock, deadline, [&] { return !target->dialling; })) {
      return tl::unexpected(kErrTimeout);
    }
  }
  if (closing_) {
    return tl::unexpected(kErrNotOpen);
  }
  if (target->link && target->link->alive()) {
    const OutgoingLink& link = *target->link;
    if (process != nullptr && !(*process == link.identity())) {
      return tl::unexpected(kErrNotSame);
    }
    if (!(process == nullptr ? link.trusted() : link.admitted())) {
      return tl::unexpected(kErrDenied);
    }
    return target->link;
  }
  LinkOrError link = dialAlone(*target, lock, [&] { return dialTo(guid, process, deadline); });
  if (closing_ && link) {
    (*link)->shut(kErrNotOpen);
    return tl::unexpected(kErrNotOpen);
  }
  target->link = link.value_or(nullptr);
  return link;
}

Core::LinkOrError Core::dialTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline) {
  forgetDeadLinks();
  Result<Dialled> dialled = dial({.folder = &bus_.folder,
                                  .folderOwner = folderOwner_,
                                  .rule = bus_.rule,
                                  .self = self_,
                                  .target = guid,
                                  .process = process,
                                  .deadline = std::min(deadline, Clock::now() + kHandshakeTime),
                                  .cancelled = &closing_});
  if (!dialled) {
    const Failure& failure = dialled.error();
    const Log::Level level = failure.error == kErrNoTarget ? BusLogLevel::kInfo : BusLogLevel::kError;
    const std::string text = "address " + formatGuid(guid) + " is not reached: " + failure.reason;
    process != nullptr ? bus_.log.writeOf(process->uid, level, text) : bus_.log.write(level, text);
    return tl::unexpected(failure.error);
  }
  const std::string name = describePeer(guid, dialled->identity);
  auto link = std::make_shared<OutgoingLink>(std::move(*dialled), watcher_, bus_.log, name);
  link->start();
  bus_.log.writeOf(link->identity().uid, BusLogLevel::kInfo, "connected to " + name);
  return link;
}

/// Drops targets that are dead and unused, before a new one is made. Otherwise targets_ would grow without
/// end: lunetctl has a fresh address each time.
void Core::forgetDeadLinks() {
  const std::lock_guard lock(targetsMutex_);
  std::erase_if(targets_, [](const auto& entry) {
    const std::shared_ptr<Target>& target = entry.second;
    if (target.use_count() > 1) {
      return false;
    }
    const std::lock_guard targetLock(target->mutex);  // unused, but use_count() orders no memory
    return !(target->link && target->link->alive());
  });
}

/// A handler that throws does not end the thread.
template <class Loop>
void Core::runLoop(Loop& loop, const char* name) {
  pthread_setname_np(pthread_self(), name);
  const platform::AlternateSignalStack stack;  // a receiver's overflow reaches the program's handler
  for (;;) {
    try {
      loop.run();
      return;
    } catch (...) {
      logCurrentException(bus_.log, name);
    }
  }
}

}  // namespace lunet
