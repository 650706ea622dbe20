#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>

#include "OnATerminal.h"
#include "lineeditor/Terminal.h"
#include "shell/ErrorTable.h"
#include "support/Capture.h"

using testsupport::outputOf;

namespace {

struct Row {
  std::int32_t code;
  const char* message;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.code << " " << row.message;
}

std::string printed(std::int32_t code) {
  return outputOf([code] { ErrorTable::instance().print(code); });
}

const Row kRows[] = {
    {-10001, "parameter error"},
    {-10002, "scan func error,input start,stop,parse"},
    {-10003, "scan module empty"},
    {-10004, "scan func unknow"},
    {-10005, "scan module unknow"},
    {-10006, "scan handle empty"},
    {-10007, "scan handle unknow"},
    {-10008, "scan specialconfig empty"},
    {-10009, "scan specialconfig unknow"},
    {-10010, "scan path empty"},
    {-10011, "scan failed"},
    {-11001, "config func error"},
    {-11002, "config scanmodule unknow"},
    {-11003, "config scanmodule empty"},
    {-11004, "config scanhandle empty"},
    {-11005, "config scanhandle unknow"},
    {-11006, "config protectlevel empty"},
    {-11007, "config protectlevel unknow"},
    {-11008, "config archivefilesize empty"},
    {-11009, "config archivefilesize unknow"},
    {-11010, "config archivelayer empty"},
    {-11011, "config archivelayer unknow"},
    {-11012, "config loglevel empty"},
    {-11013, "config loglevel unknow"},
    {-11014, "config sw_switcher empty"},
    {-11015, "config sw_switcher unknow"},
    {-11016, "config failed"},
    {-12001, "trustlation func error"},
    {-12002, "trustlation method unknow"},
    {-12003, "trustlation method empty"},
    {-12004, "trustlation trustpath empty"},
    {-12005, "trustlation trustext unknow"},
    {-13001, "isolation func error"},
    {-13003, "isolation trust empty"},
    {-13004, "isolation trust unknow"},
    {-13005, "isolation itemid empty"},
    {-13002, "isolation failed"},
    {-14001, "updateaddr func error"},
    {-14002, "updateaddr failed"},
    {-14003, "updateaddr addr empty"},
    {-14004, "updateaddr port empty"},
    {-14005, "updateaddr port format error"},
    {-14006, "updateaddr port defect"},
    {-14007, "updateaddr addr defect"},
    {-14008, "updateaddr addr format error"},
};

class ErrorTableRow : public testing::TestWithParam<Row> {};

}  // namespace

TEST_P(ErrorTableRow, PrintsItsMessage) {
  EXPECT_EQ(printed(GetParam().code), std::string("ERR: ") + GetParam().message + " \n");
}

INSTANTIATE_TEST_SUITE_P(Codes, ErrorTableRow, testing::ValuesIn(kRows),
                         [](const auto& row) { return "Minus" + std::to_string(-row.param.code); });

TEST(ErrorTable, TheCodeOfTwoMessagesKeepsTheFirst) {
  EXPECT_EQ(printed(-11006), "ERR: config protectlevel empty \n");
}

TEST(ErrorTable, PrintsTheTrustExtensionMessage) {
  EXPECT_EQ(printed(-12005), "ERR: trustlation trustext unknow \n");
}

TEST(ErrorTable, PrintsNothingForACodeWithoutAMessage) {
  for (const std::int32_t code : {0, 1, -1, 10001, -99999, -13006, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(printed(code), "") << code;
  }
}

TEST(ErrorTable, NoMessageOfAFailedTrustRegionRequestIsStored) {
  for (const Row& row : kRows) {
    EXPECT_NE(*ErrorTable::instance().find(row.code), "trustlation failed");
  }
}

TEST(ErrorTable, IsOneTable) {
  EXPECT_EQ(&ErrorTable::instance(), &ErrorTable::instance());
}

TEST(ErrorTable, OnATerminalTheColourIsResetBehindTheMessage) {
  // The sequences reach the terminal with the next flush, behind the text.
  OnATerminal console([] {
    ErrorTable::instance().print(-11006);
    lineeditor::flushOutput();
  });
  EXPECT_EQ(console.readToTheEnd(), "ERR: config protectlevel empty \r\n\x1b[m\x1b[91m\x1b[m");
}

TEST(ErrorTable, WithoutColoursOnATerminalThatIsNotUsable) {
  OnATerminal console(
      [] {
        ErrorTable::instance().print(-11006);
        lineeditor::flushOutput();
      },
      "DUMB");
  EXPECT_EQ(console.readToTheEnd(), "ERR: config protectlevel empty \r\n");
}
