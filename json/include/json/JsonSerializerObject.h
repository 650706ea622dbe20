#pragma once

#include <json/value.h>

#include <atomic>
#include <string>

/// The base of every record on the bus. A record lists its members once; the base converts the record to and
/// from JSON. A missing or mistyped member keeps its value. Not thread-safe unless the record says so. Throws
/// std::bad_alloc only.
class JsonSerializerObject {
 public:
  JsonSerializerObject() = default;
  virtual ~JsonSerializerObject() = default;
  JsonSerializerObject(const JsonSerializerObject& other) : loaded_(other.loaded()) {}
  JsonSerializerObject& operator=(const JsonSerializerObject& other) {
    loaded_ = other.loaded();
    return *this;
  }

  /// Writes every member into the object. The base has no members.
  virtual void Serialize(Json::Value& out) const;
  /// Reads every member from the object. The base has no members.
  virtual void Deserialize(const Json::Value& in);
  /// False for an empty or unparsable text, and for null.
  virtual bool FromString(const std::string& text);
  /// False for null only.
  virtual bool FromValue(const Json::Value& value);
  /// style as in CppJson::WriteJsonToString.
  virtual bool ToString(std::string& out, int style) const;
  virtual bool ToValue(Json::Value& out) const;

  /// True after a successful read or a setter.
  bool loaded() const { return loaded_; }

 protected:
  std::atomic<bool> loaded_ = false;
};
