#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "json/CppJson.h"
#include "json/ScanRecords.h"
#include "platform/Descriptor.h"
#include "support/TempDir.h"
#include "task/Counters.h"
#include "task/RiskRecords.h"

namespace agent {
namespace {

using ::testing::HasSubstr;

DetectedFile sampleRisk(off_t size = 123) {
  EncounteredFile file;
  file.path =
      "/some/bad\xff"
      "file";
  file.status.st_size = size;
  file.status.st_mtim.tv_sec = 1000;
  DetectedFile risk;
  risk.file = std::make_shared<EncounteredFile>(std::move(file));
  risk.createdSec = 900;
  risk.verdict.outcome = Outcome::kInfected;
  risk.verdict.detections = {{"First.Name", 3, json::RiskType::kTestFile, "测试"},
                             {"Second.Name", 0, json::RiskType::kVirus, "病毒"},
                             {"Third.Name", 0, json::RiskType::kVirus, "病毒"}};
  risk.verdict.md5 = "m";
  risk.verdict.sha1 = "s";
  risk.riskId = "id";
  risk.foundSec = 2000;
  return risk;
}

TEST(RiskRecords, ADetectedFileCarriesEveryMemberOfItsRecord) {
  const Json::Value info = riskInfo(sampleRisk());
  Json::Value empty;
  JsonReflect::VirusInfo().ToValue(empty);
  EXPECT_EQ(empty.getMemberNames(), info.getMemberNames());
  EXPECT_EQ(json::encodePath("/some/bad\xff"
                             "file"),
            info["item"].asString());
  EXPECT_EQ(info["item"], info["filepath_src"]);
  EXPECT_EQ("First.Name", info["risk_name"].asString());
  EXPECT_EQ(3, info["engine_mark"].asInt());
  EXPECT_EQ(123, info["filesize_src"].asInt());
  EXPECT_EQ("m", info["filemd5_src"].asString());
  EXPECT_EQ("s", info["filesha1_src"].asString());
  EXPECT_EQ(900, info["file_create_time"].asInt());
  EXPECT_EQ(1000, info["file_modify_time"].asInt());
  EXPECT_EQ(2000, info["find_time"].asInt());
  EXPECT_EQ("测试", info["risk_type_name"].asString());
  EXPECT_EQ(1, info["risk_type"].asInt());
  EXPECT_EQ(0, info["finder"].asInt());
  EXPECT_EQ("id", info["risk_id"].asString());
  EXPECT_EQ("also: Second.Name, Third.Name", info["desc"].asString());
}

TEST(RiskRecords, TheSizeOfAFileOfThreeGigabytesIsNotLost) {
  const DetectedFile risk = sampleRisk(3LL << 30);
  EXPECT_EQ(3LL << 30, riskInfo(risk)["filesize_src"].asInt64());
  const Json::Value process = processRiskInfo({}, risk, "p");
  EXPECT_EQ(3LL << 30, process["process_info"]["file_risks"][0]["filesize_src"].asInt64());
}

TEST(RiskRecords, AProcessRiskNamesTheProcessItsProgramAndWhatWasFoundInIt) {
  RunningProgram program;
  program.pid = 42;
  program.uid = 60999;
  program.name = "ev\xffil";
  program.path = "/another/name\xff (deleted)";  // not the path under which the file was found
  program.onDisk = false;
  const DetectedFile detected = sampleRisk();
  const Json::Value info = processRiskInfo(program, detected, "risk");
  JsonReflect::MemoryRiskInfo record;
  ASSERT_TRUE(record.FromValue(info));
  EXPECT_EQ("risk", record.risk_id);
  EXPECT_EQ("测试", record.risk_type_name);
  EXPECT_EQ(json::toNumber(json::RiskType::kTestFile), record.risk_type);
  EXPECT_EQ(json::encodePath(program.path), record.process_info.exec_file_name);
  EXPECT_EQ(json::encodePath(program.name), record.process_info.proc_name);
  EXPECT_EQ(42, record.process_info.pid);
  EXPECT_FALSE(record.process_info.exec_file_exist);
  EXPECT_EQ("60999", record.process_info.user_name);
  ASSERT_EQ(1U, record.process_info.proc_risks.size());
  const JsonReflect::ProcRiskItem& item = record.process_info.proc_risks[0];
  EXPECT_EQ("First.Name", item.risk_name);
  EXPECT_EQ(42, item.pid);
  EXPECT_EQ(json::encodePath(program.path), item.item);
  EXPECT_EQ("risk", item.risk_id);
  EXPECT_EQ(3, item.engine_type);
  EXPECT_EQ(2000, item.find_time);
  EXPECT_EQ("测试", item.risk_type_name);
  EXPECT_EQ(json::toNumber(json::RiskType::kTestFile), item.risk_type);
  ASSERT_EQ(1U, record.process_info.file_risks.size());
  EXPECT_EQ("m", record.process_info.file_risks[0].filemd5_src);
  EXPECT_EQ(json::encodePath(detected.file->path), record.process_info.file_risks[0].item);
  program.onDisk = true;
  EXPECT_TRUE(processRiskInfo(program, detected, "risk")["process_info"]["exec_file_exist"].asBool());
}

TEST(RiskRecords, TheTimeOfCreationIsNotThatOfTheLastChangeAndIsZeroWhereItIsUnknown) {
  const testsupport::TempDir dir(testsupport::diskFolder());
  const std::string path = dir.write("file", "x");
  const timespec times[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  struct statx known {};  // zero where the file system keeps no such time
  ASSERT_EQ(0, statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &known));
  const platform::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(known.stx_btime.tv_sec, birthTime(file.get()));
  const platform::Descriptor status(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, birthTime(status.get()));
}

struct ResultRow {
  const char* name;
  json::HandleResult result;
  int number;
  const char* text;
};
class HandleResults : public ::testing::TestWithParam<ResultRow> {};
TEST_P(HandleResults, HasItsNumberAndItsText) {
  const Json::Value result = repairResult(GetParam().result, "", 77);
  EXPECT_EQ(GetParam().number, result["handle_result"].asInt());
  EXPECT_EQ(GetParam().text, result["handle_detail"].asString());
  EXPECT_EQ(77, result["handle_time"].asInt());
}
INSTANTIATE_TEST_SUITE_P(
    Rows, HandleResults,
    ::testing::Values(ResultRow{"Quarantined", json::HandleResult::kQuarantined, 1, "已隔离"},
                      ResultRow{"ProcessEnded", json::HandleResult::kProcessEnded, 2, "已终止进程"},
                      ResultRow{"ReportedOnly", json::HandleResult::kReportedOnly, 3, "仅上报"},
                      ResultRow{"Failed", json::HandleResult::kFailed, 4, "处理失败"},
                      ResultRow{"Trusted", json::HandleResult::kTrusted, 6, "已信任"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(RiskRecords, AReasonIsOneVisibleLine) {
  EXPECT_EQ("处理失败: no \\x1b[31mspace\\n",
            repairResult(json::HandleResult::kFailed, "no \x1b[31mspace\n", 0)["handle_detail"].asString());
}

TEST(Counters, CheckedIsCleanAndInfectedFailedIsErrorsTotalIsAllEntriesEncountered) {
  Counters counters;
  for (int i = 0; i < 10; ++i) {
    counters.encountered("/f" + std::to_string(i));
  }
  counters.clean();
  counters.clean();
  counters.clean();
  counters.infected();
  counters.infected();
  counters.failed();
  counters.skipped("fifo");
  counters.skipped("symbolic link");
  counters.trusted();
  counters.fixed();
  counters.leftAlone();
  counters.fixFailed();
  const JsonReflect::ScanBusOverView view = counters.overview("token");
  EXPECT_EQ(10, view.total_item_count);
  EXPECT_EQ(5, view.checked_item_count);
  EXPECT_EQ(2, view.checkout_risk_count);
  EXPECT_EQ(1, view.failed_item_count);
  EXPECT_EQ(1, view.trusted_risk_count);
  EXPECT_EQ(1, view.fixed_risk_count);
  EXPECT_EQ(1, view.ignore_risk_count);
  EXPECT_EQ(3, view.disposed_risk_count);
  EXPECT_EQ("/f9", view.cur_item);
  EXPECT_EQ("token", view.token_id);
}

TEST(Counters, TheSummarySaysWhySomeWereSkipped) {
  Counters counters;
  counters.skipped("fifo");
  counters.skipped("symbolic link");
  counters.skipped("symbolic link");
  EXPECT_THAT(counters.summary(), HasSubstr("3 skipped (1 fifo, 2 symbolic link)"));
}

TEST(Counters, ManyDifferentReasonsAreFewInTheSummary) {
  Counters counters;
  for (int i = 0; i < 1000; ++i) {
    counters.skipped("reason " + std::to_string(i));
  }
  EXPECT_THAT(counters.summary(), HasSubstr("968 other reasons"));
  EXPECT_LT(counters.summary().size(), 1000U);
}

TEST(Counters, AReasonThatIsKnownCountsUnderItsNameWhateverCameMeanwhile) {
  Counters counters;
  for (int i = 0; i < 100; ++i) {
    counters.skipped("reason " + std::to_string(i));
  }
  counters.skipped("reason 0");
  EXPECT_THAT(counters.summary(), HasSubstr("2 reason 0"));
}

TEST(Counters, TheCurrentItemTravelsInItsWireForm) {
  Counters counters;
  counters.encountered("/\xff");
  EXPECT_EQ(json::encodePath("/\xff"), counters.overview("").cur_item);
}

}  // namespace
}  // namespace agent
