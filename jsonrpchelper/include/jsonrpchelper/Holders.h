#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "lunet/Lunet.h"
#include "platform/Locks.h"

/// The process-wide holders of the agent link: the console's endpoint, its server helper, and one client for
/// each target. Start-up fills the holders, commands ask the registry for a client, and the end of the
/// program empties the holders.
namespace jsonrpchelper {

/// How long a call may take, in milliseconds.
inline constexpr std::uint32_t kSyncTimeoutMs = 30000;
/// The result of registering while there is no endpoint.
inline constexpr std::uint32_t kErrNoEndpoint = 0xE0010000;

/// The caller keeps the ownership. Null empties the holder. Any thread.
void setEndpoint(lunet::IEndpoint* endpoint);
lunet::IEndpoint* endpoint();
/// Forward to the endpoint. Without one, registering gives kErrNoEndpoint and unregistering does nothing.
std::uint32_t registerReceiver(std::uint32_t channel, lunet::IMRReceiveComplete* receiver);
void unregisterReceiver(std::uint32_t channel);

/// Null before initJsonRpc and after stopJsonRpc.
IJsonRpcServerHelper* serverHelper();

/// Start: makes the server helper if there is none, puts it on both channels of the endpoint, and makes the
/// client registry ready. The helper accepts trusted senders only (PeerIdentity::trusted): root, the
/// console's own user and the owner of the bus's folder. The sender's address decides nothing. A group member
/// may call the agent, but reaches no console.
void initJsonRpc();
/// Stop: empties the registry, takes the server helper off the channels and destroys it. Waits for a running
/// handler. May be called again, and without initJsonRpc.
void stopJsonRpc();

/// One client for each target, made on first use. Any thread; a client itself is used by one thread at a
/// time.
class ClientRegistry {
 public:
  static ClientRegistry& instance();

  void initialise(lunet::IEndpoint* endpoint, std::uint32_t timeoutMs);
  /// Destroys the clients: no client may be in use.
  void reset();
  /// target: GUID text. Null for an empty target, and while the registry is not ready or has no endpoint.
  /// The client is valid until reset.
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
