#include <gtest/gtest.h>

#include <thread>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/ScanRecords.h"

namespace {

using JsonReflect::DeIsolateParams;
using JsonReflect::MemoryRiskInfo;
using JsonReflect::ScanParams;
using JsonReflect::VirusInfo;

TEST(Records, ANumericMemberSentAsTextReadsAsItsNumber) {
  VirusInfo risk;
  ASSERT_TRUE(risk.FromString(R"({"filesize_src":"12","find_time":"1700000000000"})"));
  EXPECT_EQ(risk.filesize_src, 12);
  EXPECT_EQ(risk.find_time, 1700000000000);
}

TEST(Records, ANumericMemberSentAsTextWithoutDigitsReadsAsZero) {
  VirusInfo risk;
  risk.filesize_src = 5;
  ASSERT_TRUE(risk.FromString(R"({"filesize_src":"abc"})"));
  EXPECT_EQ(risk.filesize_src, 0);
}

TEST(Records, ABooleanMemberSentAsTextKeepsItsValue) {
  DeIsolateParams params;
  ASSERT_TRUE(params.FromString(R"({"is_all":"true"})"));
  EXPECT_FALSE(params.is_all);
}

TEST(Records, ABooleanMemberSentAsANumberKeepsItsValue) {
  DeIsolateParams params;
  ASSERT_TRUE(params.FromString(R"({"is_all":1})"));
  EXPECT_FALSE(params.is_all);
}

TEST(Records, AnEmptyItemsListIsSentAsAnEmptyArray) {
  std::string text;
  ASSERT_TRUE(ScanParams().ToString(text, 1));
  EXPECT_NE(text.find(R"("items":[])"), std::string::npos) << text;
}

TEST(Records, FromValueOfAnEmptyObjectSucceedsAndKeepsInitialValues) {
  VirusInfo risk;
  EXPECT_TRUE(risk.FromValue(Json::Value(Json::objectValue)));
  EXPECT_EQ(risk.filesize_src, 0);
  EXPECT_EQ(risk.risk_name, "");
}

TEST(Records, ACopyIsLoadedWhenItsSourceIs) {
  VirusInfo loaded;
  ASSERT_TRUE(loaded.FromValue(Json::Value(Json::objectValue)));
  EXPECT_TRUE(VirusInfo(loaded).loaded());
  VirusInfo assigned;
  assigned = loaded;
  EXPECT_TRUE(assigned.loaded());
  assigned = VirusInfo();
  EXPECT_FALSE(assigned.loaded());
}

TEST(Records, SerializeKeepsWhatElseTheObjectHas) {
  Json::Value object;
  object["other"] = 1;
  VirusInfo().Serialize(object);
  EXPECT_EQ(object["other"], 1);
  EXPECT_TRUE(object.isMember("risk_name"));
}

TEST(Records, FromValueOfNullFails) {
  VirusInfo risk;
  EXPECT_FALSE(risk.FromValue(Json::Value()));
  EXPECT_FALSE(risk.loaded());
}

TEST(Records, FromStringOfAnEmptyTextFails) {
  VirusInfo risk;
  EXPECT_FALSE(risk.FromString(""));
  EXPECT_FALSE(risk.loaded());
}

TEST(Records, FromStringOfNullOrOfABrokenTextFails) {
  for (const char* text : {"null", "{", "{\"a\":}", " "}) {
    VirusInfo risk;
    EXPECT_FALSE(risk.FromString(text)) << text;
    EXPECT_FALSE(risk.loaded()) << text;
  }
}

TEST(Records, AreLoadedAfterASuccessfulRead) {
  VirusInfo fromText;
  EXPECT_FALSE(fromText.loaded());
  EXPECT_TRUE(fromText.FromString("{}"));
  EXPECT_TRUE(fromText.loaded());
  EXPECT_TRUE(VirusInfo(fromText).loaded()) << "a copy is what the original is";
}

TEST(Records, OfTheBaseWriteAnEmptyObjectAndReadAnything) {
  JsonSerializerObject base;
  Json::Value out;
  EXPECT_TRUE(base.ToValue(out));
  EXPECT_EQ(out, Json::Value(Json::objectValue));
  EXPECT_TRUE(base.FromString("[1]"));
}

TEST(Records, UnknownKeysAreNotLookedAt) {
  VirusInfo risk;
  EXPECT_TRUE(risk.FromString(R"({"nobody":1,"risk_name":"n"})"));
  EXPECT_EQ(risk.risk_name, "n");
}

TEST(Records, SerializeReplacesWhatIsNoObject) {
  Json::Value out(Json::arrayValue);
  VirusInfo().Serialize(out);
  EXPECT_TRUE(out.isObject());
}

TEST(Records, AMissingOrObjectMemberKeepsTheList) {
  DeIsolateParams params;
  params.items = {"a", "b"};
  ASSERT_TRUE(params.FromString(R"({"items":{"0":"c"}})"));
  ASSERT_TRUE(params.FromString(R"({"items":null})"));
  ASSERT_TRUE(params.FromString("{}"));
  EXPECT_EQ(params.items, (std::vector<std::string>{"a", "b"}));
  ASSERT_TRUE(params.FromString(R"({"items":[]})"));
  EXPECT_TRUE(params.items.empty());
}

TEST(Records, ADetectionInAFileLargerThanItsSizeMemberIsNotLost) {
  VirusInfo risk;
  ASSERT_TRUE(risk.FromString(R"({"filesize_src":3221225472,"risk_name":"found","item":"/big"})"));
  EXPECT_EQ(risk.filesize_src, 0);
  EXPECT_EQ(risk.risk_name, "found");
  EXPECT_EQ(risk.item, "/big");
}

TEST(Records, NestedRecordsAreReadByTheirOwnLists) {
  MemoryRiskInfo risk;
  ASSERT_TRUE(risk.FromString(R"({"process_info":{"exec_file_name":"/bin/x","pid":"4",
      "proc_risks":[{"risk_name":"p"},5],"file_risks":[{"item":"/f"}]}})"));
  EXPECT_EQ(risk.process_info.exec_file_name, "/bin/x");
  EXPECT_EQ(risk.process_info.pid, 4);
  ASSERT_EQ(risk.process_info.proc_risks.size(), 2u);
  EXPECT_EQ(risk.process_info.proc_risks[0].risk_name, "p");
  EXPECT_EQ(risk.process_info.proc_risks[1].risk_name, "");
  ASSERT_EQ(risk.process_info.file_risks.size(), 1u);
  EXPECT_EQ(risk.process_info.file_risks[0].item, "/f");
}

