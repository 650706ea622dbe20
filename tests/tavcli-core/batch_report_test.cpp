#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "command/scan/BatchReport.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "support/Json.h"
#include "support/TempDir.h"

namespace {

JsonReflect::VirusInfo risk(const std::string& item) {
  JsonReflect::VirusInfo info;
  info.item = item;
  info.risk_name = "Eicar";
  info.risk_type_name = "test";
  info.filesize_src = 68;
  return info;
}

JsonReflect::RiskRepairResult result(json::HandleResult outcome) {
  JsonReflect::RiskRepairResult repair;
  repair.handle_result = json::toNumber(outcome);
  return repair;
}

JsonReflect::ScanBusOverView overview(std::int64_t scanned, std::int64_t found) {
  JsonReflect::ScanBusOverView counters;
  counters.checked_item_count = scanned;
  counters.checkout_risk_count = found;
  return counters;
}

struct Handle {
  int agent;
  int report;
};
class HandleCode : public testing::TestWithParam<Handle> {};
TEST_P(HandleCode, OfTheReportFollowsTheAgents) {
  EXPECT_EQ(batchreport::handleCode(GetParam().agent), GetParam().report);
}
const Handle kHandles[] = {{1, 1}, {2, 2}, {6, 4}, {7, 4}, {0, 3}, {3, 3}, {4, 3}, {5, 3}, {8, 3}, {-1, 3}};
INSTANTIATE_TEST_SUITE_P(BatchReport, HandleCode, testing::ValuesIn(kHandles), [](const auto& row) {
  return row.param.agent < 0 ? std::string("Minus1") : "Result" + std::to_string(row.param.agent);
});

class BatchReport : public testing::Test {
 protected:
  Json::Value document_{Json::objectValue};
};

TEST_F(BatchReport, OfAnEmptyDocumentHasSevenLines) {
  EXPECT_EQ(batchreport::text(document_, 1, "/data"),
            "病毒查杀状态：1\n查杀路径：/"
            "data\n本次扫描文件数量：0\n染毒文件数量：0\n病毒数量：0\n查杀时间：\n结束时间：\n");
}

TEST_F(BatchReport, NamesEveryInfectedFileInItsLines) {
  batchreport::addOverview(document_, overview(12, 2), "2026-01-02 03:04:05");
  batchreport::addOverview(document_, overview(5000000000, 2), "2026-01-02 03:05:00");
  batchreport::addDetection(document_, risk("/data/dir/a.com"), result(json::HandleResult::kQuarantined));
  batchreport::addDetection(document_, risk("/data/b"), result(json::HandleResult::kReportedOnly));
  EXPECT_EQ(
      batchreport::text(document_, 2, "/data"),
      "病毒查杀状态：2\n查杀路径：/data\n本次扫描文件数量：5000000000\n染毒文件数量：2\n病毒数量：2\n"
      "查杀时间：2026-01-02 03:04:05\n结束时间：2026-01-02 03:05:00\n"
      "\n染毒文件名：a.com\n染毒文件全路径：/data/dir/a.com\n文件大小：68\n病毒名称：Eicar\n病毒处理结果：1\n"
      "\n染毒文件名：b\n染毒文件全路径：/data/b\n文件大小：68\n病毒名称：Eicar\n病毒处理结果：3\n\n");
}

TEST_F(BatchReport, DetectionWithoutItemNamesItsFilepathSrc) {
  JsonReflect::VirusInfo info = risk("");
  info.filepath_src = "/data/src";
  batchreport::addDetection(document_, info, result(json::HandleResult::kQuarantined));
  EXPECT_NE(batchreport::text(document_, 1, "/data").find("染毒文件全路径：/data/src\n"), std::string::npos);
}

TEST_F(BatchReport, DetectionInAFileOf3GigabytesIsNotLost) {
  JsonReflect::VirusInfo info;
  ASSERT_TRUE(
      info.FromValue(testsupport::jsonOf(R"({"item":"/big","filesize_src":3221225472,"risk_name":"n"})")));
  batchreport::addDetection(document_, info, result(json::HandleResult::kQuarantined));
  EXPECT_NE(batchreport::text(document_, 1, "/data").find("染毒文件全路径：/big\n文件大小：0\n病毒名称：n\n"),
            std::string::npos);
}

TEST_F(BatchReport, LinesCannotBeForgedByAFileName) {
  batchreport::addDetection(document_, risk("/data/x\n病毒数量：0\n\x1b[2J/y\tz"),
                            result(json::HandleResult::kQuarantined));
  const std::string text = batchreport::text(document_, 1, "/data");
  EXPECT_NE(text.find("染毒文件名：y\\tz\n"), std::string::npos) << text;
  EXPECT_NE(text.find("染毒文件全路径：/data/x\\n病毒数量：0\\n\\x1b[2J/y\\tz\n"), std::string::npos) << text;
}

TEST_F(BatchReport, PathBytesThatAreNotUtf8AreShownAsHex) {
  batchreport::addDetection(document_, risk(json::encodePath("/data/\xc0name")),
                            result(json::HandleResult::kQuarantined));
  EXPECT_NE(batchreport::text(document_, 1, "/data\xff").find("染毒文件名：\\xc0name\n"), std::string::npos);
  EXPECT_NE(batchreport::text(document_, 1, "/data\xff").find("查杀路径：/data\\xff\n"), std::string::npos);
}

TEST_F(BatchReport, ChineseNamesStandAsTheyAre) {
  batchreport::addDetection(document_, risk("/数据/病毒.exe"), result(json::HandleResult::kQuarantined));
  EXPECT_NE(batchreport::text(document_, 1, "/数据").find("染毒文件名：病毒.exe\n"), std::string::npos);
}

TEST_F(BatchReport, FoundInfectedNeedsTheCountAndTheNames) {
  EXPECT_FALSE(batchreport::foundInfected(document_));
  batchreport::addOverview(document_, overview(3, 1), "now");
  EXPECT_FALSE(batchreport::foundInfected(document_)) << "an empty list always gives no";
  batchreport::addDetection(document_, risk("/a"), result(json::HandleResult::kQuarantined));
  EXPECT_TRUE(batchreport::foundInfected(document_));
  batchreport::addOverview(document_, overview(3, 0), "now");
  EXPECT_FALSE(batchreport::foundInfected(document_)) << "a count of 0 always gives no";
}

class WrittenReport : public testing::Test {
 protected:
  WrittenReport() {
    ScanRunState& state = ScanRunState::instance();
    state.reset();
    state.set_scan_path("/data");
    state.set_fix_handle(json::toFixHandle(json::Handling::kReportOnly));
    state.set_log_path(path_);
    state.updateResult([](Json::Value& document) {
      batchreport::addOverview(document, overview(7, 1), "2026-01-02 03:04:05");
      batchreport::addDetection(document, risk("/data/a"), result(json::HandleResult::kReportedOnly));
    });
  }
  ~WrittenReport() override { ScanRunState::instance().reset(); }

