#include <gtest/gtest.h>

#include <random>

#include "json/CppJson.h"
#include "support/GuardedBytes.h"
#include "worker/Messages.h"

namespace agent {
namespace {

using testsupport::GuardedBytes;

ScanAnswer fullAnswer() {
  ScanAnswer answer;
  answer.id = 0x1122334455667788;
  answer.verdict.outcome = Outcome::kInfected;
  answer.verdict.reason = "why";
  answer.verdict.detections = {{"One.Name", json::kEngineRda, json::RiskType::kTestFile, "测试文件"},
                               {"Two.Name", json::kEngineHc, json::RiskType::kVirus, "病毒"}};
  answer.verdict.md5 = "m";
  answer.verdict.sha1 = "s";
  answer.verdict.sha256 = "h";
  return answer;
}

TEST(WorkerMessages, ADecodedAnswerEqualsTheEncodedOne) {
  const auto sent = fullAnswer();
  const auto got = decode<ScanAnswer>(encode(sent));
  ASSERT_TRUE(got);
  EXPECT_EQ(got->id, sent.id);
  EXPECT_EQ(got->verdict.outcome, sent.verdict.outcome);
  EXPECT_EQ(got->verdict.reason, sent.verdict.reason);
  ASSERT_EQ(got->verdict.detections.size(), 2U);
  EXPECT_EQ(got->verdict.detections[0].name, "One.Name");
  EXPECT_EQ(got->verdict.detections[0].engineCode, sent.verdict.detections[0].engineCode);
  EXPECT_EQ(got->verdict.detections[0].riskType, json::RiskType::kTestFile);
  EXPECT_EQ(got->verdict.detections[1].riskTypeName, "病毒");
  EXPECT_EQ(got->verdict.sha256, "h");
}

TEST(WorkerMessages, ADecodedRequestEqualsTheEncodedOne) {
  ScanRequest sent;
  sent.id = 7;
  sent.name = "/a/b\n\xFF";
  sent.options.archives = false;
  sent.options.maxLayers = 3;
  sent.options.maxArchiveBytes = 1ULL << 40;
  sent.options.archiveFormats = {"zip", "7z"};
  sent.options.enabledEngines = 0x155;
  sent.options.hashesWanted = true;
  sent.options.heuristics = true;
  const auto got = decode<ScanRequest>(encode(sent));
  ASSERT_TRUE(got);
  EXPECT_EQ(got->name, sent.name);
  EXPECT_FALSE(got->options.archives);
  EXPECT_EQ(got->options.maxLayers, 3U);
  EXPECT_EQ(got->options.maxArchiveBytes, 1ULL << 40);
  EXPECT_EQ(got->options.archiveFormats, sent.options.archiveFormats);
  EXPECT_EQ(got->options.enabledEngines, 0x155U);
  EXPECT_TRUE(got->options.hashesWanted);
  EXPECT_TRUE(got->options.heuristics);
}

TEST(WorkerMessages, ADecodedStateReportEqualsTheEncodedOne) {
  StateReport sent;
  sent.state.loaded = true;
  sent.state.system = SystemDatabase::kLeftOut;
  sent.state.version = "v";
  sent.state.detail = "d";
  sent.state.count = 8700000;
  sent.state.shortage = "s";
  sent.state.rules = "r";
  sent.state.limits = "l";
  sent.state.unsettled = true;
  sent.state.notInUse = {"a.ndb"};
  sent.state.files = {{"b.ndb", 7, "5f"}};
  sent.state.copies = {"c.ndb", "d.ndb"};
  const auto got = decode<StateReport>(encode(sent));
  ASSERT_TRUE(got);
  EXPECT_TRUE(got->state.loaded);
  EXPECT_EQ(got->state.system, SystemDatabase::kLeftOut);
  EXPECT_EQ(got->state.version, "v");
  EXPECT_EQ(got->state.detail, "d");
  EXPECT_EQ(got->state.count, 8700000U);
  EXPECT_EQ(got->state.shortage + got->state.rules + got->state.limits, "srl");
  EXPECT_TRUE(got->state.unsettled);
  EXPECT_EQ(got->state.notInUse, sent.state.notInUse);
  ASSERT_EQ(got->state.files.size(), 1U);
  EXPECT_EQ(got->state.files[0].name, "b.ndb");
  EXPECT_EQ(got->state.files[0].bytes, 7U);
  EXPECT_EQ(got->state.files[0].sha256, "5f");
  EXPECT_EQ(got->state.copies, sent.state.copies);
}

TEST(WorkerMessages, TheLongestStateReportFitsIntoAPacket) {
  StateReport sent;
  const std::string name(SignatureState::kLongestName, 'n');
  sent.state.notInUse.assign(SignatureState::kMostFiles, name);
  sent.state.copies.assign(SignatureState::kMostFiles, name);
  sent.state.files.assign(SignatureState::kMostFiles, {name, 7, std::string(64, 'f')});
  for (std::string* text :
       {&sent.state.version, &sent.state.detail, &sent.state.shortage, &sent.state.rules}) {
    text->assign(10000, 't');
  }
  EXPECT_LT(encode(sent).size(), kLongestPacket);
}

TEST(WorkerMessages, ACutMessageIsRefused) {
  const std::string whole = encode(fullAnswer());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(decode<ScanAnswer>(whole.substr(0, size))) << size;
  }
  EXPECT_FALSE(decode<ScanAnswer>(whole + "x"));
}

TEST(WorkerMessages, ACutMessageIsNotReadBeyondItsEnd) {
  const std::string whole = encode(fullAnswer());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const GuardedBytes cut(std::string_view(whole).substr(0, size), GuardedBytes::Side::kEnd);
    EXPECT_FALSE(decode<ScanAnswer>(cut.view())) << size;
  }
}

