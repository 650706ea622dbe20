#pragma once

#include <utility>

#include "json/CppJson.h"
#include "json/Record.h"

namespace JsonReflect {

/// Each call writes one member under its key.
class MemberWriter {
 public:
  explicit MemberWriter(Json::Value& object) : object_(object) {}

  template <class T>
  void operator()(const char* key, const T& member) {
    object_[key] = toJson(member);
  }

 private:
  static Json::Value toJson(bool value) { return value; }
  static Json::Value toJson(std::int32_t value) { return Json::Int{value}; }
  static Json::Value toJson(std::int64_t value) { return Json::Int64{value}; }
  static Json::Value toJson(const std::string& value) { return value; }
  static Json::Value toJson(const JsonSerializerObject& record) {
    Json::Value object;
    record.ToValue(object);
    return object;
  }
  template <class T>
  static Json::Value toJson(const std::vector<T>& list) {
    Json::Value array(Json::arrayValue);
    for (const T& element : list) {
      array.append(toJson(element));
    }
    return array;
  }

  Json::Value& object_;
};

/// Each call reads the member of one key. A member that is missing or of another kind keeps its value.
class MemberReader {
 public:
  explicit MemberReader(const Json::Value& object) : object_(object) {}

  template <class T>
  void operator()(const char* key, T& member) {
    if (const Json::Value* value = CppJson::findMember(object_, key)) {
      fromJson(*value, member);
    }
  }

 private:
  static void fromJson(const Json::Value& value, bool& member) { member = CppJson::toBool(value, member); }
  static void fromJson(const Json::Value& value, std::int32_t& member) {
    member = CppJson::toInt(value, member);
  }
  static void fromJson(const Json::Value& value, std::int64_t& member) {
    member = CppJson::toInt64(value, member);
  }
  static void fromJson(const Json::Value& value, std::string& member) {
    if (value.isString()) {
      member = value.asString();
    }
  }
  static void fromJson(const Json::Value& value, JsonSerializerObject& record) {
    if (value.isObject()) {
      record.FromValue(value);
    }
  }
  /// An element of another kind becomes an initial value: the number of elements stays right.
  template <class T>
  static void fromJson(const Json::Value& value, std::vector<T>& list) {
    if (!value.isArray()) {
      return;
    }
    std::vector<T> read(value.size());
    for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
      fromJson(value[i], read[i]);
    }
    list = std::move(read);
  }

  const Json::Value& object_;
};

template <class R>
void Record<R>::Serialize(Json::Value& out) const {
  if (!out.isObject()) {
    out = Json::Value(Json::objectValue);
  }
  MemberWriter writer(out);
  R::members(static_cast<const R&>(*this), writer);
}

template <class R>
void Record<R>::Deserialize(const Json::Value& in) {
  MemberReader reader(in);
  R::members(static_cast<R&>(*this), reader);
}

}  // namespace JsonReflect
