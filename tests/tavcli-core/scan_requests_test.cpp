#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "AgentCommand.h"
#include "command/scan/ScanRunState.h"
#include "command/scan/TavCliCmdScanExec.h"
#include "command/scan/adaptor/CliScanCommunication.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "jsonrpchelper/Holders.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class ScanRequests : public AgentCommand {
 protected:
  ScanRequests() {
    CLogDebug::Instance()->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(LogLevel::kError)));
    agent_.answer("startScanTask", jsonOf(R"({"status":true})"));
    agent_.answer("ctlBus", true);
  }

  template <class Request>
  int printing(Request request) {
    int result = 0;
    out_ = testsupport::outputOf([&] { result = request(); });
    return result;
  }
  Json::Value onlyParams(const std::string& method) const {
    const auto calls = agent_.calls(method);
    EXPECT_EQ(calls.size(), 1U);
    return calls.empty() ? Json::Value() : calls.front().params;
  }

  std::string out_;
};

// The handling in the agent's settings.

struct Setting {
  const char* name;
  const char* document;
  int result;
  int handle;  ///< 77: untouched
  const char* printed;
};

class ScanConfig : public ScanRequests, public testing::WithParamInterface<Setting> {};

TEST_P(ScanConfig, IsReadAsItsRowSays) {
  agent_.answer("getAVConfig", GetParam().document);
  int handle = 77;
  EXPECT_EQ(printing([&] { return CliScanCommunication::get_scanconfig(handle); }), GetParam().result);
  EXPECT_EQ(handle, GetParam().handle);
  EXPECT_EQ(out_, GetParam().printed);
  EXPECT_EQ(onlyParams("getAVConfig"), jsonOf(R"({"config_type":0,"request_source":1})"));
}

const Setting kSettings[] = {
    {"FixMethod0IsAutomatic", R"({"Common":{"FixMethod":0}})", 1, 2, "FixMethod is 0, handle is 2\n"},
    {"FixMethod1IsReportOnly", R"({"Common":{"FixMethod":1}})", 1, 1, "FixMethod is 1, handle is 1\n"},
    {"FixMethod2IsReportOnly", R"({"Common":{"FixMethod":2}})", 1, 1, "FixMethod is 2, handle is 1\n"},
    {"FixMethod3IsAutomatic", R"({"Common":{"FixMethod":3}})", 1, 2, "FixMethod is 3, handle is 2\n"},
    {"AMissingFixMethodCountsAs0", R"({"Common":{}})", 1, 2, "FixMethod is 0, handle is 2\n"},
    {"FixMethodAsTextIsRead", R"({"Common":{"FixMethod":"1"}})", 1, 1, "FixMethod is 1, handle is 1\n"},
    {"WithoutCommonTheHandleStays", R"({"Other":{}})", 1, 77, ""},
    {"WithCommonOfAnotherKindTheHandleStays", R"({"Common":[1]})", 1, 77, ""},
    {"ADocumentThatIsAListKeepsTheHandle", R"([1])", 1, 77, ""},
    {"ADocumentThatDoesNotParseGives0", R"({"Common")", 0, 77, ""},
    {"AnEmptyDocumentGives0", "", 0, 77, ""},
};
INSTANTIATE_TEST_SUITE_P(ScanRequests, ScanConfig, testing::ValuesIn(kSettings),
                         [](const auto& row) { return row.param.name; });

// The start.

using json::ScanMode;
using enum TavCliCmdScanExec::Mode;
using enum TavCliCmdScanExec::Special;

struct Type {
  const char* name;
  unsigned mode;
  unsigned special;
  int scanType;
};

class ScanType : public ScanRequests, public testing::WithParamInterface<Type> {};

TEST_P(ScanType, FollowsModeAndStrongScan) {
  EXPECT_EQ(CliScanCommunication::action_startscan(json::Handling::kAutomatic, GetParam().mode, {},
                                                   GetParam().special),
            1);
  EXPECT_EQ(onlyParams("startScanTask")["params"]["scan_type"].asInt(), GetParam().scanType);
}