using ScanParamsSetter = void (*)(ScanParams&);

TEST(ScanParams, EverySetterMarksTheRecordLoadedAndSetsItsMember) {
  const std::vector<std::tuple<const char*, ScanParamsSetter, Json::Value>> setters = {
      {"follow_link", [](ScanParams& p) { p.set_follow_link(true); }, true},
      {"uid", [](ScanParams& p) { p.set_uid(1000); }, 1000},
      {"custom_stop", [](ScanParams& p) { p.set_custom_stop(true); }, true},
      {"force_scan", [](ScanParams& p) { p.set_force_scan(true); }, true},
      {"handle_action", [](ScanParams& p) { p.set_handle_action(-1); }, -1},
      {"fix_method", [](ScanParams& p) { p.set_fix_method(2); }, 2},
      {"scan_type", [](ScanParams& p) { p.set_scan_type(5); }, 5}};
  for (const auto& [key, set, value] : setters) {
    ScanParams params;
    EXPECT_FALSE(params.loaded());
    set(params);
    EXPECT_TRUE(params.loaded()) << key;
    Json::Value out;
    ASSERT_TRUE(params.ToValue(out));
    EXPECT_EQ(out[key], value) << key;
  }
}

TEST(ScanParams, GettersGiveWhatWasRead) {
  ScanParams params;
  ASSERT_TRUE(params.FromString(R"({"follow_link":true,"max_scan_sec":1,"uid":2,"custom_stop":true,
      "items":["/a"],"force_scan":true,"handle_action":3,"fix_method":4,"handle_filter_types":["f"],
      "parallelism":5,"proc_fix_method":6,"expire_time":7,"scan_type":8})"));
  EXPECT_TRUE(params.follow_link() && params.custom_stop() && params.force_scan());
  EXPECT_EQ(params.max_scan_sec(), 1);
  EXPECT_EQ(params.uid(), 2);
  EXPECT_EQ(params.handle_action(), 3);
  EXPECT_EQ(params.fix_method(), 4);
  EXPECT_EQ(params.parallelism(), 5);
  EXPECT_EQ(params.proc_fix_method(), 6);
  EXPECT_EQ(params.expire_time(), 7);
  EXPECT_EQ(params.scan_type(), 8);
  EXPECT_EQ(params.handle_filter_types(), std::vector<std::string>{"f"});
  EXPECT_EQ(std::as_const(params).items(), std::vector<std::string>{"/a"});
}

TEST(ScanParams, AreAppendedToByTheirItemsAccessor) {
  ScanParams params;
  params.items().push_back("/one");
  params.items().push_back("/two");
  Json::Value out;
  ASSERT_TRUE(params.ToValue(out));
  EXPECT_EQ(out["items"][0], "/one");
  EXPECT_EQ(out["items"][1], "/two");
}

TEST(ScanParams, MayBeReadWrittenAndSetByThreadsAtOnce) {
  ScanParams params;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&params, i] {
      for (int round = 0; round < 500; ++round) {
        Json::Value out;
        params.set_uid(i);
        params.ToValue(out);
        out["scan_type"] = out["uid"];
        params.FromValue(out);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GE(params.scan_type(), 0);
  EXPECT_LT(params.scan_type(), 3);
  EXPECT_TRUE(params.loaded());
}

TEST(RecordsInRecords, AreReadFromAnObjectOnly) {
  for (const char* text :
       {R"({"process_info":5})", R"({"process_info":"x"})", R"({"process_info":[]})", "{}"}) {
    JsonReflect::MemoryRiskInfo risk;
    ASSERT_TRUE(risk.FromString(text));
    EXPECT_FALSE(risk.process_info.loaded()) << text;
  }
  JsonReflect::MemoryRiskInfo risk;
  ASSERT_TRUE(risk.FromString(R"({"process_info":{}})"));
  EXPECT_TRUE(risk.process_info.loaded());
}

}  // namespace
