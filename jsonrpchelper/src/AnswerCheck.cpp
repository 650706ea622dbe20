#include "AnswerCheck.h"

#include "json/CppJson.h"

namespace jsonrpchelper {
namespace {

platform::Expected<void> checkError(const Json::Value& error) {
  const Json::Value* code = CppJson::findMember(error, "code");
  const Json::Value* message = CppJson::findMember(error, "message");
  if (code == nullptr || !code->isInt()) {
    return platform::failure("its error has no code of 32 bits");
  }
  if (message == nullptr || !message->isString()) {
    return platform::failure("its error has no message");
  }
  return {};
}

/// Ids are integers or texts; 1 and 1.0 are different ids.
bool isSameId(const Json::Value* id, const Json::Value& requestId) {
  return id != nullptr && *id == requestId;
}

}  // namespace

platform::Expected<void> checkAnswer(const std::string& answer, const Json::Value& requestId) {
  Json::Value value;
  if (!CppJson::LoadJsonString(answer, value)) {
    return platform::failure("the answer is no JSON, or nested too deep");
  }
  const Json::Value* version = CppJson::findMember(value, "jsonrpc");
  if (version == nullptr || *version != Json::Value("2.0")) {
    return platform::failure("the answer is no JSON-RPC 2.0 object");
  }
  const Json::Value* result = CppJson::findMember(value, "result");
  const Json::Value* error = CppJson::findMember(value, "error");
  const Json::Value* id = CppJson::findMember(value, "id");
  if ((result == nullptr) == (error == nullptr)) {
    return platform::failure("the answer has neither or both of result and error");
  }
  const bool unread = error != nullptr && id != nullptr && id->isNull();
  if (!isSameId(id, requestId) && !unread) {
    return platform::failure("the answer belongs to another request");
  }
  return error != nullptr ? checkError(*error) : platform::Expected<void>();
}

}  // namespace jsonrpchelper
