#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "command/scan/ScanDisplay.h"
#include "json/CppJson.h"
#include "platform/Text.h"
#include "support/Golden.h"

namespace {

const std::string kRule = "----------------------------------------\n";
constexpr std::int64_t kTime = 1700000000;

JsonReflect::VirusInfo fileRisk() {
  JsonReflect::VirusInfo risk;
  risk.find_time = kTime;
  risk.item = "/data/a.zip";
  risk.filepath_src = "/data/other";
  risk.risk_name = "Eicar";
  risk.engine_mark = 1;
  risk.risk_type_name = "test";
  risk.finder = 1;
  return risk;
}

JsonReflect::RiskRepairResult repaired() {
  JsonReflect::RiskRepairResult repair;
  repair.handle_detail = "quarantined";
  repair.handle_time = kTime;
  return repair;
}

const char kGolden[] = "tavcli-core/data/scan_texts.txt";

/// The lines for a number of "state", "stage" or "finder"; empty for a number without a text.
std::string linesOf(const std::string& list, int number) {
  if (list == "finder") {
    return "\n" + std::string(scandisplay::finderName(number)) + "\n";
  }
  if (list == "stage") {
    return scandisplay::stageLines(number);
  }
  const scandisplay::State* const state = scandisplay::findState(number);
  return state == nullptr ? "" : scandisplay::stateLines(*state);
}

/// A line of the golden file: "list | number | text".
class ScanText : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(ScanText, IsAnEmptyLineAndItsText) {
  EXPECT_EQ(linesOf(GetParam()[0], std::stoi(GetParam()[1])), "\n" + GetParam()[2] + "\n");
}

INSTANTIATE_TEST_SUITE_P(ScanDisplay, ScanText, testing::ValuesIn(testsupport::goldenFields(kGolden)),
                         [](const auto& row) {
                           const int number = std::stoi(row.param[1]);
                           return row.param[0] + (number < 0 ? "Minus" : "") +
                                  std::to_string(std::abs(number));
                         });

TEST(ScanDisplay, HasTheTextsOfItsGoldenFileAndNoOthers) {
  std::string texts;
  for (const auto& [list, first, last] :
       {std::tuple{"state", -2, 20}, std::tuple{"stage", -2, 20}, std::tuple{"finder", -1, 4}}) {
    for (int number = first; number <= last; ++number) {
      if (const std::string lines = linesOf(list, number); !lines.empty()) {
        texts += std::string(list) + " | " + std::to_string(number) + " | " + lines.substr(1);
      }
    }
  }
  testsupport::expectGolden(kGolden, texts);
}

TEST(ScanDisplay, ProgressIsAnEmptyLineAndThePercentage) {
  EXPECT_EQ(scandisplay::progressLines(0), "\n扫描进度: 0%\n");
  EXPECT_EQ(scandisplay::progressLines(100), "\n扫描进度: 100%\n");
}

TEST(ScanDisplay, ARiskIsItsSixFieldsAndARule) {
  EXPECT_EQ(scandisplay::riskLines(fileRisk()),
            "发现时间 : " + CDateTime::format(kTime) +
                "\n文件路径 : /data/a.zip\n风险项名称 : Eicar\n检出引擎类型 : " + json::engineName(1) +
                "\n病毒类型 : test\n结果来源 : 主动扫描\n" + kRule);
}

TEST(ScanDisplay, ARiskWhoseItemIsEmptyShowsItsFilepathSrc) {
  JsonReflect::VirusInfo risk = fileRisk();
  risk.item.clear();
  EXPECT_NE(scandisplay::riskLines(risk).find("文件路径 : /data/other\n"), std::string::npos);
}

TEST(ScanDisplay, AFinderOf0Or1ShowsTheActiveScan) {
  JsonReflect::VirusInfo risk = fileRisk();
  for (const int finder : {0, 1}) {
    risk.finder = finder;
    EXPECT_NE(scandisplay::riskLines(risk).find("结果来源 : 主动扫描\n"), std::string::npos);
  }
}

TEST(ScanDisplay, AnEngineOutsideTheTableIsAnother) {
  JsonReflect::VirusInfo risk = fileRisk();
  risk.engine_mark = 10;
  EXPECT_NE(scandisplay::riskLines(risk).find("检出引擎类型 : 其他\n"), std::string::npos);
}

TEST(ScanDisplay, ATimeIsTakenFromItsLow32Bits) {
  JsonReflect::VirusInfo risk = fileRisk();
  risk.find_time = kTime + (std::int64_t{5} << 32);
  EXPECT_EQ(scandisplay::riskLines(risk), scandisplay::riskLines(fileRisk()));
}

TEST(ScanDisplay, AnOverviewWithoutDetectionsPrintsOnlyTwoLabelLinesEachAfterAnEmptyLine) {
  JsonReflect::ScanBusOverView overview;
  overview.cur_item = "/data/a";
  overview.checked_item_count = 5000000000;
  EXPECT_EQ(scandisplay::overviewLines(overview), "\n当前检测项: /data/a\n\n已检测项: 5000000000\n");
}

TEST(ScanDisplay, AFullOverviewIsEightLines) {
  JsonReflect::ScanBusOverView overview;
  overview.cur_item = "/data/a";
  overview.checked_item_count = 3;
  overview.checkout_risk_count = 2;
  overview.fixed_risk_count = 1;
  EXPECT_EQ(scandisplay::overviewLines(overview),
            "\n当前检测项: /data/a\n\n已检测项: 3\n\n已检出异常项: 2\n\n已修复异常项: 1\n");
}

TEST(ScanDisplay, AFileRepairIsItsThreeFieldsAndARule) {
  EXPECT_EQ(
      scandisplay::fileRepairLines(fileRisk(), repaired()),
      "风险项名称 : Eicar\n处理结果 : quarantined\n修复时间 : " + CDateTime::format(kTime) + "\n" + kRule);
}

TEST(ScanDisplay, AProcessRepairNamesTheProgramAndEachOfItsFindings) {
  JsonReflect::MemoryRiskInfo risk;
  risk.process_info.exec_file_name = "/usr/bin/bad";
  risk.process_info.proc_risks.resize(2);
  risk.process_info.proc_risks[0].item = "/one";
  risk.process_info.proc_risks[1].item = "/two";
  risk.process_info.file_risks.resize(2);
  risk.process_info.file_risks[0].item = "/three";
  risk.process_info.file_risks[1].filepath_src = "/four";
  EXPECT_EQ(
      scandisplay::processRepairLines(risk, repaired()),
      "风险进程名称 : /usr/bin/bad\n风险子项 : /one\n风险子项 : /two\n风险子项 : /three\n风险子项 : /four\n"
      "处理结果 : quarantined\n修复时间 : " +
          CDateTime::format(kTime) + "\n" + kRule);
}

TEST(ScanDisplay, AgentTextCannotDriveTheTerminal) {
  JsonReflect::VirusInfo risk = fileRisk();
  risk.item = "/data/\x1b[2Jx\n发现时间 : forged";
  risk.risk_name = "\x07name";
  risk.risk_type_name = "\rtype";
  JsonReflect::RiskRepairResult repair = repaired();
  repair.handle_detail = "\x1b]0;t\x07";
  JsonReflect::ScanBusOverView overview;
  overview.cur_item = "\x1b[1m";
  JsonReflect::MemoryRiskInfo process;
  process.process_info.exec_file_name = "\x1b[1m";
  process.process_info.proc_risks.resize(1);
  process.process_info.proc_risks[0].item = "\x1b[1m";
  process.process_info.file_risks.resize(1);
  process.process_info.file_risks[0].item = "\x1b[1m";
  for (const std::string& lines :
       {scandisplay::riskLines(risk), scandisplay::overviewLines(overview),
        scandisplay::fileRepairLines(risk, repair), scandisplay::processRepairLines(process, repair)}) {
    EXPECT_EQ(lines.find_first_of("\x1b\x07\r"), std::string::npos) << lines;
  }
  EXPECT_NE(scandisplay::riskLines(risk).find("文件路径 : /data/\\x1b[2Jx\\n发现时间 : forged\n"),
            std::string::npos);
}

TEST(ScanDisplay, PathBytesThatAreNotUtf8AreShownAsHex) {
  JsonReflect::VirusInfo risk = fileRisk();
  risk.item = json::encodePath("/data/\xff\xe4");
  EXPECT_NE(scandisplay::riskLines(risk).find("文件路径 : /data/\\xff\\xe4\n"), std::string::npos);
}

}  // namespace
