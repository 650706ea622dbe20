#include "jsonrpchelper/ConsoleNotifier.h"

#include <string>
#include <utility>

#include "json/CppJson.h"

namespace jsonrpchelper {

std::uint32_t ConsoleNotifier::send(const char* name, Json::Value parameters) {
  Json::Value message;
  message["jsonrpc"] = "2.0";
  message["method"] = name;
  message["params"] = std::move(parameters);
  std::string text;
  if (!CppJson::WriteJsonToString(message, text, 1)) {
    return lunet::kErrArgument;
  }
  if (text.size() > lunet::kMaxMessageBytes) {
    return lunet::kErrTooLarge;
  }
  return endpoint_.SendToProcess(target_, process_, lunet::kOnewayChannel, text.data(),
                                 static_cast<std::uint32_t>(text.size()));
}

}  // namespace jsonrpchelper
