// A bus library whose address cannot be opened: the error is the number of receivers there are by then.
#include <set>

#include "lunet/Lunet.h"

namespace {

class CountingEndpoint final : public lunet::IEndpoint {
 public:
  std::uint32_t Open(const lunet::Guid&) override {
    return channels_.empty() ? 0xFF : static_cast<std::uint32_t>(channels_.size());
  }
  void Close() override {}
  std::uint32_t OnewaySend(const lunet::Guid&, std::uint32_t, const void*, std::uint32_t) override {
    return lunet::kErrNotOpen;
  }
  std::uint32_t SyncSend(const lunet::Guid&, std::uint32_t, const void*, std::uint32_t, std::uint32_t*,
                         char**, std::uint32_t*, std::uint32_t) override {
    return lunet::kErrNotOpen;
  }
  void FreeBuffer(char*) override {}
  std::uint32_t RegisterReceiver(std::uint32_t channel, lunet::IMRReceiveComplete*, void*) override {
    channels_.insert(channel);
    return lunet::kOk;
  }
  std::uint32_t UnregisterReceiver(std::uint32_t channel) override {
    channels_.erase(channel);
    return lunet::kOk;
  }
  std::uint32_t Reply(std::uint32_t, std::uint64_t, const void*, std::uint32_t, void*) override {
    return lunet::kErrNotOpen;
  }
  void GetPeer(lunet::Guid*) override {}
  std::uint32_t GetPeerIdentity(lunet::PeerIdentity*) override { return lunet::kErrNotOpen; }
  std::uint32_t SendToProcess(const lunet::Guid&, const lunet::PeerIdentity&, std::uint32_t, const void*,
                              std::uint32_t) override {
    return lunet::kErrNotOpen;
  }

 private:
  std::set<std::uint32_t> channels_;
};

class CountingClient final : public lunet::IClient {
 public:
  lunet::IEndpoint* CreateEndpoint() override { return &endpoint_; }
  void DestroyEndpoint(lunet::IEndpoint*) override {}
  std::uint32_t Init(const char*, const char*) override { return lunet::kOk; }
  void SetLogCallback(lunet::LogCallback) override {}
  void Reserved() override {}
  std::uint32_t Connect(std::uint32_t) override { return lunet::kErrNoTarget; }
  void Uninit() override {}
  void Disconnect() override {}

 private:
  CountingEndpoint endpoint_;
};

CountingClient theClient;

}  // namespace

extern "C" lunet::IClient* CreateInstance(const char*) {
  return &theClient;
}
extern "C" void DestoryInstance(const char*, lunet::IClient*) {}
