#pragma once

#include <json/value.h>

#include <atomic>
#include <string>

/// Base of every record that crosses the bus. A record lists its members once; the base gives it the ways in
/// and out of JSON. Reads are tolerant: a missing or mistyped member keeps its value. Not thread-safe unless
/// the record says so. No operation throws but for want of memory.
class JsonSerializerObject {
 public:
  JsonSerializerObject() = default;
  virtual ~JsonSerializerObject() = default;
  JsonSerializerObject(const JsonSerializerObject& other) : loaded_(other.loaded()) {}
  JsonSerializerObject& operator=(const JsonSerializerObject& other) {
    loaded_ = other.loaded();
    return *this;
  }

  /// Writes every member into the object. The base's own does nothing.
  virtual void Serialize(Json::Value& out) const;
  /// Reads every member from the object. The base's own does nothing.
  virtual void Deserialize(const Json::Value& in);
  /// False for an empty text, one that does not parse, and null.
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
