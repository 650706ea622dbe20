#include "jsonrpchelper/Holders.h"

#include <atomic>
#include <mutex>

namespace jsonrpchelper {
namespace {

std::atomic<lunet::IEndpoint*> gEndpoint{nullptr};

/// Guards making and destroying the server helper.
std::mutex gServerHelperLock;
std::unique_ptr<IJsonRpcServerHelper>& serverHelperPlace() {
  static std::unique_ptr<IJsonRpcServerHelper> place;
  return place;
}

}  // namespace

void setEndpoint(lunet::IEndpoint* endpoint) {
  gEndpoint = endpoint;
}

lunet::IEndpoint* endpoint() {
  return gEndpoint;
}

std::uint32_t registerReceiver(std::uint32_t channel, lunet::IMRReceiveComplete* receiver) {
  lunet::IEndpoint* const current = gEndpoint;
  return current != nullptr ? current->RegisterReceiver(channel, receiver, current) : kErrNoEndpoint;
}

void unregisterReceiver(std::uint32_t channel) {
  if (lunet::IEndpoint* const current = gEndpoint) {
    current->UnregisterReceiver(channel);
  }
}

IJsonRpcServerHelper* serverHelper() {
  const std::lock_guard<std::mutex> guard(gServerHelperLock);
  return serverHelperPlace().get();
}

void initJsonRpc() {
  IJsonRpcServerHelper* helper = nullptr;
  {
    const std::lock_guard<std::mutex> guard(gServerHelperLock);
    if (serverHelperPlace() == nullptr) {
      serverHelperPlace() = std::make_unique<IJsonRpcServerHelper>();
      serverHelperPlace()->acceptOnly([](const Caller& caller) { return caller.process.trusted; });
    }
    helper = serverHelperPlace().get();
  }
  registerReceiver(lunet::kRequestChannel, helper);
  registerReceiver(lunet::kOnewayChannel, helper);
  ClientRegistry::instance().initialise(endpoint(), kSyncTimeoutMs);
}

void stopJsonRpc() {
  ClientRegistry::instance().reset();
  unregisterReceiver(lunet::kOnewayChannel);
  unregisterReceiver(lunet::kRequestChannel);
  const std::lock_guard<std::mutex> guard(gServerHelperLock);
  serverHelperPlace().reset();
}

ClientRegistry& ClientRegistry::instance() {
  static ClientRegistry registry;
  return registry;
}

void ClientRegistry::initialise(lunet::IEndpoint* endpoint, std::uint32_t timeoutMs) {
  const std::lock_guard<CMutex> guard(mutex_);
  // Clients of an earlier endpoint would still send through that endpoint.
  clients_.clear();
  endpoint_ = endpoint;
  timeoutMs_ = timeoutMs;
  ready_ = true;
}

void ClientRegistry::reset() {
  const std::lock_guard<CMutex> guard(mutex_);
  clients_.clear();
  ready_ = false;
}

IJsonRpcClientHelper* ClientRegistry::getClient(const std::string& target) {
  if (target.empty()) {
    return nullptr;
  }
  const std::lock_guard<CMutex> guard(mutex_);
  if (!ready_ || endpoint_ == nullptr) {
    return nullptr;
  }
  std::unique_ptr<IJsonRpcClientHelper>& client = clients_[target];
  if (client == nullptr) {
    client = std::make_unique<IJsonRpcClientHelper>(endpoint_, target, lunet::kRequestChannel,
                                                    lunet::kOnewayChannel, timeoutMs_);
  }
  return client.get();
}

}  // namespace jsonrpchelper
