#include "Endpoint.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>
#include <utility>

namespace lunet {

namespace {

Error checkData(const void* data, std::uint32_t length) {
  if (length > kMaxMessageBytes) {
    return kErrTooLarge;
  }
  return data == nullptr && length > 0 ? kErrArgument : kOk;
}

}  // namespace

class Endpoint::Use {
 public:
  explicit Use(Endpoint& endpoint) : users_(endpoint.users_) {
    ++users_;
    core_ = endpoint.core_;
  }
  ~Use() { --users_; }  // last: the endpoint may be gone afterwards
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  Core* core() const { return core_; }

 private:
  std::atomic<int>& users_;
  Core* core_ = nullptr;
};

/// Runs the operation with the open core; an exception (no memory, no descriptors) becomes kErrSystem.
template <class Operation>
Error Endpoint::run(Operation operation) {
  try {
    const Use use(*this);
    return use.core() == nullptr ? kErrNotOpen : operation(*use.core());
  } catch (const std::exception& error) {
    bus_.log.write(BusLogLevel::kError, std::string("the system refused: ") + error.what());
    return kErrSystem;
  }
}

std::uint32_t Endpoint::Open(const Guid& self) {
  try {
    if (self == Guid{}) {
      return kErrArgument;
    }
    const std::lock_guard lock(mutex_);
    if (owned_) {
      return kErrInUse;
    }
    auto core = std::make_unique<Core>(bus_, receivers_);
    if (const Error error = core->open(self); error != kOk) {
      return error;
    }
    owned_ = std::move(core);
    core_ = owned_.get();
    return kOk;
  } catch (const std::exception& error) {
    bus_.log.write(BusLogLevel::kError, std::string("an address cannot be opened: ") + error.what());
    return kErrSystem;
  }
}

void Endpoint::Close() {
  if (receivers_.callsHere()) {
    bus_.log.write(BusLogLevel::kError, "an endpoint cannot be closed from its own callback");
    return;
  }
  const std::lock_guard lock(mutex_);
  if (owned_) {
    owned_->close();
  }
  core_ = nullptr;
  while (users_ != 0) {  // all end soon; polling spares each operation a wake-up
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  owned_.reset();
}

std::uint32_t Endpoint::OnewaySend(const Guid& target, std::uint32_t channel, const void* data,
                                   std::uint32_t length) {
  return sendOneway(target, nullptr, channel, data, length);
}

std::uint32_t Endpoint::SendToProcess(const Guid& target, const PeerIdentity& process, std::uint32_t channel,
                                      const void* data, std::uint32_t length) {
  return sendOneway(target, &process, channel, data, length);
}

Error Endpoint::sendOneway(const Guid& target, const PeerIdentity* process, std::uint32_t channel,
                           const void* data, std::uint32_t length) {
  if (const Error error = checkData(data, length); error != kOk) {
    return error;
  }
  return run([&](Core& core) { return core.send(target, process, channel, data, length); });
}

std::uint32_t Endpoint::SyncSend(const Guid& target, std::uint32_t channel, const void* data,
                                 std::uint32_t length, std::uint32_t* error, char** reply,
                                 std::uint32_t* replyLength, std::uint32_t timeoutMs) {
  Error result = reply == nullptr || replyLength == nullptr ? kErrArgument : checkData(data, length);
  if (reply != nullptr) {
    *reply = nullptr;
  }
  if (replyLength != nullptr) {
    *replyLength = 0;
  }
  if (result == kOk) {
    result = run([&](Core& core) {
      OutgoingLink::Answer answer = core.call(target, channel, data, length, timeoutMs);
      if (answer.error == kOk) {
        *reply = answer.data.release();
        *replyLength = answer.length;
      }
      return answer.error;
    });
  }
  if (error != nullptr) {
    *error = result;
  }
  return result;
}

void Endpoint::FreeBuffer(char* buffer) {
  std::free(buffer);
}

std::uint32_t Endpoint::RegisterReceiver(std::uint32_t channel, IMRReceiveComplete* receiver, void* context) {
  if (receiver == nullptr) {
    return kErrArgument;
  }
  receivers_.add(channel, {receiver, context});
  return kOk;
}

std::uint32_t Endpoint::UnregisterReceiver(std::uint32_t channel) {
  return receivers_.remove(channel) ? kOk : kErrNoTarget;
}

std::uint32_t Endpoint::Reply(std::uint32_t reserved, std::uint64_t messageId, const void* data,
                              std::uint32_t length, void* replyContext) {
  if (reserved != 0 || replyContext == nullptr || (data == nullptr && length > 0)) {
    return kErrArgument;
  }
  return run([&](Core& core) { return core.reply(messageId, data, length, replyContext); });
}

void Endpoint::GetPeer(Guid* peer) {
  if (peer == nullptr) {
    return;
  }
  *peer = Guid{};
  run([&](Core& core) {
    if (const IncomingLink* link = core.currentPeer(); link != nullptr) {
      *peer = link->guid();
    }
    return kOk;
  });
}

std::uint32_t Endpoint::GetPeerIdentity(PeerIdentity* peer) {
  if (peer == nullptr) {
    return kErrArgument;
  }
  *peer = PeerIdentity{};
  return run([&](Core& core) {
    const IncomingLink* link = core.currentPeer();
    if (link == nullptr) {
      return kErrNotOpen;
    }
    *peer = link->identity();
    peer->trusted = core.trusts(peer->uid);
    return kOk;
  });
}

}  // namespace lunet