  bool write() {
    testing::internal::CaptureStderr();
    const bool found = batchreport::write();
    complaint_ = testing::internal::GetCapturedStderr();
    return found;
  }
  void expectTheCounts() const {
    EXPECT_NE(complaint_.find("files scanned 7, infected 1, detections named 1"), std::string::npos)
        << complaint_;
    EXPECT_EQ(std::count(complaint_.begin(), complaint_.end(), '\n'), 1) << "one line";
  }

  testsupport::TempDir dir_;
  std::string path_ = dir_.at("report");
  std::string complaint_;
};

TEST_F(WrittenReport, StandsWholeAndPrivate) {
  EXPECT_TRUE(write());
  EXPECT_EQ(complaint_, "");
  EXPECT_EQ(testsupport::readFile(path_), batchreport::text(ScanRunState::instance().result(), 1, "/data"));
  struct stat file {};
  ASSERT_EQ(lstat(path_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600U);
}

TEST_F(WrittenReport, LeavesNothingElseBehind) {
  write();
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(dir_.path()), std::filesystem::directory_iterator()),
      1);
}

TEST_F(WrittenReport, ReplacesARegularFile) {
  dir_.write("report", std::string(100000, 'x'));
  EXPECT_TRUE(write());
  EXPECT_EQ(testsupport::readFile(path_).find('x'), std::string::npos);
}

TEST_F(WrittenReport, FollowsNoLink) {
  dir_.write("victim", "precious");
  std::filesystem::create_symlink(dir_.at("victim"), path_);
  EXPECT_TRUE(write()) << "the outcome stays true";
  EXPECT_EQ(testsupport::readFile(dir_.at("victim")), "precious");
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  expectTheCounts();
}

TEST_F(WrittenReport, LeavesAFolderInItsPlaceAlone) {
  std::filesystem::create_directory(path_);
  EXPECT_TRUE(write());
  EXPECT_TRUE(std::filesystem::is_directory(path_));
  expectTheCounts();
}

TEST_F(WrittenReport, InAFolderThatIsGoneTellsTheCounts) {
  ScanRunState::instance().set_log_path(dir_.at("gone/report"));
  EXPECT_TRUE(write());
  expectTheCounts();
}

TEST_F(WrittenReport, WithoutAPathTellsTheCounts) {
  ScanRunState::instance().set_log_path("");
  EXPECT_TRUE(write());
  expectTheCounts();
}

/// Limits the files of this process to 16 bytes, so a write fails as on a full disk. Standard error goes to a
/// pipe, because a pipe is no file.
class FullDisk {
 public:
  FullDisk() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit small = before_;
    small.rlim_cur = 16;
    setrlimit(RLIMIT_FSIZE, &small);
    stderr_ = dup(STDERR_FILENO);
    if (pipe(pipe_) == 0) {
      dup2(pipe_[1], STDERR_FILENO);
    }
  }
  /// Lifts the limit. Returns the text of standard error.
  std::string end() {
    setrlimit(RLIMIT_FSIZE, &before_);
    dup2(stderr_, STDERR_FILENO);
    close(pipe_[1]);
    char text[4096];
    const ssize_t size = read(pipe_[0], text, sizeof text);
    return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
  }

 private:
  rlimit before_{};
  int stderr_ = -1;
  int pipe_[2] = {-1, -1};
};

TEST_F(WrittenReport, ThatDoesNotFitOnTheDiskTellsTheCountsAndKeepsTheOldFile) {
  dir_.write("report", "old");
  FullDisk disk;
  const bool found = batchreport::write();
  complaint_ = disk.end();
  EXPECT_TRUE(found);
  expectTheCounts();
  EXPECT_EQ(testsupport::readFile(path_), "old");
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(dir_.path()), std::filesystem::directory_iterator()),
      1);
}

}  // namespace
