#include "jsonrpchelper/IJsonRpcServerHelper.h"

#include <exception>
#include <utility>

#include "json/CppJson.h"
#include "jsonrpchelper/HandlerList.h"
#include "platform/CLog.h"

namespace jsonrpchelper {
namespace {

using jsonrpc::Errors;
using jsonrpc::JsonRpcException;

thread_local Caller tCaller;

/// Makes the sender of a message the current caller while the message is being handled.
class CallerScope {
 public:
  explicit CallerScope(lunet::IEndpoint* endpoint) : before_(std::exchange(tCaller, Caller{})) {
    if (endpoint != nullptr) {
      endpoint->GetPeer(&tCaller.guid);
      endpoint->GetPeerIdentity(&tCaller.process);
    }
  }
  ~CallerScope() { tCaller = before_; }
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;

 private:
  Caller before_;
};

std::string errorResponse(int code, const std::string& message) {
  Json::Value response;
  response["jsonrpc"] = "2.0";
  response["id"] = Json::Value();
  response["error"]["code"] = code;
  response["error"]["message"] = message;
  std::string text;
  CppJson::WriteJsonToString(response, text, 1);
  return text;
}

std::string errorResponse(int code) {
  return errorResponse(code, Errors::GetErrorMessage(code));
}

/// The current caller as "<GUID> (pid 12, user 0)".
std::string sender() {
  return lunet::formatGuid(tCaller.guid) + " (pid " + std::to_string(tCaller.process.pid) + ", user " +
         std::to_string(tCaller.process.uid) + ")";
}

std::string refuse() {
  CLog::emit(CLogLevel::kError, "ReceiveCallback: refused a message of %s", sender().c_str());
  return errorResponse(Errors::ERROR_RPC_INVALID_REQUEST, "this endpoint does not serve the sender");
}

/// The result of handling a message.
struct Outcome {
  std::string response;  ///< empty when there is nothing to answer
  std::string unread;    ///< why no server got the message; empty when a server did
};

Outcome tooMuch(const char* what, std::size_t size, std::size_t limit) {
  const std::string why =
      std::string(what) + " of " + std::to_string(size) + " is over the limit of " + std::to_string(limit);
  return {errorResponse(Errors::ERROR_RPC_INVALID_REQUEST, why), why};
}

std::uint32_t longestMessage(bool oneway) {
  return oneway && tCaller.process.trusted ? lunet::kMaxMessageBytes : kMaxRequestBytes;
}

void handleOne(HandlerList& handlers, const Json::Value& request, const std::string& text,
               std::string& response) {
  const Json::Value* method = CppJson::findMember(request, "method");
  const std::string name = method != nullptr && method->isString() ? method->asString() : "";
  if (!handlers.handle(name, text, response)) {
    response = errorResponse(Errors::ERROR_RPC_METHOD_NOT_FOUND);
  }
}

/// The requests of a batch may be for different servers.
Outcome handleBatch(HandlerList& handlers, const Json::Value& batch) {
  Outcome outcome;
  if (batch.size() > kMaxBatchRequests) {
    return tooMuch("a batch", batch.size(), kMaxBatchRequests);
  }
  Json::Value responses(Json::arrayValue);
  for (const Json::Value& request : batch) {
    std::string text;
    std::string one;
    Json::Value parsed;
    CppJson::WriteJsonToString(request, text, 1);
    handleOne(handlers, request, text, one);
    if (CppJson::LoadJsonString(one, parsed)) {
      responses.append(parsed);
    }
  }
  if (!responses.empty()) {
    CppJson::WriteJsonToString(responses, outcome.response, 1);
  }
  return outcome;
}

Outcome process(HandlerList& handlers, const std::string& request) {
  Outcome outcome;
  Json::Value parsed;
  if (!CppJson::LoadJsonString(request, parsed)) {
    return {errorResponse(Errors::ERROR_RPC_JSON_PARSE_ERROR), "it is no JSON, or nested too deep"};
  }
  if (parsed.isArray() && !parsed.empty()) {
    return handleBatch(handlers, parsed);
  }
  handleOne(handlers, parsed, request, outcome.response);
  return outcome;
}

/// As process, but an exception is logged and becomes the response.
Outcome respond(HandlerList& handlers, const std::string& request) {
  try {
    return process(handlers, request);
  } catch (const JsonRpcException& e) {
    CLog::emit(CLogLevel::kError, "ReceiveCallback: Caught exception:\n %s", e.what());
    return {e.GetMessage(), ""};
  } catch (const std::exception& e) {
    CLog::emit(CLogLevel::kError, "ReceiveCallback: Caught exception:\n %s", e.what());
    return {errorResponse(Errors::ERROR_RPC_INTERNAL_ERROR, e.what()), ""};
  } catch (...) {
    CLog::emit(CLogLevel::kError, "ReceiveCallback: Caught exception:\n %s", "of no known kind");
    return {errorResponse(Errors::ERROR_RPC_INTERNAL_ERROR), ""};
  }
}

Outcome answerTo(HandlerList& handlers, const void* data, std::uint32_t length, bool oneway) {
  if (const std::uint32_t limit = longestMessage(oneway); length > limit) {
    return tooMuch("a message in bytes", length, limit);
  }
  return respond(handlers, data != nullptr ? std::string(static_cast<const char*>(data), length) : "");
}

}  // namespace

Caller currentCaller() {
  return tCaller;
}

IJsonRpcServerHelper::IJsonRpcServerHelper() : handlers_(std::make_shared<HandlerList>()) {}

IJsonRpcServerHelper::~IJsonRpcServerHelper() = default;

std::uint32_t IJsonRpcServerHelper::registerOn(lunet::IEndpoint& endpoint) {
  const std::uint32_t error = endpoint.RegisterReceiver(lunet::kRequestChannel, this, &endpoint);
  return error != lunet::kOk ? error : endpoint.RegisterReceiver(lunet::kOnewayChannel, this, &endpoint);
}

void IJsonRpcServerHelper::unregisterFrom(lunet::IEndpoint& endpoint) {
  endpoint.UnregisterReceiver(lunet::kOnewayChannel);
  endpoint.UnregisterReceiver(lunet::kRequestChannel);
}

void IJsonRpcServerHelper::ProcessRequest(const std::string& request, std::string& response) {
  response = process(*handlers_, request).response;
}

bool IJsonRpcServerHelper::SendResponse(const std::string& response, void* addInfo) {
  const auto* target = static_cast<const ReplyTarget*>(addInfo);
  if (target == nullptr || target->endpoint == nullptr || target->replyContext == nullptr) {
    return false;
  }
  const std::string tooLarge =
      response.size() <= lunet::kMaxMessageBytes
          ? ""
          : errorResponse(Errors::ERROR_RPC_INTERNAL_ERROR, "the answer is larger than the bus carries");
  const std::string& text = tooLarge.empty() ? response : tooLarge;
  return target->endpoint->Reply(0, target->messageId, text.data(), static_cast<std::uint32_t>(text.size()),
                                 target->replyContext) == lunet::kOk;
}

void IJsonRpcServerHelper::ReceiveCallback(std::uint32_t, std::uint64_t messageId, const void* data,
                                           std::uint32_t length, void* replyContext,
                                           void* registrationContext) {
  try {
    auto* const endpoint = static_cast<lunet::IEndpoint*>(registrationContext);
    const CallerScope caller(endpoint);
    const bool oneway = replyContext == nullptr;
    const bool accepted = !accepts_ || accepts_(tCaller);
    const Outcome outcome = accepted ? answerTo(*handlers_, data, length, oneway) : Outcome{refuse(), ""};
    if (!outcome.unread.empty()) {
      CLog::emit(CLogLevel::kError, "ReceiveCallback: a message of %u bytes from %s is not read: %s", length,
                 sender().c_str(), outcome.unread.c_str());
    } else if (oneway && accepted && !outcome.response.empty()) {
      CLog::emit(CLogLevel::kWarning, "ReceiveCallback: dropped a one-way message: %s",
                 outcome.response.c_str());
    }
    if (!oneway) {
      ReplyTarget target{endpoint, messageId, replyContext};
      SendResponse(outcome.response, &target);
    }
  } catch (...) {
    // There is no memory for the request or the response. The sender's time-out ends its wait.
    CLog::emit(CLogLevel::kError, "ReceiveCallback: lost a message of %u bytes", length);
  }
}

}  // namespace jsonrpchelper
