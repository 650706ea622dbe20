// Every member of every record, against the golden file of the members.
#include <gtest/gtest.h>
#include <json/writer.h>

#include <functional>
#include <random>

#include "RecordTables.h"

namespace jsontest {
namespace {

struct Case {
  const RecordTable* record;
  Member member;
};
void PrintTo(const Case& row, std::ostream* out) {
  *out << row.record->name << "." << row.member.key;
}

std::vector<Case> allMembers() {
  std::vector<Case> cases;
  for (const RecordTable& record : recordTables()) {
    for (const Member& member : record.members) {
      cases.push_back({&record, member});
    }
  }
  return cases;
}

std::string caseName(const testing::TestParamInfo<Case>& testCase) {
  return testCase.param.record->name + "_" + testCase.param.member.key;
}

Json::Value written(const JsonSerializerObject& record) {
  Json::Value out;
  EXPECT_TRUE(record.ToValue(out));
  return out;
}

/// The member after a fresh record has read an object with this one value.
Json::Value readAlone(const Case& of, const Json::Value& value) {
  const auto record = of.record->make();
  Json::Value object(Json::objectValue);
  object[of.member.key] = value;
  EXPECT_TRUE(record->FromValue(object));
  return written(*record)[of.member.key];
}

/// One value of each JSON kind.
std::vector<Json::Value> oneOfEachKind() {
  Json::Value object(Json::objectValue);
  object["x"] = 1;
  Json::Value array(Json::arrayValue);
  array.append("x");
  return {Json::Value(), Json::Value(true), Json::Value(7), Json::Value(7.5), Json::Value("7x"), object,
          array};
}

bool isAny(Kind) {
  return true;
}
bool isNumber(Kind kind) {
  return kind == Kind::kInt || kind == Kind::kInt64;
}
bool isList(Kind kind) {
  return kind == Kind::kStringList || kind == Kind::kProcRisks || kind == Kind::kFileRisks;
}

bool reads(Kind kind, const Json::Value& value) {
  switch (kind) {
    case Kind::kBool:
      return value.isBool();
    case Kind::kInt:
    case Kind::kInt64:
      return value.isNumeric() || value.isString();
    case Kind::kString:
      return value.isString();
    case Kind::kStringList:
    case Kind::kProcRisks:
    case Kind::kFileRisks:
      return value.isArray();
    case Kind::kProcess:
      return value.isObject();
  }
  return false;
}

class EveryMember : public testing::TestWithParam<Case> {};

TEST_P(EveryMember, IsWrittenReadAndStartsAsItsKindSays) {
  EXPECT_EQ(written(*GetParam().record->make())[GetParam().member.key], initialOf(GetParam().member.kind));
  const Json::Value sample = sampleOf(GetParam().member.kind, 17);
  EXPECT_EQ(readAlone(GetParam(), sample), sample);
}

INSTANTIATE_TEST_SUITE_P(Records, EveryMember, testing::ValuesIn(allMembers()), caseName);

class EveryMemberOf : public testing::TestWithParam<RecordTable> {
 protected:
  void forEach(bool (*wanted)(Kind), const std::function<void(const Case&)>& check) {
    for (const Member& member : GetParam().members) {
      if (wanted(member.kind)) {
        SCOPED_TRACE(member.key);
        check({&GetParam(), member});
      }
    }
  }
};

TEST_P(EveryMemberOf, KeepsItsValueWhenTheValueIsOfAnotherKind) {
  const Json::Value sample = sampleRecord(GetParam(), 5);
  forEach(isAny, [&](const Case& of) {
    for (const Json::Value& odd : oneOfEachKind()) {
      if (reads(of.member.kind, odd)) {
        continue;
      }
      const auto record = GetParam().make();
      ASSERT_TRUE(record->FromValue(sample));
      Json::Value object(Json::objectValue);
      object[of.member.key] = odd;
      EXPECT_TRUE(record->FromValue(object));
      EXPECT_EQ(written(*record), sample) << odd;
    }
  });
}

TEST_P(EveryMemberOf, ThatIsANumberIsReadFromText) {
  forEach(isNumber, [](const Case& of) {
    EXPECT_EQ(readAlone(of, "12"), 12);
    EXPECT_EQ(readAlone(of, " \t-34x"), -34);
    EXPECT_EQ(readAlone(of, "abc"), 0);
    EXPECT_EQ(readAlone(of, ""), 0);
  });
}

TEST_P(EveryMemberOf, ThatIsANumberKeepsItsValueForANumberOutsideItsRange) {
  forEach(isNumber, [](const Case& of) {
    const Json::Int64 large = 3221225472;
    EXPECT_EQ(readAlone(of, large), of.member.kind == Kind::kInt64 ? Json::Value(large) : Json::Value(0));
    EXPECT_EQ(readAlone(of, Json::UInt64{1} << 63), 0);
    EXPECT_EQ(readAlone(of, 1e300), 0);
  });
}

TEST_P(EveryMemberOf, ThatIsAListKeepsACountOfItsElementsWhateverTheirKind) {
  Json::Value odd(Json::arrayValue);
  for (const Json::Value& element : oneOfEachKind()) {
    odd.append(element);
  }
  forEach(isList, [&](const Case& of) { EXPECT_EQ(readAlone(of, odd).size(), odd.size()); });
}

std::string recordName(const testing::TestParamInfo<RecordTable>& testCase) {
  return testCase.param.name;
}

INSTANTIATE_TEST_SUITE_P(Records, EveryMemberOf, testing::ValuesIn(recordTables()), recordName);

class EveryRecord : public testing::TestWithParam<RecordTable> {};

TEST_P(EveryRecord, WritesItsMembersAndNoOthers) {
  const Json::Value object = written(*GetParam().make());
  EXPECT_EQ(object.size(), GetParam().members.size());
  for (const Member& member : GetParam().members) {
    EXPECT_TRUE(object.isMember(member.key)) << member.key;
  }
}

TEST_P(EveryRecord, RoundTripsRandomValuesThroughText) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  for (unsigned round = 0; round < 50; ++round) {
    const Json::Value sample = sampleRecord(GetParam(), seed + round);
    const auto first = GetParam().make();
    ASSERT_TRUE(first->FromValue(sample));
    for (const int style : {0, 1}) {
      std::string text;
      ASSERT_TRUE(first->ToString(text, style));
      const auto second = GetParam().make();
      ASSERT_TRUE(second->FromString(text));
      EXPECT_EQ(written(*second), sample);
    }
  }
}

TEST_P(EveryRecord, SucceedsOnAnyValueButNull) {
  for (const Json::Value& value : oneOfEachKind()) {
    const auto record = GetParam().make();
    EXPECT_EQ(record->FromValue(value), !value.isNull()) << value;
    EXPECT_EQ(written(*record), written(*GetParam().make())) << value;
  }
}

INSTANTIATE_TEST_SUITE_P(Records, EveryRecord, testing::ValuesIn(recordTables()),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

}  // namespace
}  // namespace jsontest
