#include "jsonrpchelper/IJsonRpcClientHelper.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "AnswerCheck.h"
#include "json/CppJson.h"

namespace jsonrpchelper {
namespace {

using jsonrpc::Errors;
using jsonrpc::JsonRpcException;

[[noreturn]] void failSend(const char* what, std::uint32_t error) {
  // Users and scripts know the error numbers as signed ones.
  throw JsonRpcException(Errors::ERROR_CLIENT_CONNECTOR, std::string("lunet ") + what + " error ret[" +
                                                             std::to_string(static_cast<int>(error)) + "]");
}

/// The length of the message, cut to 32 bits. The bus refuses a message of the largest length.
std::uint32_t lengthOf(const std::string& message) {
  return static_cast<std::uint32_t>(
      std::min<std::size_t>(message.size(), std::numeric_limits<std::uint32_t>::max()));
}

/// Runs a step; any exception of the step becomes a JsonRpcException.
template <class Step>
void guarded(int code, Step step) {
  try {
    step();
  } catch (const JsonRpcException&) {
    throw;
  } catch (const std::exception& e) {
    throw JsonRpcException(code, e.what());
  }
}

}  // namespace

IJsonRpcClientHelper::IJsonRpcClientHelper(lunet::IEndpoint* endpoint, std::string target,
                                           std::uint32_t requestChannel, std::uint32_t onewayChannel,
                                           std::uint32_t timeoutMs)
    : jsonrpc::Client(static_cast<jsonrpc::IClientConnector&>(*this), jsonrpc::JSONRPC_CLIENT_V2),
      endpoint_(endpoint),
      target_(std::move(target)),
      requestChannel_(requestChannel),
      onewayChannel_(onewayChannel),
      timeoutMs_(timeoutMs) {}

void IJsonRpcClientHelper::SendRPCMessage(const std::string& message, std::string& result) {
  guarded(Errors::ERROR_CLIENT_CONNECTOR, [&] {
    Json::Value request;
    if (!CppJson::LoadJsonString(message, request) || !request.isObject()) {
      throw JsonRpcException(Errors::ERROR_CLIENT_CONNECTOR, "the message is no single request");
    }
    const Json::Value* id = CppJson::findMember(request, "id");
    if (id == nullptr) {
      SendRPCMessage(message);
    } else if (endpoint_ == nullptr) {
      result.clear();
    } else {
      exchange(message, *id, result);
    }
  });
}

void IJsonRpcClientHelper::exchange(const std::string& message, const Json::Value& id, std::string& result) {
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t replyLength = 0;
  const std::uint32_t sent =
      endpoint_->SyncSend(lunet::parseGuid(target_.c_str()), requestChannel_, message.data(),
                          lengthOf(message), &error, &reply, &replyLength, timeoutMs_);
  const auto giveBack = [this](char* buffer) { endpoint_->FreeBuffer(buffer); };
  const std::unique_ptr<char, decltype(giveBack)> owner(reply, giveBack);
  lastBusError_ = sent != lunet::kOk && error != lunet::kOk ? error : sent;
  if (sent != lunet::kOk) {
    failSend("SyncSend", lastBusError_);
  }
  if (reply == nullptr) {
    return;
  }
  std::string answer(reply, replyLength);
  if (const auto checked = checkAnswer(answer, id); !checked) {
    throw JsonRpcException(Errors::ERROR_CLIENT_INVALID_RESPONSE, checked.error());
  }
  result = std::move(answer);
}

void IJsonRpcClientHelper::SendRPCMessage(const std::string& message) {
  if (endpoint_ == nullptr) {
    throw JsonRpcException(Errors::ERROR_CLIENT_CONNECTOR, "lunet OnewaySend error LunetEndPoint invaild");
  }
  lastBusError_ = endpoint_->OnewaySend(lunet::parseGuid(target_.c_str()), onewayChannel_, message.data(),
                                        lengthOf(message));
  if (lastBusError_ != lunet::kOk) {
    failSend("OnewaySend", lastBusError_);
  }
}

}  // namespace jsonrpchelper
