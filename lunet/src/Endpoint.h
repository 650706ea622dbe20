#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "Core.h"
#include "Receivers.h"
#include "lunet/Lunet.h"

namespace lunet {

/// The endpoint as its users hold it: checks arguments, catches exceptions, and lets Close wait for the
/// operations of other threads.
class Endpoint final : public IEndpoint {
 public:
  explicit Endpoint(Bus& bus) : bus_(bus) {}
  ~Endpoint() { Close(); }

  std::uint32_t Open(const Guid& self) override;
  void Close() override;
  std::uint32_t OnewaySend(const Guid& target, std::uint32_t channel, const void* data,
                           std::uint32_t length) override;
  std::uint32_t SyncSend(const Guid& target, std::uint32_t channel, const void* data, std::uint32_t length,
                         std::uint32_t* error, char** reply, std::uint32_t* replyLength,
                         std::uint32_t timeoutMs) override;
  void FreeBuffer(char* buffer) override;
  std::uint32_t RegisterReceiver(std::uint32_t channel, IMRReceiveComplete* receiver, void* context) override;
  std::uint32_t UnregisterReceiver(std::uint32_t channel) override;
  std::uint32_t Reply(std::uint32_t reserved, std::uint64_t messageId, const void* data, std::uint32_t length,
                      void* replyContext) override;
  void GetPeer(Guid* peer) override;
  std::uint32_t GetPeerIdentity(PeerIdentity* peer) override;
  std::uint32_t SendToProcess(const Guid& target, const PeerIdentity& process, std::uint32_t channel,
                              const void* data, std::uint32_t length) override;

 private:
  /// The open endpoint for the time of one operation.
  class Use;
  template <class Operation>
  Error run(Operation operation);
  Error sendOneway(const Guid& target, const PeerIdentity* process, std::uint32_t channel, const void* data,
                   std::uint32_t length);

  Bus& bus_;
  Receivers receivers_;
  std::mutex mutex_;             // held by Open and Close
  std::unique_ptr<Core> owned_;  // guarded by mutex_
  // Every operation counts itself and then reads core_. Close clears core_ and then waits for the count.
  // Atomics instead of a lock, because every message comes this way.
  std::atomic<Core*> core_{nullptr};
  std::atomic<int> users_{0};
};

}  // namespace lunet
