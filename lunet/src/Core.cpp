#include "Core.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <utility>

namespace lunet {

namespace {

/// How long a listener may take to welcome us; only one that was stopped needs it.
constexpr std::chrono::seconds kWelcomeTime{3};
/// How long closing waits for what is queued to reach receivers that are slow to take it.
constexpr std::chrono::seconds kLinger{1};

/// The program's signals are for its own threads.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

Core::Core(Bus& bus, Receivers& receivers)
    : bus_(bus),
      receivers_(receivers),
      reception_(io_, bus.folder, bus.rule, bus.log, [this](Guest guest) { welcome(std::move(guest)); }) {}

Core::~Core() {
  close();
}

Error Core::open(const Guid& self) {
  const FolderCheck folder = prepareFolder(bus_.folder);
  if (folder.error != kOk) {
    bus_.log.write(BusLogLevel::kError, folder.why);
    return folder.error;
  }
  self_ = self;
  folderOwner_ = folder.owner;
  if (geteuid() == 0 || geteuid() == folder.owner) {
    clearLeftovers(bus_.folder);
  }
  std::string why;
  if (const Error error = address_.claim(bus_.folder, self, &why); error != kOk) {
    bus_.log.write(BusLogLevel::kError, "address " + formatGuid(self) + " cannot be opened: " + why);
    return error;
  }
  watcher_.start();
  reception_.start(address_.listener(), self, folderOwner_);
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

/// Outgoing first, then what callbacks still answer, then the rest: nothing that was accepted is cut off by
/// the order in which this ends.
void Core::close() {
  if (closing_.exchange(true)) {
    return;
  }
  const Clock::time_point deadline = Clock::now() + kLinger;
  address_.hide();
  for (const std::shared_ptr<OutgoingLink>& link : links()) {
    link->waitUntilDrained(deadline);
    link->shut(kErrNotOpen);
  }
  delivery_.stop();
  if (deliveryThread_.joinable()) {
    deliveryThread_.join();
  }
  for (const std::shared_ptr<IncomingLink>& guest : guests()) {
    guest->waitUntilDrained(deadline);
  }
  io_.stop();
  if (ioThread_.joinable()) {
    ioThread_.join();
  }
  for (const std::shared_ptr<IncomingLink>& guest : guests()) {
    guest->close();
  }
  address_.release();
  bus_.log.write(BusLogLevel::kInfo, "address " + formatGuid(self_) + " is closed");
}

std::vector<std::shared_ptr<OutgoingLink>> Core::links() {
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

std::set<std::shared_ptr<IncomingLink>> Core::guests() {
  const std::lock_guard lock(guestsMutex_);
  return guests_;
}

Error Core::send(const Guid& target, const PeerIdentity* process, std::uint32_t channel, const void* data,
                 std::uint32_t length) {
  for (int attempt = 0;; ++attempt) {
    std::shared_ptr<OutgoingLink> link;
    if (const Error error = linkTo(target, process, Clock::time_point::max(), link); error != kOk) {
      return error;
    }
    const Error error = link->send(channel, data, length);
    if (error != kErrPeerLost || attempt > 0) {  // once more: it may be there again
      return error == kErrPeerLost ? kErrNoTarget : error;
    }
  }
}

OutgoingLink::Answer Core::call(const Guid& target, std::uint32_t channel, const void* data,
                                std::uint32_t length, std::uint32_t timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  OutgoingLink::Answer answer;
  if (target == self_ && onDeliveryThread()) {
    answer.error = kErrArgument;  // the thread that would have to deliver it is waiting here
    return answer;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::shared_ptr<OutgoingLink> link;
    answer.error = linkTo(target, nullptr, deadline, link);
    if (answer.error != kOk) {
      return answer;
    }
    bool sent = false;
    answer = link->call(channel, data, length, deadline, &sent);
    if (sent || answer.error != kErrPeerLost) {
      return answer;
    }
  }
  return answer;
}

Error Core::reply(std::uint64_t messageId, const void* data, std::uint32_t length, void* replyContext) {
  const std::optional<PendingReply> pending = takePending(replyContext);
  if (!pending || messageId != reinterpret_cast<std::uintptr_t>(replyContext)) {
    return kErrArgument;
  }
  const std::shared_ptr<IncomingLink> link = pending->link.lock();
  if (!link) {
    return kErrPeerLost;
  }
  FrameHeader header;
  header.id = pending->callId;
  if (length > kMaxMessageBytes) {
    header.kind = FrameKind::kRefusal;
    header.channel = kErrTooLarge;
    (void)link->answer(header, nullptr);
    return kErrTooLarge;
  }
  header.kind = FrameKind::kAnswer;
  header.length = length;
  return link->answer(header, data);
}

const IncomingLink* Core::currentPeer() const {
  return onDeliveryThread() ? delivering_ : nullptr;
}

void Core::deliver(IncomingLink& link, const FrameHeader& header, std::string_view body) {
  const bool request = header.kind == FrameKind::kRequest;
  const std::uint64_t messageId = nextMessageId_++;
  delivering_ = &link;
  const bool taken = receivers_.with(header.channel, [&](const Receivers::Entry& entry) {
    void* context = request ? expectReply(link, messageId, header.id) : nullptr;
    try {
      entry.receiver->ReceiveCallback(header.channel, messageId, body.data(), header.length, context,
                                      entry.context);
    } catch (const std::exception& error) {
      bus_.log.write(BusLogLevel::kError, std::string("a receiver threw: ") + error.what());
    } catch (...) {
      bus_.log.write(BusLogLevel::kError, "a receiver threw");
    }
  });
  delivering_ = nullptr;
  if (taken) {
    return;
  }
  bus_.log.write(BusLogLevel::kWarning, "a message on channel " + std::to_string(header.channel) + " from " +
                                            describePeer(link.guid(), link.identity()) + " has no receiver");
  if (request) {
    FrameHeader refusal;
    refusal.kind = FrameKind::kRefusal;
    refusal.channel = kErrNoTarget;
    refusal.id = header.id;
    (void)link.answer(refusal, nullptr);
  }
}

void Core::ended(IncomingLink& link) {
  {
    const std::lock_guard lock(repliesMutex_);
    std::erase_if(replies_, [&link](const auto& entry) { return entry.second.link.lock().get() == &link; });
  }
  const std::lock_guard lock(guestsMutex_);
  guests_.erase(link.shared_from_this());
}

/// The io thread hands a caller to the delivery thread.
void Core::welcome(Guest guest) {
  const auto link = std::make_shared<IncomingLink>(std::move(guest), delivery_, watcher_, bus_.log,
                                                   static_cast<Recipient&>(*this));
  {
    const std::lock_guard lock(guestsMutex_);
    guests_.insert(link);
  }
  try {
    link->start();
  } catch (...) {  // nobody would read it: its caller sees the end
    link->close();
    throw;
  }
}

/// A reply context is the message's number, never a pointer to something that may be gone.
void* Core::expectReply(IncomingLink& link, std::uint64_t messageId, std::uint64_t callId) {
  const std::lock_guard lock(repliesMutex_);
  replies_.emplace(messageId, PendingReply{link.weak_from_this(), callId});
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a number in a pointer's clothes, never followed
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>(messageId));
}

std::optional<Core::PendingReply> Core::takePending(void* replyContext) {
  const std::lock_guard lock(repliesMutex_);
  auto node = replies_.extract(reinterpret_cast<std::uintptr_t>(replyContext));
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

/// Runs it without the lock, while the others wait; whatever comes of it, they go on.
template <class Dial>
Error Core::dialAlone(Target& target, std::unique_lock<std::mutex>& lock, Dial dial) {
  const auto done = [&] {
    lock.lock();
    target.dialling = false;
    target.dialled.notify_all();
  };
  target.dialling = true;
  lock.unlock();
  try {
    const Error error = dial();
    done();
    return error;
  } catch (...) {
    done();
    throw;
  }
}

/// The connection to that address, made when there is none; one at a time for each address.
Error Core::linkTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline,
                   std::shared_ptr<OutgoingLink>& link) {
  const std::shared_ptr<Target> target = targetAt(guid);
  std::unique_lock lock(target->mutex);
  if (target->dialling) {  // by another thread
    deadline = std::min(deadline, Clock::now() + kWelcomeTime);
    if (!target->dialled.wait_until(lock, deadline, [&] { return !target->dialling; })) {
      return kErrTimeout;
    }
  }
  if (closing_) {
    return kErrNotOpen;
  }
  if (target->link && target->link->alive()) {
    link = target->link;
    if (process == nullptr) {
      return link->trusted() ? kOk : kErrDenied;
    }
    return !(*process == link->identity()) ? kErrNotSame : link->admitted() ? kOk : kErrDenied;
  }
  const Error error = dialAlone(*target, lock, [&] { return dialTo(guid, process, deadline, link); });
  if (closing_ && link) {
    link->shut(kErrNotOpen);
    return kErrNotOpen;
  }
  target->link = link;
  return error;
}

Error Core::dialTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline,
                   std::shared_ptr<OutgoingLink>& link) {
  forgetDeadLinks();
  DialRequest request;
  request.folder = &bus_.folder;
  request.folderOwner = folderOwner_;
  request.rule = bus_.rule;
  request.self = self_;
  request.target = guid;
  request.process = process;
  request.deadline = std::min(deadline, Clock::now() + kWelcomeTime);
  request.cancelled = &closing_;
  Dialled dialled = dial(request);
  if (dialled.error != kOk) {
    const Log::Level level = dialled.error == kErrNoTarget ? BusLogLevel::kInfo : BusLogLevel::kError;
    bus_.log.write(level, "address " + formatGuid(guid) + " is not reached: " + dialled.why);
    return dialled.error;
  }
  const std::string name = describePeer(guid, dialled.identity);
  link = std::make_shared<OutgoingLink>(std::move(dialled), watcher_, bus_.log, name);
  link->start();
  bus_.log.write(BusLogLevel::kInfo, "connected to " + name);
  return kOk;
}

/// Addresses come and go (a tool's is its own each time): what is dead and unused is dropped before anything
/// new is made, so their number stays that of the living.
void Core::forgetDeadLinks() {
  const std::lock_guard lock(targetsMutex_);
  std::erase_if(targets_, [](const auto& entry) {
    const std::shared_ptr<Target>& target = entry.second;
    return target.use_count() == 1 && !(target->link && target->link->alive());
  });
}

/// A handler that throws costs itself, never the thread.
template <class Loop>
void Core::runLoop(Loop& loop, const char* name) {
  pthread_setname_np(pthread_self(), name);
  for (;;) {
    try {
      loop.run();
      return;
    } catch (const std::exception& error) {
      bus_.log.write(BusLogLevel::kError, std::string(name) + ": " + error.what());
    }
  }
}

}  // namespace lunet
