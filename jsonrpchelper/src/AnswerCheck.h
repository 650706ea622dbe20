#pragma once

#include <json/value.h>

#include <string>

namespace jsonrpchelper {

/// Checks an answer before the library's client reads it, because some texts end the process there. Empty
/// when the text is an answer to the request with this id, else one line with the fault. An error answer may
/// carry a null id: a server answers so when it could not read the request.
std::string reasonNoAnswer(const std::string& answer, const Json::Value& requestId);

}  // namespace jsonrpchelper