TEST(WorkerMessages, AMessageOfAnotherKindIsRefused) {
  EXPECT_FALSE(decode<ScanRequest>(encode(fullAnswer())));
  EXPECT_FALSE(decode<WorkerHello>(encode(ForkRequest{})));
  std::string otherKind = encode(fullAnswer());  // with the same fields
  otherKind[0] = 'X';
  EXPECT_FALSE(decode<ScanAnswer>(otherKind));
}

TEST(WorkerMessages, LongTextsAndListsAreCut) {
  ScanAnswer answer;
  answer.verdict.reason.assign(1000000, 'r');
  answer.verdict.detections.resize(1000);
  const auto got = decode<ScanAnswer>(encode(answer));
  ASSERT_TRUE(got);
  EXPECT_EQ(got->verdict.reason.size(), 4096U);
  EXPECT_EQ(got->verdict.detections.size(), 256U);
}

// A message of a sender that does not cut.
class LongMessage {
 public:
  LongMessage() : text_("A") {
    put(std::uint64_t{7});
    put(static_cast<std::uint8_t>(Outcome::kInfected));
  }
  template <class T>
  void put(T value) {
    text_.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  void putText(std::size_t size) {
    put(static_cast<std::uint32_t>(size));
    text_.append(size, 'x');
  }
  void putDetections(std::size_t count) {
    put(static_cast<std::uint32_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
      putText(1);
      put(3);
      put(1);
      putText(1);
    }
  }
  std::string end() {
    putText(0), putText(0), putText(0);
    return text_;
  }

 private:
  std::string text_;
};

TEST(WorkerMessages, ATextOrListAboveTheLimitIsRefused) {
  const auto message = [](std::size_t reason, std::size_t detections) {
    LongMessage answer;
    answer.putText(reason);
    answer.putDetections(detections);
    return decode<ScanAnswer>(answer.end());
  };
  ASSERT_TRUE(message(4096, 256));
  EXPECT_EQ(message(4096, 256)->verdict.reason.size(), 4096U);
  EXPECT_EQ(message(4096, 256)->verdict.detections.size(), 256U);
  EXPECT_FALSE(message(4097, 0));
  EXPECT_FALSE(message(0, 257));
}

TEST(WorkerMessages, AnAnswerOfAnUnknownOutcomeOrRiskIsRefused) {
  ScanAnswer answer = fullAnswer();
  answer.verdict.outcome = static_cast<Outcome>(200);
  EXPECT_FALSE(decode<ScanAnswer>(encode(answer)));
  answer = fullAnswer();
  answer.verdict.detections[0].riskType = static_cast<json::RiskType>(12345);
  EXPECT_FALSE(decode<ScanAnswer>(encode(answer)));
}

TEST(WorkerMessages, AnEmptyPacketIsRefused) {
  EXPECT_FALSE(decode<ForkRequest>(""));
}

TEST(WorkerMessages, AnyBytesAreReadWithoutHarm) {
  const unsigned seed = 17;
  RecordProperty("seed", static_cast<int>(seed));
  std::mt19937 generator(seed);
  const std::string whole = encode(fullAnswer());
  for (int round = 0; round < 50000; ++round) {
    std::string packet = whole;
    for (int change = 0; change < 3; ++change) {
      packet[1 + generator() % (packet.size() - 1)] = static_cast<char>(generator() & 0xFF);
    }
    if (const auto got = decode<ScanAnswer>(packet)) {
      EXPECT_LE(got->verdict.outcome, Outcome::kSkipped);
    }
  }
}

}  // namespace
}  // namespace agent
