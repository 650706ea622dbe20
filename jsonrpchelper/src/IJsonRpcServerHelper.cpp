#include "jsonrpchelper/IJsonRpcServerHelper.h"

#include <malloc.h>

#include <algorithm>
#include <exception>
#include <string_view>
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

std::string errorResponse(int code, const std::string& message, const Json::Value& id = {}) {
  Json::Value response;
  response["jsonrpc"] = "2.0";
  response["id"] = id;
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

Outcome refuseMessage(const Refusal& refusal, const Json::Value& id = {}) {
  return {errorResponse(refusal.code, refusal.why, id), refusal.why};
}

/// Of a helper without limits of its own.
RequestLimits commonLimits(bool oneway) {
  const bool longest = oneway && tCaller.process.trusted;
  return {.methods = {{"", longest ? lunet::kMaxMessageBytes : kMaxRequestBytes}},
          .parameters = {},
          .batch = kMaxBatchRequests};
}

void handleOne(HandlerList& handlers, const std::string& method, const std::string& text,
               std::string& response) {
  if (!handlers.handle(method, text, response)) {
    response = errorResponse(Errors::ERROR_RPC_METHOD_NOT_FOUND);
  }
}

std::string methodOf(const Json::Value& request) {
  const Json::Value* method = CppJson::findMember(request, "method");
  return method != nullptr && method->isString() ? method->asString() : "";
}

/// The requests of a batch may be for different servers. The library would take a list for one more batch.
Outcome handleBatch(HandlerList& handlers, const Json::Value& batch) {
  Outcome outcome;
  Json::Value responses(Json::arrayValue);
  for (const Json::Value& request : batch) {
    std::string text;
    std::string one;
    Json::Value parsed;
    if (request.isArray()) {
      one = errorResponse(Errors::ERROR_RPC_INVALID_REQUEST);
    } else {
      CppJson::WriteJsonToString(request, text, 1);
      handleOne(handlers, methodOf(request), text, one);
    }
    if (CppJson::LoadJsonString(one, parsed)) {
      responses.append(parsed);
    }
  }
  if (!responses.empty()) {
    CppJson::WriteJsonToString(responses, outcome.response, 1);
  }
  return outcome;
}

Outcome refuseBatch(std::size_t size, std::size_t limit) {
  return refuseMessage(
      {Errors::ERROR_RPC_INVALID_REQUEST,
       "a batch of " + std::to_string(size) + " is over the limit of " + std::to_string(limit)});
}

/// The id of a request, as far as an answer may have it.
Json::Value idOf(const Json::Value& request) {
  const Json::Value* id = CppJson::findMember(request, "id");
  return id != nullptr && (id->isInt() || id->isString()) ? *id : Json::Value();
}

Outcome process(HandlerList& handlers, const RequestLimits& limits, std::string_view text) {
  Outcome outcome;
  json::Outline outline;
  if (const auto refusal = checkText(limits, text, outline)) {
    return refuseMessage(*refusal);
  }
  const std::string request(text);
  std::string method;
  {
    Json::Value parsed;
    if (!CppJson::LoadJsonString(request, parsed)) {
      return {errorResponse(Errors::ERROR_RPC_JSON_PARSE_ERROR), "it is no JSON, or nested too deep"};
    }
    if (parsed.isArray() && !parsed.empty()) {
      return parsed.size() > limits.batch ? refuseBatch(parsed.size(), limits.batch)
                                          : handleBatch(handlers, parsed);
    }
    if (const auto refusal = checkRequest(limits, parsed, outline, request.size())) {
      return refuseMessage(*refusal, idOf(parsed));
    }
    method = methodOf(parsed);
  }
  handleOne(handlers, method, request, outcome.response);
  return outcome;
}

/// As process, but an exception is logged and becomes the response.
Outcome respond(HandlerList& handlers, const RequestLimits& limits, std::string_view text) {
  try {
    return process(handlers, limits, text);
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

/// The free memory of all threads goes back to the system. The C library would keep it for later.
void giveMemoryBack(std::size_t bytesHandled) {
  if (bytesHandled >= kLargeMessageBytes) {
    malloc_trim(0);
  }
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
  response = process(*handlers_, limitsOfCaller(false), request).response;
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

RequestLimits IJsonRpcServerHelper::limitsOfCaller(bool oneway) const {
  return limits_ ? limits_(tCaller) : commonLimits(oneway);
}

std::size_t IJsonRpcServerHelper::handle(std::string_view text, const ReplyTarget& target) {
  const CallerScope caller(target.endpoint);
  const bool oneway = target.replyContext == nullptr;
  const bool accepted = !accepts_ || accepts_(tCaller);
  const Outcome outcome =
      accepted ? respond(*handlers_, limitsOfCaller(oneway), text) : Outcome{refuse(), ""};
  if (!outcome.unread.empty()) {
    CLog::emit(CLogLevel::kError, "ReceiveCallback: a message of %zu bytes from %s is not read: %s",
               text.size(), sender().c_str(), outcome.unread.c_str());
  } else if (oneway && accepted && !outcome.response.empty()) {
    CLog::emit(CLogLevel::kWarning, "ReceiveCallback: dropped a one-way message: %s",
               outcome.response.c_str());
  }
  if (!oneway) {
    ReplyTarget answered = target;
    SendResponse(outcome.response, &answered);
  }
  return outcome.response.size();
}

void IJsonRpcServerHelper::ReceiveCallback(std::uint32_t, std::uint64_t messageId, const void* data,
                                           std::uint32_t length, void* replyContext,
                                           void* registrationContext) {
  try {
    const std::string_view text(static_cast<const char*>(data), data != nullptr ? length : 0);
    const std::size_t answered =
        handle(text, {static_cast<lunet::IEndpoint*>(registrationContext), messageId, replyContext});
    giveMemoryBack(std::max<std::size_t>(length, answered));
  } catch (...) {
    // There is no memory for the request or the response. The sender's time-out ends its wait.
    CLog::emit(CLogLevel::kError, "ReceiveCallback: lost a message of %u bytes", length);
    giveMemoryBack(length);
  }
}

}  // namespace jsonrpchelper
