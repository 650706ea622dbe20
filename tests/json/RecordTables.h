#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "json/JsonSerializerObject.h"

namespace jsontest {

enum class Kind { kBool, kInt, kInt64, kString, kStringList, kProcRisks, kFileRisks, kProcess };

struct Member {
  std::string key;
  Kind kind;
};

/// The members of a record on the wire, as the golden file lists the members.
struct RecordTable {
  using Make = std::unique_ptr<JsonSerializerObject> (*)();
  std::string name;
  Make make;
  std::vector<Member> members;
};

const std::vector<RecordTable>& recordTables();
const RecordTable& recordTable(const std::string& name);
inline void PrintTo(const RecordTable& table, std::ostream* out) {
  *out << table.name;
}

/// A value of the kind that differs from the initial value. Each `seed` gives another value.
Json::Value sampleOf(Kind kind, unsigned seed);
/// An object with a sample for every member.
Json::Value sampleRecord(const RecordTable& table, unsigned seed);
/// The value of a member of this kind in a new record.
Json::Value initialOf(Kind kind);

}  // namespace jsontest
