#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "jsonrpchelper/JsonRpcCpp.h"
#include "jsonrpchelper/RequestLimits.h"
#include "lunet/Lunet.h"

namespace jsonrpchelper {

class HandlerList;

/// The longest message that a server without limits of its own parses. A parsed message takes a hundred times
/// its length in memory. The longest useful request is a change of settings of at most 1 MiB, written as a
/// text in JSON. For answers and for one-way messages of trusted senders (PeerIdentity::trusted) the limit is
/// lunet::kMaxMessageBytes.
inline constexpr std::uint32_t kMaxRequestBytes = lunet::kMaxMemberMessageBytes;
/// The most requests in one batch for a server without limits of its own. No program of this project sends
/// batches. Each request of a batch gets an answer of its own. A batch in a batch is no request.
inline constexpr std::size_t kMaxBatchRequests = 1000;
/// After a message or an answer from this size on, the process gives its free memory back to the system.
inline constexpr std::size_t kLargeMessageBytes = 256u << 10;

/// The sender of the message that is being handled: the address by the bus, the process by the kernel.
struct Caller {
  lunet::Guid guid{};
  lunet::PeerIdentity process;
};

/// The sender, inside an operation of a server. Elsewhere all zero.
Caller currentCaller();

/// Receives JSON-RPC messages from the bus, gives each message to the server that declares the method, and
/// sends the answer back. Two kinds of message are not read: a message over a limit (limitTo, or
/// kMaxRequestBytes and kMaxBatchRequests), and text that is no JSON or nested too deep. A message of these
/// kinds is logged as an error, with its sender. The sender of a request gets an error answer. The console's
/// helper is in the holders of Holders.h; the agent makes its own. No exception of a server leaves the
/// helper. Servers come and go from any thread, in any order (BusServer.h).
class IJsonRpcServerHelper : public jsonrpc::AbstractServerConnector, public lunet::IMRReceiveComplete {
 public:
  IJsonRpcServerHelper();
  /// The helper must be registered nowhere any more. Servers may outlive the helper.
  ~IJsonRpcServerHelper() override;
  IJsonRpcServerHelper(const IJsonRpcServerHelper&) = delete;
  IJsonRpcServerHelper& operator=(const IJsonRpcServerHelper&) = delete;

  /// Messages of a sender for whom `accepts` is false are logged and not handled; a request gets an error
  /// answer. A helper without this call accepts every sender. Call before the helper is registered. `accepts`
  /// runs on the bus's delivery thread.
  void acceptOnly(std::function<bool(const Caller&)> accepts) { accepts_ = std::move(accepts); }

  /// The limits of each sender's messages. Call before the helper is registered. `limits` runs on the bus's
  /// delivery thread; the result must live as long as the helper.
  void limitTo(std::function<const RequestLimits&(const Caller&)> limits) { limits_ = std::move(limits); }

  /// Takes both channels of an endpoint. The endpoint should not be open yet: the bus answers a request that
  /// comes before the receiver with "nobody is there". 0 or the bus's error number.
  std::uint32_t registerOn(lunet::IEndpoint& endpoint);
  /// Gives both channels back; returns when no message is being handled any more.
  void unregisterFrom(lunet::IEndpoint& endpoint);

  /// Gives the request to the server that declares the method. The response stays empty when there is nothing
  /// to answer. Text that is no request, and a method that no server declares, give an error response. Throws
  /// the exceptions of the handlers.
  void ProcessRequest(const std::string& request, std::string& response);

  void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void* registrationContext) override;

  /// The list of servers, for BusServer. Shared, because servers may outlive this object.
  const std::shared_ptr<HandlerList>& handlers() const { return handlers_; }

  /// Part of the connector's interface, without effect: registerOn and unregisterFrom do the work.
  bool StartListening() override { return true; }
  bool StopListening() override { return true; }
  /// addInfo: a ReplyTarget.
  bool SendResponse(const std::string& response, void* addInfo) override;

  struct ReplyTarget {
    lunet::IEndpoint* endpoint = nullptr;
    std::uint64_t messageId = 0;
    void* replyContext = nullptr;
  };

 private:
  RequestLimits limitsOfCaller(bool oneway) const;
  /// Handles one message and answers it. Returns the bytes of the answer.
  std::size_t handle(std::string_view text, const ReplyTarget& target);

  std::function<bool(const Caller&)> accepts_;
  std::function<const RequestLimits&(const Caller&)> limits_;
  std::shared_ptr<HandlerList> handlers_;
};

}  // namespace jsonrpchelper

using jsonrpchelper::IJsonRpcServerHelper;
