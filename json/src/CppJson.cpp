#include "json/CppJson.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace CppJson {
namespace {

/// Leading blanks, a sign and digits; 0 without digits; clamped to the range.
template <class T>
T numberOfText(const std::string& text) {
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  if (number < std::numeric_limits<T>::min()) {
    return std::numeric_limits<T>::min();
  }
  return number > std::numeric_limits<T>::max() ? std::numeric_limits<T>::max() : static_cast<T>(number);
}

/// Cut towards zero, as far as the result fits.
template <class T>
T numberOfReal(double real, T fallback) {
  // The upper bound is one past the largest T: exact as a double, unlike the largest T.
  constexpr double kBound = -static_cast<double>(std::numeric_limits<T>::min());
  const double whole = std::trunc(real);
  return whole >= -kBound && whole < kBound ? static_cast<T>(whole) : fallback;
}

template <class T>
T toNumber(const Json::Value& value, T fallback) {
  switch (value.type()) {
    case Json::intValue: {
      const Json::Int64 number = value.asInt64();
      const bool fits = number >= std::numeric_limits<T>::min() && number <= std::numeric_limits<T>::max();
      return fits ? static_cast<T>(number) : fallback;
    }
    case Json::uintValue: {
      const Json::UInt64 number = value.asUInt64();
      const bool fits = number <= static_cast<Json::UInt64>(std::numeric_limits<T>::max());
      return fits ? static_cast<T>(number) : fallback;
    }
    case Json::realValue:
      return numberOfReal<T>(value.asDouble(), fallback);
    case Json::stringValue:
      return numberOfText<T>(value.asString());
    default:
      return fallback;
  }
}

}  // namespace

bool LoadJsonString(const std::string& text, Json::Value& value) {
  if (text.empty()) {
    return false;
  }
  try {
    Json::Reader reader;
    return reader.parse(text, value, true);
  } catch (const std::exception&) {
    return false;
  }
}

bool WriteJsonToString(const Json::Value& value, std::string& text, int style) {
  try {
    text = style == 0 ? Json::StyledWriter().write(value) : Json::FastWriter().write(value);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

int SetInt64(Json::Value& object, const std::string& key, std::int64_t number) {
  if (key.empty() || !(object.isObject() || object.isNull())) {
    return 0;
  }
  object[key] = Json::Int64{number};
  return 1;
}

const Json::Value* findMember(const Json::Value& object, std::string_view key) {
  return object.isObject() ? object.find(key.data(), key.data() + key.size()) : nullptr;
}

bool toBool(const Json::Value& value, bool fallback) {
  return value.isBool() ? value.asBool() : fallback;
}

std::int32_t toInt(const Json::Value& value, std::int32_t fallback) {
  return toNumber<std::int32_t>(value, fallback);
}

std::int64_t toInt64(const Json::Value& value, std::int64_t fallback) {
  return toNumber<std::int64_t>(value, fallback);
}

bool readBool(const Json::Value& object, const char* key, bool fallback) {
  const Json::Value* member = findMember(object, key);
  return member != nullptr ? toBool(*member, fallback) : fallback;
}

std::int32_t readInt(const Json::Value& object, const char* key, std::int32_t fallback) {
  const Json::Value* member = findMember(object, key);
  return member != nullptr ? toInt(*member, fallback) : fallback;
}

std::int64_t readInt64(const Json::Value& object, const char* key, std::int64_t fallback) {
  const Json::Value* member = findMember(object, key);
  return member != nullptr ? toInt64(*member, fallback) : fallback;
}

std::string readString(const Json::Value& object, const char* key, const std::string& fallback) {
  const Json::Value* member = findMember(object, key);
  return member != nullptr && member->isString() ? member->asString() : fallback;
}

}  // namespace CppJson
