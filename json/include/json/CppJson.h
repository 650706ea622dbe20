#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

/// JSON text, and the tolerant reads of all records and settings. Throws std::bad_alloc only. Any thread.
/// Below: path bytes on the wire (PathBytes.cpp) and the table of engines (Engines.cpp).
namespace CppJson {

/// False for an empty or unparsable text. Deep nesting is an error, not a crash.
bool LoadJsonString(const std::string& text, Json::Value& value);
/// style 0: indented; another style: one line with a line feed at its end. False when writing throws.
bool WriteJsonToString(const Json::Value& value, std::string& text, int style);
/// Sets one key of an object; null becomes an object. 1 when set; 0 for an empty key or another kind of
/// value.
int SetInt64(Json::Value& object, const std::string& key, std::int64_t number);

/// The member; null when the member is absent or `object` is no object. Valid as long as the object.
const Json::Value* findMember(const Json::Value& object, std::string_view key);

/// Tolerant conversions. A value of another kind, or a number outside the range, gives `fallback`. Numbers
/// are also read from text, as atoi and atoll do, clamped.
bool toBool(const Json::Value& value, bool fallback);
std::int32_t toInt(const Json::Value& value, std::int32_t fallback);
std::int64_t toInt64(const Json::Value& value, std::int64_t fallback);

/// The same for a member. An absent member, and a value that is no object, give `fallback`.
bool readBool(const Json::Value& object, const char* key, bool fallback);
std::int32_t readInt(const Json::Value& object, const char* key, std::int32_t fallback);
std::int64_t readInt64(const Json::Value& object, const char* key, std::int64_t fallback);
std::string readString(const Json::Value& object, const char* key, const std::string& fallback);

}  // namespace CppJson

namespace json {

/// Path bytes on the wire. JSON text is UTF-8; its writer would replace other bytes, and the path would name
/// another file. So each byte b outside valid UTF-8, and each byte of a real U+F780..U+F7FF, is sent as the
/// character U+F700+b. decodePath(encodePath(p)) == p for every byte string.
std::string encodePath(std::string_view bytes);
std::string decodePath(std::string_view wire);
/// A text from the wire, fit for a terminal or a report: decodePath, then platform::visibleText.
std::string visiblePath(std::string_view wire);

/// The detection engines behind the `engine_mark` / `engine_type` codes.
struct Engine {
  int code;                 ///< 0 to 9
  const char* name;         ///< for users
  const char* what;         ///< its part in this agent
  const char* scanKey;      ///< its switch in the "MultiEngines" settings, on-demand scans; may be null
  const char* realTimeKey;  ///< the same for real-time protection; may be null
};

inline constexpr int kEngineHc = 0;
inline constexpr int kEngineUmb = 1;
inline constexpr int kEngineIxo = 2;
inline constexpr int kEngineRda = 3;
inline constexpr int kEngineRdaOld = 4;
inline constexpr int kEngineCloud = 5;
inline constexpr int kEngineDocument = 6;
inline constexpr int kEngineBytecode = 7;
inline constexpr int kEngineUnwanted = 8;
inline constexpr int kEngineRejectList = 9;
inline constexpr int kEngineCount = 10;

/// The row of a code: 0 to kEngineCount - 1; else throws std::out_of_range.
const Engine& engineAt(int index);
/// "其他" for a code outside the table.
std::string engineName(int code);

}  // namespace json
