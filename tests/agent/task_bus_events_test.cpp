// A task's words on their way to its owner: real queue, an endpoint without a bus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "json/Values.h"
#include "platform/ProcessStat.h"
#include "support/FakeEndpoint.h"
#include "support/Json.h"
#include "task/BusTaskEvents.h"
#include "task/RiskRecords.h"

namespace agent {
namespace {

using ::testing::ElementsAre;

constexpr uid_t kUser = 60123;

/// The queue sends nothing before sendAll().
class TaskWords : public ::testing::Test {
 protected:
  TaskWords() {
    queue.post(std::make_shared<Receiver>("the gate"), NotificationKind::kKept, 0,
               [opened = gate.get_future().share()]() -> std::uint32_t {
                 opened.wait();
                 return lunet::kOk;
               });
  }
  static NotificationQueue::Limits limits() {
    NotificationQueue::Limits limits;
    limits.keptBytes = 10'000;
    limits.retry = std::chrono::hours(1);
    return limits;
  }
  std::shared_ptr<BusTaskEvents> wordsTo(uid_t uid, bool trusted, const std::string& token = "token") {
    TaskOwner owner;
    owner.guid = {1, 2, 3};
    owner.process.pid = 4711;
    owner.process.uid = uid;
    owner.process.trusted = trusted;
    return std::make_shared<BusTaskEvents>(queue, endpoint, owner, BusTaskEvents::Envelope{token, {}, 7});
  }
  void sendAll() {
    gate.set_value();
    EXPECT_TRUE(queue.drain(std::chrono::seconds(20)));
  }
  std::vector<Json::Value> sent() const {
    std::vector<Json::Value> messages;
    for (const testsupport::FakeEndpoint::Sent& sent : endpoint.sent) {
      messages.push_back(testsupport::jsonOf(sent.text));
    }
    return messages;
  }

