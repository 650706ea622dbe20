#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

/// JSON text, and the tolerant reads that every record and every settings display shares. Nothing here
/// throws but for want of memory. Any thread.
namespace CppJson {

/// False for an empty or unparsable text; never throws. Deep nesting is an error, not a crash.
bool LoadJsonString(const std::string& text, Json::Value& value);
/// style 0: indented; any other: compact (one line, with a line feed behind it). False when writing throws.
bool WriteJsonToString(const Json::Value& value, std::string& text, int style);
/// Sets one key of an object (null becomes one). 1 when set; 0 for an empty key and for what is no object.
int SetInt64(Json::Value& object, const std::string& key, std::int64_t number);

/// The member, or null when it is absent or when `object` is no object. Valid as long as the object is.
const Json::Value* findMember(const Json::Value& object, std::string_view key);

/// Tolerant conversions, the one place of the rule: a value of another kind, or a number outside the range,
/// gives `fallback`; numbers are also read from text (as atoi/atoll do, clamped).
bool toBool(const Json::Value& value, bool fallback);
std::int32_t toInt(const Json::Value& value, std::int32_t fallback);
std::int64_t toInt64(const Json::Value& value, std::int64_t fallback);

/// The same for a member; an absent one gives `fallback`, and so does a value that is no object.
bool readBool(const Json::Value& object, const char* key, bool fallback);
std::int32_t readInt(const Json::Value& object, const char* key, std::int32_t fallback);
std::int64_t readInt64(const Json::Value& object, const char* key, std::int64_t fallback);
std::string readString(const Json::Value& object, const char* key, const std::string& fallback);

}  // namespace CppJson

namespace json {

/// Path bytes on the wire. JSON text is UTF-8 and its writer would replace other bytes, so that another file
/// would be meant: each byte b that is not part of valid UTF-8, and each byte of a real U+F780..U+F7FF,
/// travels as the character U+F700+b. decodePath(encodePath(p)) == p for every byte string.
std::string encodePath(std::string_view bytes);
std::string decodePath(std::string_view wire);
/// A path or other text as it came from the wire, fit for a terminal or a report: decodePath, then
/// platform::visibleText (so a byte that is not UTF-8 shows as \xNN).
std::string visiblePath(std::string_view wire);

/// The detection engines behind the `engine_mark` / `engine_type` codes.
struct Engine {
  int code;                 ///< 0 to 9
  const char* name;         ///< shown to people
  const char* what;         ///< what it is in this agent
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

/// The row of a code, which is also its index. index: 0 to kEngineCount - 1; std::out_of_range otherwise.
const Engine& engineAt(int index);
/// "其他" for a code outside the table.
std::string engineName(int code);

}  // namespace json
