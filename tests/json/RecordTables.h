#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "json/JsonSerializerObject.h"

namespace jsontest {

enum class Kind { kBool, kInt, kInt64, kString, kStringList, kProcRisks, kFileRisks, kProcess };

struct Member {
  const char* key;
  Kind kind;
};

/// What each record looks like on the wire, written out by hand once more.
struct RecordTable {
  const char* name;
  std::unique_ptr<JsonSerializerObject> (*make)();
  std::vector<Member> members;
};

const std::vector<RecordTable>& recordTables();
const RecordTable& recordTable(const std::string& name);
inline void PrintTo(const RecordTable& table, std::ostream* out) {
  *out << table.name;
}

/// A value of the kind that differs from the initial one; `seed` varies it.
Json::Value sampleOf(Kind kind, unsigned seed);
/// An object with a sample for every member.
Json::Value sampleRecord(const RecordTable& table, unsigned seed);
/// What a fresh record writes for the member.
Json::Value initialOf(Kind kind);

}  // namespace jsontest
