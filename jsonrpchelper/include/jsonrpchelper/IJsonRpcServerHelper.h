#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "jsonrpchelper/JsonRpcCpp.h"
#include "lunet/Lunet.h"

namespace jsonrpchelper {

class HandlerList;

/// The longest message that a server takes to pieces: as values a message needs a hundred times its length.
/// The longest request that is meant is a change of settings of at most 1 MiB, written as a text in JSON. The
/// limit does not apply to answers, nor to the one-way messages of senders whom the kernel makes trusted
/// (PeerIdentity::trusted): both have lunet::kMaxMessageBytes.
inline constexpr std::uint32_t kMaxRequestBytes = lunet::kMaxMemberMessageBytes;
/// The most requests in one batch. Nobody here sends any; each element gets an answer of its own.
inline constexpr std::size_t kMaxBatchRequests = 1000;

/// Who sent the message that is being handled, on the bus's and the kernel's word.
struct Caller {
  lunet::Guid guid{};
  lunet::PeerIdentity process;
};

/// Inside a handler of a server: the sender. Elsewhere all zero.
Caller currentCaller();

/// Receives JSON-RPC messages from the bus, lets the servers that listen on it handle them, and sends the
/// answers back. What is too long (kMaxRequestBytes), a batch of too many or no JSON (or nested too deep) is
/// not read but logged as an error, with its sender: a request gets an error, a one-way message is dropped.
/// One a process stands behind the holders of Holders.h; the agent makes its own. Nothing that a server
/// throws leaves it. Servers come and go from any thread, in any order (BusServer.h).
class IJsonRpcServerHelper : public jsonrpc::AbstractServerConnector, public lunet::IMRReceiveComplete {
 public:
  IJsonRpcServerHelper();
  /// It must be registered nowhere any more. Servers may outlive it.
  ~IJsonRpcServerHelper() override;
  IJsonRpcServerHelper(const IJsonRpcServerHelper&) = delete;
  IJsonRpcServerHelper& operator=(const IJsonRpcServerHelper&) = delete;

  /// Whose messages are handled; the others' are logged, and their requests answered with an error. Without
  /// one, everybody's. Before the helper is registered; `accepts` is called on the bus's delivery thread.
  void acceptOnly(std::function<bool(const Caller&)> accepts) { accepts_ = std::move(accepts); }

  /// Takes both channels of an endpoint, best before it is opened: a request that comes first is answered
  /// with "nobody is there". 0 or the bus's error number.
  std::uint32_t registerOn(lunet::IEndpoint& endpoint);
  /// Gives them back; returns when no message is being handled any more.
  void unregisterFrom(lunet::IEndpoint& endpoint);

  /// Lets the server that declares the method handle the request; the response stays empty when there is
  /// nothing to answer. What is no request, or meant for nobody, gets an error response. Throws what a
  /// handler lets out.
  void ProcessRequest(const std::string& request, std::string& response);

  void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void* registrationContext) override;

  /// The list that servers put themselves on; shared, because they may outlive this object.
  const std::shared_ptr<HandlerList>& handlers() const { return handlers_; }

  /// Of the connector's interface: being on the bus is registerOn's and unregisterFrom's business, so
  /// both have nothing to do.
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
  std::function<bool(const Caller&)> accepts_;
  std::shared_ptr<HandlerList> handlers_;
};

}  // namespace jsonrpchelper

using jsonrpchelper::IJsonRpcServerHelper;
