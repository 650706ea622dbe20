#pragma once

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/// JSON text as the tests read and write it, without the product's own JSON code.
namespace testsupport {

/// Nothing for a text that is no JSON.
inline std::optional<Json::Value> tryJson(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
    return std::nullopt;
  }
  return value;
}

/// std::invalid_argument, which fails a test, for a text that is no JSON.
inline Json::Value jsonOf(const std::string& text) {
  std::optional<Json::Value> value = tryJson(text);
  if (!value) {
    throw std::invalid_argument("no JSON: " + text);
  }
  return std::move(*value);
}

/// The value as text on one line, without a line end.
inline std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

/// The values of a text with one value on each line. A last line without its end is not read: its writer may
/// not have finished the line.
inline std::vector<Json::Value> jsonLines(const std::string& text) {
  std::vector<Json::Value> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    values.push_back(jsonOf(line));
  }
  return values;
}

}  // namespace testsupport