const Type kTypes[] = {
    {"Fast", kFast, kStrongOff, json::toScanType(ScanMode::kFast, false)},
    {"Full", kFull, kStrongOff, json::toScanType(ScanMode::kFull, false)},
    {"Custom", kCustom, kStrongOff, json::toScanType(ScanMode::kCustom, false)},
    {"OtherMode", 3, kStrongOff, json::toScanType(ScanMode::kFast, false)},
    {"FastStrong", kFast, kStrongOn, json::toScanType(ScanMode::kFast, true)},
    {"FullStrong", kFull, kStrongOn, json::toScanType(ScanMode::kFull, true)},
    {"CustomStrong", kCustom, kStrongOn, json::toScanType(ScanMode::kCustom, true)},
    {"OtherModeStrong", 3, kStrongOn, json::toScanType(ScanMode::kFast, false)},
    {"AnyOtherSwitchIsStrong", kFast, 2, json::toScanType(ScanMode::kFast, true)},
};
INSTANTIATE_TEST_SUITE_P(ScanRequests, ScanType, testing::ValuesIn(kTypes),
                         [](const auto& row) { return row.param.name; });

TEST_F(ScanRequests, AStartSendsEveryMemberAsItsTableSays) {
  EXPECT_EQ(
      CliScanCommunication::action_startscan(json::Handling::kReportOnly, kCustom, {"/a", "/b"}, kStrongOff),
      1);
  Json::Value expected = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":"","params":{
      "follow_link":false,"max_scan_sec":0,"custom_stop":true,"items":["/a","/b"],"force_scan":false,
      "handle_action":-1,"fix_method":2,"handle_filter_types":[],"parallelism":0,"proc_fix_method":0,
      "expire_time":0,"scan_type":2}})");
  expected["params"]["uid"] = static_cast<int>(getuid());
  EXPECT_EQ(onlyParams("startScanTask"), expected);
}

TEST_F(ScanRequests, AStartWithHandle0HandlesAutomatically) {
  CliScanCommunication::action_startscan(json::Handling::kAutomatic, kFast, {}, kStrongOff);
  EXPECT_EQ(onlyParams("startScanTask")["params"]["fix_method"].asInt(),
            json::toFixMethod(json::Handling::kAutomatic));
}

TEST_F(ScanRequests, AStartThatIsNotCustomSendsNoPaths) {
  CliScanCommunication::action_startscan(json::Handling::kAutomatic, kFull, {"/a"}, kStrongOff);
  EXPECT_EQ(onlyParams("startScanTask")["params"]["items"], Json::Value(Json::arrayValue));
}

TEST_F(ScanRequests, ACustomStartWithoutPathSendsAnEmptyList) {
  CliScanCommunication::action_startscan(json::Handling::kAutomatic, kCustom, {}, kStrongOn);
  EXPECT_EQ(onlyParams("startScanTask")["params"]["items"], Json::Value(Json::arrayValue));
  EXPECT_EQ(onlyParams("startScanTask")["params"]["scan_type"].asInt(),
            json::toScanType(ScanMode::kCustom, true));
}

TEST_F(ScanRequests, APathThatIsNotUtf8TravelsUnchanged) {
  CliScanCommunication::action_startscan(json::Handling::kAutomatic, kCustom, {"/d/\xff\xc3"}, kStrongOff);
  EXPECT_EQ(json::decodePath(onlyParams("startScanTask")["params"]["items"][0].asString()), "/d/\xff\xc3");
}

struct Answer {
  const char* name;
  const char* answer;
  int result;
};
class StartAnswer : public ScanRequests, public testing::WithParamInterface<Answer> {};
TEST_P(StartAnswer, DecidesTheResultAndPrintsNothing) {
  agent_.answer("startScanTask", jsonOf(GetParam().answer));
  EXPECT_EQ(printing([] {
              return CliScanCommunication::action_startscan(json::Handling::kAutomatic, kFast, {},
                                                            kStrongOff);
            }),
            GetParam().result);
  EXPECT_EQ(out_, "");
}
const Answer kAnswers[] = {{"StatusTrueGives1", R"({"status":true})", 1},
                           {"StatusFalseGives0", R"({"status":false})", 0},
                           {"AMissingStatusGives0", "{}", 0},
                           {"AStatusThatIsNoBooleanGives0", R"({"status":"true"})", 0},
                           {"AnAnswerOfTheWrongKindGives0", "[true]", 0}};