  testsupport::FakeEndpoint endpoint;
  std::promise<void> gate;
  NotificationQueue queue{limits()};
};

TEST_F(TaskWords, ThatWaitAreAllKeptWithTheirTokenButForOldProgressAndOldOverviews) {
  const auto words = wordsTo(0, true);
  Json::Value overview;
  for (int i = 1; i <= 2; ++i) {
    words->progress(i);
    overview["number"] = i;
    words->overview(overview);
    words->state(json::TaskState::kPaused, {});
    words->stage(i, "a stage");
    words->attributes(overview);
    words->risk(json::RiskInfoType::kFile, json::Handling::kAutomatic, overview);
    words->repaired(json::RiskInfoType::kFile, json::Handling::kAutomatic, overview, overview);
  }
  sendAll();
  std::vector<std::string> methods;
  for (const Json::Value& message : sent()) {
    methods.push_back(message["method"].asString());
    EXPECT_EQ("token", message["params"]["token_id"].asString()) << methods.back();
    if (methods.back() == "reportBusProgress") {
      EXPECT_EQ(2, message["params"]["progress"].asInt());
    } else if (methods.back() == "reportScanBusOverView") {
      EXPECT_EQ(2, message["params"]["overview"]["number"].asInt());
    }
  }
  EXPECT_THAT(methods, ElementsAre("reportBusStatus", "reportScanBusStage", "reportScanAttributeInfo",
                                   "reportRiskInfo", "reportRiskFixInfo", "reportBusProgress",
                                   "reportScanBusOverView", "reportBusStatus", "reportScanBusStage",
                                   "reportScanAttributeInfo", "reportRiskInfo", "reportRiskFixInfo"));
}

TEST_F(TaskWords, OfAStateAreOneVisibleLineWithTheEnvelopeOfTheTask) {
  wordsTo(0, true)->state(json::TaskState::kAborted, "two\nlines\x1b[31m");
  sendAll();
  const Json::Value params = sent().at(0)["params"];
  EXPECT_EQ("two\\nlines\\x1b[31m", params["detail"].asString());
  EXPECT_EQ(5, params["state"].asInt());
  EXPECT_EQ("token", params["token_id"].asString());
  EXPECT_EQ(7, params["source"].asInt());
  EXPECT_EQ(4711, endpoint.last().process.pid);
}

TEST_F(TaskWords, OfADetectionSayItsKindAndHowItIsHandledAndWhatBecameOfIt) {
  const auto words = wordsTo(0, true);
  const Json::Value info = testsupport::jsonOf(R"({"item":"a file"})");
  const Json::Value result = testsupport::jsonOf(R"({"handle_result":1})");
  for (const auto handling : {json::Handling::kAutomatic, json::Handling::kReportOnly}) {
    words->risk(json::RiskInfoType::kProcess, handling, info);
    words->repaired(json::RiskInfoType::kProcess, handling, info, result);
  }
  sendAll();
  const std::vector<Json::Value> messages = sent();
  ASSERT_EQ(4U, messages.size());
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const Json::Value& params = messages[i]["params"];
    EXPECT_EQ(i < 2 ? json::toFixMethod(json::Handling::kAutomatic)
                    : json::toFixMethod(json::Handling::kReportOnly),
              params["fix_method"].asInt())
        << i;
    EXPECT_EQ(json::toNumber(json::RiskInfoType::kProcess), params["risk_info_type"].asInt()) << i;
    EXPECT_EQ(json::toNumber(json::BusinessType::kScan), params["business_type"].asInt()) << i;
    EXPECT_EQ(info, params["risk_info"]) << i;
    EXPECT_EQ(i % 2 == 0 ? Json::Value() : result, params["risk_repair_result"]) << i;
  }
}

TEST_F(TaskWords, CountWithTheLengthOfAStatesDetailForTheQuotaOfTheirOwner) {
  const auto words = wordsTo(0, true);
  int asked = 0;
  const auto cancelled = [&asked] {
    ++asked;
    return true;
  };
  words->state(json::TaskState::kAborted, "a word");
  words->waitForQuota(cancelled);
  EXPECT_EQ(0, asked);
  words->state(json::TaskState::kAborted, std::string(10'000, 'x'));
  words->waitForQuota(cancelled);
  EXPECT_EQ(1, asked);
  sendAll();
}

TEST_F(TaskWords, OfADetectionCountWithItsPathsForTheQuotaOfTheirOwner) {
  for (const bool handled : {false, true}) {
    const auto words = wordsTo(0, true);
    int asked = 0;
    const auto cancelled = [&asked] {
      ++asked;
      return true;
    };
    for (int i = 0; i < 3; ++i) {  // each of 4,096 bytes, and the quota is 10,000
      EXPECT_EQ(0, asked);
      handled ? words->repaired(json::RiskInfoType::kFile, json::Handling::kAutomatic, {}, {})
              : words->risk(json::RiskInfoType::kFile, json::Handling::kAutomatic, {});
      words->waitForQuota(cancelled);
    }
    EXPECT_EQ(1, asked);
  }
  sendAll();
}

TEST_F(TaskWords, OfAStageAndOfTheAttributesAreTheirContent) {
  const auto words = wordsTo(0, true);
  words->stage(4, "running programs");
  words->attributes(testsupport::jsonOf(R"({"parallelism":3})"));
  sendAll();
  const std::vector<Json::Value> messages = sent();
  ASSERT_EQ(2U, messages.size());
  EXPECT_EQ(4, messages[0]["params"]["stage"].asInt());
  EXPECT_EQ("running programs", messages[0]["params"]["datail"].asString());
  EXPECT_EQ(3, messages[1]["params"]["payload"]["parallelism"].asInt());
  EXPECT_EQ(7, messages[1]["params"]["source"].asInt());
}

TEST_F(TaskWords, AreFollowedByTheActionOfTheirEnd) {
  const auto words = wordsTo(0, true);
  std::size_t sentBefore = 0;
  words->state(json::TaskState::kFinished, {});
  words->onDelivered([&] { sentBefore = endpoint.sent.size(); });
  sendAll();
  EXPECT_EQ(1U, sentBefore);
}

/// Two owners, and whether a send to the first that ran out of time puts off the second one's words.
TEST_F(TaskWords, KnowWhetherTheProcessOfTheirOwnerIsGone) {
  const auto ended = [this](pid_t pid, std::uint64_t startTicks) {
    TaskOwner owner;
    owner.process.pid = pid;
    owner.process.startTicks = startTicks;
    return std::make_shared<BusTaskEvents>(queue, endpoint, owner, BusTaskEvents::Envelope{"", {}, 7})
        ->ownerEnded();
  };
  const auto self = platform::processStat(getpid());
  ASSERT_TRUE(self);
  EXPECT_FALSE(ended(getpid(), self->startTicks));
  EXPECT_TRUE(ended(getpid(), self->startTicks + 1)) << "another process with the same number";
  EXPECT_TRUE(ended(1 << 30, self->startTicks));
  gate.set_value();
}

struct OwnersRow {
  const char* name;
  uid_t first, second;
  bool trusted;
  std::size_t tries;
};
class WordsToTwo : public TaskWords, public ::testing::WithParamInterface<OwnersRow> {};

TEST_P(WordsToTwo, ATimeoutPutsOffAllOwnersOfThatUserWhenNotTrusted) {
  endpoint.onewayResult = lunet::kErrTimeout;
  const auto first = wordsTo(GetParam().first, GetParam().trusted, "first");
  const auto second = wordsTo(GetParam().second, GetParam().trusted, "second");
  first->state(json::TaskState::kCreated, {});
  second->state(json::TaskState::kCreated, {});
  std::promise<std::size_t> tried;
  queue.post(std::make_shared<Receiver>("the last"), NotificationKind::kKept, 0, [&]() -> std::uint32_t {
    tried.set_value(endpoint.sent.size());
    return lunet::kOk;
  });
  gate.set_value();
  EXPECT_EQ(GetParam().tries, tried.get_future().get());
}

INSTANTIATE_TEST_SUITE_P(Owners, WordsToTwo,
                         ::testing::Values(OwnersRow{"OneMember", kUser, kUser, false, 1},
                                           OwnersRow{"TwoMembers", kUser, kUser + 1, false, 2},
                                           OwnersRow{"OneTrustedUser", kUser, kUser, true, 2}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace agent
