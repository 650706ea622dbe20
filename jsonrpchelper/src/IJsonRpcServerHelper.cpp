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

constexpr int kLogWarning = 2;
constexpr int kLogError = 3;

thread_local Caller tCaller;

/// Who sent a message, for as long as it is being handled.
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

std::string refuse(const Caller& caller) {
  CLog::emit(kLogError, "ReceiveCallback: refused a message of %s (pid %d, user %u)",
             lunet::formatGuid(caller.guid).c_str(), static_cast<int>(caller.process.pid),
             static_cast<unsigned>(caller.process.uid));
  return errorResponse(Errors::ERROR_RPC_INVALID_REQUEST, "this endpoint does not serve the sender");
}

std::string tooMuch(const char* what, std::size_t size, std::size_t limit) {
  const std::string why = std::string(what) + " of " + std::to_string(size) + " is over the limit of " +
                          std::to_string(limit) + " and is not read";
  return errorResponse(Errors::ERROR_RPC_INVALID_REQUEST, why);
}

void handleOne(HandlerList& handlers, const Json::Value& request, const std::string& text,
               std::string& response) {
  const Json::Value* method = CppJson::findMember(request, "method");
  const std::string name = method != nullptr && method->isString() ? method->asString() : "";
  if (!handlers.handle(name, text, response)) {
    response = errorResponse(Errors::ERROR_RPC_METHOD_NOT_FOUND);
  }
}

/// The elements of a batch may be meant for different servers.
void handleBatch(HandlerList& handlers, const Json::Value& batch, std::string& response) {
  if (batch.size() > kMaxBatchRequests) {
    response = tooMuch("a batch", batch.size(), kMaxBatchRequests);
    return;
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
    CppJson::WriteJsonToString(responses, response, 1);
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
  Json::Value parsed;
  if (!CppJson::LoadJsonString(request, parsed)) {
    response = errorResponse(Errors::ERROR_RPC_JSON_PARSE_ERROR);
  } else if (parsed.isArray() && !parsed.empty()) {
    handleBatch(*handlers_, parsed, response);
  } else {
    handleOne(*handlers_, parsed, request, response);
  }
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

std::string IJsonRpcServerHelper::respond(const std::string& request) {
  std::string response;
  try {
    ProcessRequest(request, response);
  } catch (const JsonRpcException& e) {
    CLog::emit(kLogError, "ReceiveCallback: Caught exception:\n %s", e.what());
    response = e.GetMessage();
  } catch (const std::exception& e) {
    CLog::emit(kLogError, "ReceiveCallback: Caught exception:\n %s", e.what());
    response = errorResponse(Errors::ERROR_RPC_INTERNAL_ERROR, e.what());
  } catch (...) {
    CLog::emit(kLogError, "ReceiveCallback: Caught exception:\n %s", "of no known kind");
    response = errorResponse(Errors::ERROR_RPC_INTERNAL_ERROR);
  }
  return response;
}

std::string IJsonRpcServerHelper::answerTo(const void* data, std::uint32_t length, bool accepted) {
  if (!accepted) {
    return refuse(tCaller);
  }
  if (length > kMaxRequestBytes) {
    return tooMuch("a message in bytes", length, kMaxRequestBytes);
  }
  return respond(data != nullptr ? std::string(static_cast<const char*>(data), length) : "");
}

void IJsonRpcServerHelper::ReceiveCallback(std::uint32_t, std::uint64_t messageId, const void* data,
                                           std::uint32_t length, void* replyContext,
                                           void* registrationContext) {
  try {
    auto* const endpoint = static_cast<lunet::IEndpoint*>(registrationContext);
    const CallerScope caller(endpoint);
    const bool accepted = !accepts_ || accepts_(tCaller);
    const std::string response = answerTo(data, length, accepted);
    if (replyContext != nullptr) {
      ReplyTarget target{endpoint, messageId, replyContext};
      SendResponse(response, &target);
    } else if (accepted && !response.empty()) {
      CLog::emit(kLogWarning, "ReceiveCallback: dropped a one-way message: %s", response.c_str());
    }
  } catch (...) {
    // No memory for the request or the response: the sender learns by its time-out.
    CLog::emit(kLogError, "ReceiveCallback: lost a message of %u bytes", length);
  }
}

}  // namespace jsonrpchelper