INSTANTIATE_TEST_SUITE_P(ScanRequests, StartAnswer, testing::ValuesIn(kAnswers),
                         [](const auto& row) { return row.param.name; });

// The running tasks.

struct Tasks {
  const char* name;
  const char* list;
  int result;
  const char* printed;
};
class RunningTasks : public ScanRequests, public testing::WithParamInterface<Tasks> {};
TEST_P(RunningTasks, AreListedAsTheirRowSays) {
  agent_.answer("getBusList", jsonOf(GetParam().list));
  EXPECT_EQ(printing([] { return CliScanCommunication::action_showscan(); }), GetParam().result);
  EXPECT_EQ(out_, GetParam().printed);
}
const Tasks kTasks[] = {
    {"AnEmptyListPrintsNothing", "[]", 1, ""},
    {"ScansAreListedInOrder", R"([{"token_id":"b","type":0},{"token_id":"a","type":0}])", 1,
     "Task: b is running\nTask: a is running\n"},
    {"OtherTypesAreNotListed", R"([{"token_id":"a","type":1},{"token_id":"b","type":-1}])", 1, ""},
    {"WithoutATypeATaskIsNotListed", R"([{"token_id":"a"}])", 1, ""},
    {"WithoutATokenATaskIsNotListed", R"([{"type":0},{"token_id":"","type":0},{"token_id":7,"type":0}])", 1,
     ""},
    {"WhatIsNoObjectIsPassedOver", R"([1,null,"x",[],{"token_id":"a","type":0}])", 1, "Task: a is running\n"},
    {"ATokenCannotDriveTheTerminal", R"([{"token_id":"\u001b[2J\n","type":0}])", 1,
     "Task: \\x1b[2J\\n is running\n"},
    {"AnAnswerThatIsNoListGives0", R"({"a":1})", 0, ""},
};
INSTANTIATE_TEST_SUITE_P(ScanRequests, RunningTasks, testing::ValuesIn(kTasks),
                         [](const auto& row) { return row.param.name; });

// The control of a task.

struct ControlRow {
  const char* name;
  json::ControlAction action;
  const char* params;
};
class TaskControl : public ScanRequests, public testing::WithParamInterface<ControlRow> {};
TEST_P(TaskControl, SendsItsRow) {
  EXPECT_EQ(CliScanCommunication::action_ctlscan("the token", static_cast<unsigned>(GetParam().action)), 1);
  Json::Value expected = jsonOf(GetParam().params);
  expected["payload"] = Json::Value();
  expected["source"] = json::toNumber(json::RequestSource::kConsole);
  expected["token_id"] = "the token";
  EXPECT_EQ(onlyParams("ctlBus"), expected);
}
const ControlRow kControls[] = {
    {"StopSendsMark8", json::ControlAction::kStop, R"({"action":1,"mark":8,"detail":"终端停止扫描"})"},
    {"PauseSendsMark2", json::ControlAction::kPause, R"({"action":2,"mark":2,"detail":"终端暂停扫描"})"},
    {"ResumeSendsMark0", json::ControlAction::kResume, R"({"action":3,"mark":0,"detail":"终端恢复扫描"})"},
};
INSTANTIATE_TEST_SUITE_P(ScanRequests, TaskControl, testing::ValuesIn(kControls),
                         [](const auto& row) { return row.param.name; });

TEST_F(ScanRequests, AnyOtherControlSendsNothingAndGives0) {
  for (const unsigned action : {0U, 4U, 99U}) {
    EXPECT_EQ(CliScanCommunication::action_ctlscan("t", action), 0);
  }
  EXPECT_TRUE(agent_.calls().empty());
}

TEST_F(ScanRequests, AControlWithAnEmptyTokenIsSent) {
  EXPECT_EQ(CliScanCommunication::action_ctlscan("", static_cast<unsigned>(json::ControlAction::kResume)), 1);
  EXPECT_EQ(onlyParams("ctlBus")["token_id"].asString(), "");
}

TEST_F(ScanRequests, ARefusedControlCountsAsMade) {
  agent_.answer("ctlBus", false);
  EXPECT_EQ(CliScanCommunication::action_ctlscan("t", 1), 1);
}

// Failures.

struct Failing {
  const char* function;
  const char* place;  ///< as the debug log names it
  std::function<int()> request;
  int result;
};
const Failing kFailing[] = {
    {"get_scanconfig", ":get_scanconfig:56 ",
     [] {
       int handle = 1;
       return CliScanCommunication::get_scanconfig(handle);
     },
     1},
    {"action_startscan", ":action_startscan:133 ",
     [] { return CliScanCommunication::action_startscan(json::Handling::kAutomatic, kFast, {}, kStrongOff); },
     0},
    {"action_showscan", ":action_showscan:162 ", [] { return CliScanCommunication::action_showscan(); }, 0},
    {"action_ctlscan", ":action_ctlscan:200 ", [] { return CliScanCommunication::action_ctlscan("t", 1); },
     0},
};

class FailingRequest : public ScanRequests, public testing::WithParamInterface<Failing> {
 protected:
  void expectLoggedAndSilent() {
    EXPECT_EQ(printing(GetParam().request), GetParam().result);
    EXPECT_EQ(out_, "");
    EXPECT_THAT(debugLog(), HasSubstr(std::string("ERROR command/scan/adaptor/CliScanCommunication") +
                                      GetParam().place + "Caught exception:\\n "));
  }
};

TEST_P(FailingRequest, ToAnAgentThatIsGoneIsLoggedAndPrintsNothing) {
  agent_.leave();
  expectLoggedAndSilent();
  EXPECT_THAT(debugLog(), HasSubstr("lunet SyncSend error ret["));
}

TEST_P(FailingRequest, AnsweredWithAnErrorIsLoggedAndPrintsNothing) {
  for (const char* method : {"getAVConfig", "startScanTask", "getBusList", "ctlBus"}) {
    agent_.answerError(method, -32000, "refused");
  }
  expectLoggedAndSilent();
}

TEST_P(FailingRequest, AnsweredWithAnotherKindIsLoggedAndPrintsNothing) {
  for (const char* method : {"getAVConfig", "startScanTask", "getBusList", "ctlBus"}) {
    agent_.answer(method, 17);
  }
  expectLoggedAndSilent();
}

TEST_P(FailingRequest, ToAnAgentThatDiesMeanwhileIsLoggedAndPrintsNothing) {
  for (const char* method : {"getAVConfig", "startScanTask", "getBusList", "ctlBus"}) {
    agent_.dieAt(method);
  }
  expectLoggedAndSilent();
}

TEST_F(ScanRequests, AnUnattendedStartThatIsNotConfirmedIsToldToTheOperator) {
  agent_.answerError("startScanTask", -32000, "the store\nis full");
  const auto complaint = [] {
    testing::internal::CaptureStderr();
    EXPECT_EQ(
        CliScanCommunication::action_startscan(json::Handling::kAutomatic, kCustom, {"/data"}, kStrongOff),
        0);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(complaint(), "") << "at the prompt the debug log has it";
  ScanRunState::instance().set_batch_mode();
  EXPECT_THAT(complaint(), AllOf(StartsWith("tavcli: the agent has not confirmed the start of the scan: "),
                                 EndsWith("the store\\nis full\n")));
  agent_.dieAt("startScanTask");
  EXPECT_THAT(complaint(), HasSubstr("lunet SyncSend error ret["));
  ScanRunState::instance().reset();
}

TEST_P(FailingRequest, WithoutALinkGives0AndLogsNothing) {
  jsonrpchelper::stopJsonRpc();
  EXPECT_EQ(printing(GetParam().request), 0);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(debugLog(), "");
}

INSTANTIATE_TEST_SUITE_P(ScanRequests, FailingRequest, testing::ValuesIn(kFailing),
                         [](const auto& row) { return row.param.function; });

}  // namespace
