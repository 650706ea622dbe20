#include "json/JsonSerializerObject.h"

#include "json/CppJson.h"

void JsonSerializerObject::Serialize(Json::Value&) const {}

void JsonSerializerObject::Deserialize(const Json::Value&) {}

bool JsonSerializerObject::FromString(const std::string& text) {
  Json::Value value;
  return CppJson::LoadJsonString(text, value) && FromValue(value);
}

bool JsonSerializerObject::FromValue(const Json::Value& value) {
  if (value.isNull()) {
    return false;
  }
  Deserialize(value);
  loaded_ = true;
  return true;
}

bool JsonSerializerObject::ToString(std::string& out, int style) const {
  Json::Value object;
  return ToValue(object) && CppJson::WriteJsonToString(object, out, style);
}

bool JsonSerializerObject::ToValue(Json::Value& out) const {
  Json::Value object(Json::objectValue);
  Serialize(object);
  out.swap(object);
  return true;
}
