#pragma once

#include <json/value.h>

#include <string>

namespace jsonrpchelper {

/// Whether a text is an answer to the request with this id that the library's client takes without throwing
/// anything it may not: empty for yes, else one line that says what is wrong. An error answer may carry a
/// null id: that is how a server answers what it could not read.
std::string whyNoAnswer(const std::string& answer, const Json::Value& requestId);

}  // namespace jsonrpchelper
