#pragma once

#include <json/value.h>

#include <string>

#include "platform/Expected.h"

namespace jsonrpchelper {

/// Checks an answer to the request with this id before the library's client reads the answer, because some
/// texts end the process there. An error answer may carry a null id: a server sends one when it could not
/// read the request.
platform::Expected<void> checkAnswer(const std::string& answer, const Json::Value& requestId);

}  // namespace jsonrpchelper
