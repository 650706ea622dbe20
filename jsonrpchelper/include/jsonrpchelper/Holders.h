#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "lunet/Lunet.h"
#include "platform/Locks.h"

/// The process-wide holders of the agent link: the console's endpoint, its server helper, and the clients,
/// one a target. Start-up fills them, the commands ask the registry for a client, the end empties them.
namespace jsonrpchelper {

/// How long a call may take, in milliseconds.
inline constexpr std::uint32_t kSyncTimeoutMs = 30000;
/// What registering gives while there is no endpoint.
inline constexpr std::uint32_t kErrNoEndpoint = 0xE0010000;

/// The endpoint stays the caller's; null takes it out. Any thread.
void setEndpoint(lunet::IEndpoint* endpoint);
lunet::IEndpoint* endpoint();
/// Forward to the endpoint. Without one, registering gives kErrNoEndpoint and unregistering does nothing.
std::uint32_t registerReceiver(std::uint32_t channel, lunet::IMRReceiveComplete* receiver);
void unregisterReceiver(std::uint32_t channel);

/// Null before initJsonRpc and after stopJsonRpc.
IJsonRpcServerHelper* serverHelper();

/// Whom the console hears: root, its own user and the owner of the bus's folder, on the kernel's word. The
/// sender's address decides nothing. A mere member of the bus's group may call the agent, but tells no
/// console how its scan went.
bool isHeard(const Caller& caller);

/// Start: makes the server helper if there is none, which handles what those send whom isHeard names, puts it
/// on both channels of the endpoint, and makes the client registry ready.
void initJsonRpc();
/// Stop: empties the registry, takes the server helper off the channels and destroys it. Waits for a handler
/// that runs. May be called again, and without initJsonRpc.
void stopJsonRpc();

/// One client a target, made on first use. Any thread; a client itself is used by one thread at a time.
class ClientRegistry {
 public:
  static ClientRegistry& instance();

  void initialise(lunet::IEndpoint* endpoint, std::uint32_t timeoutMs);
  /// Destroys the clients: nobody may be using one.
  void reset();
  /// target: GUID text. Null for an empty one, and while the registry is not ready or has no endpoint.
  /// Valid until reset.
  IJsonRpcClientHelper* getClient(const std::string& target);

 private:
  ClientRegistry() = default;

  bool ready_ = false;
  std::map<std::string, std::unique_ptr<IJsonRpcClientHelper>> clients_;
  lunet::IEndpoint* endpoint_ = nullptr;
  std::uint32_t timeoutMs_ = kSyncTimeoutMs;
  CMutex mutex_;
};

}  // namespace jsonrpchelper
