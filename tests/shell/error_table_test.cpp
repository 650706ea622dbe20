#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "OnATerminal.h"
#include "lineeditor/Terminal.h"
#include "shell/ErrorTable.h"
#include "support/Capture.h"
#include "support/Golden.h"

using testsupport::goldenLines;
using testsupport::outputOf;

namespace {

const char kGolden[] = "shell/data/error_table.txt";

std::string printed(std::int32_t code) {
  return outputOf([code] { ErrorTable::instance().print(code); });
}

/// A line of the golden file: "code message".
class ErrorTableRow : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(ErrorTableRow, PrintsItsMessage) {
  const std::size_t blank = GetParam().find(' ');
  EXPECT_EQ(printed(std::stoi(GetParam())), "ERR: " + GetParam().substr(blank + 1) + " \n");
}

INSTANTIATE_TEST_SUITE_P(Codes, ErrorTableRow, testing::ValuesIn(goldenLines(kGolden)),
                         [](const auto& row) { return "Minus" + std::to_string(-std::stoi(row.param)); });

TEST(ErrorTable, HoldsTheMessagesOfItsGoldenFileAndNoOthers) {
  std::string table;
  for (std::int32_t code = 20000; code >= -20000; --code) {
    if (const std::string* const message = ErrorTable::instance().find(code)) {
      table += std::to_string(code) + " " + *message + "\n";
    }
  }
  testsupport::expectGolden(kGolden, table);
}

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
  EXPECT_THAT(testsupport::goldenText(kGolden), testing::Not(testing::HasSubstr("trustlation failed")));
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
