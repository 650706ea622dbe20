#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "bin/CommandLine.h"
#include "platform/Text.h"
#include "support/TempDir.h"

namespace {

using tavcli::BatchOptions;
using tavcli::checkBatchOptions;
using tavcli::parseCommandLine;

struct Parse {
  const char* name;
  std::vector<std::string> words;
  std::string scanPath;
  std::string logPath;
  int timeoutSec;
};

class CommandLineWords : public testing::TestWithParam<Parse> {};

TEST_P(CommandLineWords, AreReadAsTheirRowSays) {
  const BatchOptions options = parseCommandLine(GetParam().words);
  EXPECT_EQ(options.scanPath, GetParam().scanPath);
  EXPECT_EQ(options.logPath, GetParam().logPath);
  EXPECT_EQ(options.timeoutSec, GetParam().timeoutSec);
}

const Parse kParses[] = {
    {"NoWordsGiveTheDefaults", {}, "", "", 86400},
    {"ScanpathTakesTheNextWord", {"-scanpath", "/x"}, "/x", "", 86400},
    {"LogpathTakesTheNextWord", {"-logpath", "/l"}, "", "/l", 86400},
    {"TimeoutTakesTheNextWord", {"-timeout", "5"}, "", "", 5},
    {"TimeoutAsTheLastWordIsIgnored", {"-scanpath", "/x", "-logpath", "/l", "-timeout"}, "/x", "/l", 86400},
    {"ScanpathAsTheLastWordIsIgnored", {"-scanpath"}, "", "", 86400},
    {"LogpathAsTheLastWordIsIgnored", {"-scanpath", "/x", "-logpath"}, "/x", "", 86400},
    {"ARepeatedOptionKeepsItsLastValue", {"-scanpath", "/a", "-scanpath", "/b"}, "/b", "", 86400},
    {"UnknownWordsArePassedOver", {"-x", "-scanpath", "/a", "y", "-logpath", "/l", "z"}, "/a", "/l", 86400},
    {"AnOptionTakesAnOptionAsItsValue", {"-scanpath", "-logpath", "/l"}, "-logpath", "", 86400},
    {"ATimeoutThatIsNoNumberIsZero", {"-timeout", "soon"}, "", "", 0},
    {"ATimeoutIsReadUpToTheFirstLetter", {"-timeout", "12s"}, "", "", 12},
    {"ANegativeTimeoutIsTaken", {"-timeout", "-7"}, "", "", -7},
    {"ATimeoutBeyondTheRangeIsItsEnd", {"-timeout", "99999999999999999999"}, "", "", 2147483647},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, CommandLineWords, testing::ValuesIn(kParses),
                         [](const auto& row) { return row.param.name; });

TEST(BatchCommand, CarriesBothPathsAndTheBatchMark) {
  EXPECT_EQ(tavcli::batchCommand({"/data", "/tmp/r.txt", 1}),
            "SCAN START HANDLE UPLOAD SPECIALCONFIG OFF MODE CUSTOM PATH /data LOGPATH tav1/tmp/r.txt");
}

class BatchArguments : public testing::Test {
 protected:
  ~BatchArguments() override { std::filesystem::current_path(before_); }

  /// The line for standard error; "-" for accepted options.
  std::string refusalOf(const std::string& scanPath, const std::string& logPath) {
    const auto checked = checkBatchOptions({scanPath, logPath, 5});
    out_ = checked ? "" : checked.error().out;
    accepted_ = checked.value_or(BatchOptions{});
    return checked ? "-" : checked.error().err;
  }

  testsupport::TempDir dir_;
  std::string out_;
  BatchOptions accepted_;

 private:
  const std::filesystem::path before_ = std::filesystem::current_path();
};

TEST_F(BatchArguments, WithAPathToScanAndANewReportAreAccepted) {
  EXPECT_EQ(refusalOf(dir_.path(), dir_.at("report")), "-");
  EXPECT_FALSE(std::filesystem::exists(dir_.at("report")));
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path())) << "the trial of the folder leaves nothing";
}

TEST_F(BatchArguments, WithoutAScanPathPrintTheScanpathLine) {
  EXPECT_NE(refusalOf("", dir_.at("report")).find("-scanpath"), std::string::npos);
  EXPECT_EQ(out_, "get scanpath failed.");
}

TEST_F(BatchArguments, WithoutBothPrintTheScanpathLine) {
  refusalOf("", "");
  EXPECT_EQ(out_, "get scanpath failed.");
}

TEST_F(BatchArguments, WithoutALogPathPrintTheLogpathLine) {
  EXPECT_NE(refusalOf(dir_.path(), "").find("-logpath"), std::string::npos);
  EXPECT_EQ(out_, "get logpath failed.");
}

TEST_F(BatchArguments, WithAScanPathThatDoesNotExistAreRefusedSilently) {
  EXPECT_EQ(refusalOf(dir_.at("absent"), dir_.at("report")), "");
  EXPECT_EQ(out_, "");
}

TEST_F(BatchArguments, WithALogPathThatExistsAreRefusedSilently) {
  dir_.write("report", "old");
  EXPECT_EQ(refusalOf(dir_.path(), dir_.at("report")), "");
  EXPECT_EQ(out_, "");
  EXPECT_EQ(testsupport::readFile(dir_.at("report")), "old");
}

TEST_F(BatchArguments, WithALogPathThatIsAFolderAreRefusedSilently) {
  EXPECT_EQ(refusalOf(dir_.path(), dir_.path()), "");
}

TEST_F(BatchArguments, WithALogPathThatIsADanglingLinkAreRefused) {
  std::filesystem::create_symlink(dir_.at("nowhere"), dir_.at("link"));
  EXPECT_NE(refusalOf(dir_.path(), dir_.at("link")).find("link"), std::string::npos);
}

class WhiteSpace : public BatchArguments, public testing::WithParamInterface<char> {};

TEST_P(WhiteSpace, InTheScanPathIsRefusedByName) {
  const std::string name = dir_.at(std::string("a") + GetParam() + "b");
  std::filesystem::create_directory(name);
  const std::string complaint = refusalOf(name, dir_.at("report"));
  EXPECT_NE(complaint.find("-scanpath"), std::string::npos) << complaint;
  EXPECT_NE(complaint.find("scan a folder above"), std::string::npos) << complaint;
  EXPECT_EQ(complaint.find('\n'), std::string::npos) << "one line";
}

TEST_P(WhiteSpace, InAScanPathThatDoesNotExistIsRefusedSilently) {
  EXPECT_EQ(refusalOf(dir_.at(std::string("a") + GetParam() + "b"), dir_.at("report")), "");
  EXPECT_EQ(out_, "");
}

TEST_P(WhiteSpace, InALogPathThatExistsIsRefusedSilently) {
  const std::string name = std::string("a") + GetParam() + "b";
  dir_.write(name, "old");
  EXPECT_EQ(refusalOf(dir_.path(), dir_.at(name)), "");
}

TEST_P(WhiteSpace, InTheCurrentFolderOfARelativeScanPathNamesThatFolder) {
  const std::string name = std::string("a") + GetParam() + "b";
  dir_.write(name + "/data/file", "");
  ASSERT_EQ(chdir(dir_.at(name).c_str()), 0);
  EXPECT_EQ(refusalOf("data", dir_.at("report")),
            "tavcli: -scanpath \"data\" is relative, and the current folder \"" +
                platform::visibleText(dir_.at(name)) +
                "\" holds white space, which a command line cannot carry: name a folder above it, from / on");
}

TEST_P(WhiteSpace, InTheLogPathIsRefusedByName) {
  const std::string complaint = refusalOf(dir_.path(), dir_.at(std::string("a") + GetParam() + "b"));
  EXPECT_NE(complaint.find("-logpath"), std::string::npos) << complaint;
}

INSTANTIATE_TEST_SUITE_P(BatchArguments, WhiteSpace, testing::Values(' ', '\t', '\n', '\v', '\f', '\r'),
                         [](const auto& row) { return "Character" + std::to_string(row.param); });

TEST_F(BatchArguments, ThatMakeALineOf4096CharactersAreRefused) {
  // Components of at most 255 bytes make a path that exists.
  std::string deep = dir_.path();
  while (deep.size() + 101 < 4000) {
    deep += "/" + std::string(100, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0) << deep.size();
  }
  const std::size_t fixed = tavcli::batchCommand({deep, "", 1}).size();
  const std::string log = dir_.path() + "/";
  const std::size_t room = tavcli::kLineBufferBytes - 1 - fixed - log.size();
  EXPECT_EQ(refusalOf(deep, log + std::string(room, 'r')), "-") << "4095 characters are not cut";
  EXPECT_NE(refusalOf(deep, log + std::string(room + 1, 'r')).find("4095"), std::string::npos);
}

TEST_F(BatchArguments, WithALogPathInAMissingFolderAreRefused) {
  const std::string complaint = refusalOf(dir_.path(), dir_.at("absent/report"));
  EXPECT_NE(complaint.find("absent"), std::string::npos) << complaint;
  EXPECT_NE(complaint.find("No such file"), std::string::npos) << complaint;
}

TEST_F(BatchArguments, WithALogPathInAFolderThatCannotBeWrittenAreRefused) {
  // Not even root makes files there.
  const std::string complaint = refusalOf(dir_.path(), "/proc/self/report");
  EXPECT_NE(complaint.find("/proc/self"), std::string::npos) << complaint;
}

TEST_F(BatchArguments, WithALogPathBelowAFileAreRefused) {
  dir_.write("file", "");
  EXPECT_NE(refusalOf(dir_.path(), dir_.at("file/report")).find("-logpath"), std::string::npos);
}

TEST_F(BatchArguments, WithALogNameTooLongForTheFolderAreRefused) {
  EXPECT_NE(refusalOf(dir_.path(), dir_.at(std::string(256, 'n'))).find("too long"), std::string::npos);
}

TEST_F(BatchArguments, WithControlCharactersAreNamedVisibly) {
  const std::string complaint = refusalOf(dir_.path(), dir_.at("\x1b[31m/report"));
  EXPECT_EQ(complaint.find('\x1b'), std::string::npos);
  EXPECT_NE(complaint.find("\\x1b"), std::string::npos) << complaint;
}

TEST_F(BatchArguments, WithARelativeScanPathMeanTheConsolesFolder) {
  dir_.write("data/file", "");
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(refusalOf("data", dir_.at("report")), "-");
  EXPECT_EQ(accepted_.scanPath, dir_.path() + "/data");
}

TEST_F(BatchArguments, ThatMakeALineOf4096CharactersWithTheCurrentFolderAreRefused) {
  std::string deep = dir_.path();
  while (deep.size() + 101 < 3900) {
    deep += "/" + std::string(100, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0) << deep.size();
  }
  ASSERT_EQ(mkdir((deep + "/data").c_str(), 0700), 0);
  ASSERT_EQ(chdir(deep.c_str()), 0);
  const std::size_t fixed = tavcli::batchCommand({deep + "/data", "", 1}).size();
  const std::string log = dir_.path() + "/";
  const std::size_t room = tavcli::kLineBufferBytes - 1 - fixed - log.size();
  EXPECT_EQ(refusalOf("data", log + std::string(room, 'r')), "-") << "4095 characters are not cut";
  EXPECT_NE(refusalOf("data", log + std::string(room + 1, 'r')).find("4095"), std::string::npos);
}

class WithoutACurrentFolder : public BatchArguments {
 protected:
  /// Ends the process with the refusal's line on standard error.
  [[noreturn]] void refuseThere(const char* scanPath) const {
    const std::string gone = dir_.at("gone");
    if (mkdir(gone.c_str(), 0700) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0) {
      _exit(2);
    }
    const auto checked = checkBatchOptions({scanPath, dir_.at("report"), 5});
    std::fputs(checked ? checked->scanPath.c_str() : checked.error().err.c_str(), stderr);
    _exit(0);
  }
};

TEST_F(WithoutACurrentFolder, ARelativeScanPathThatIsThereIsRefused) {
  EXPECT_EXIT(refuseThere("."), testing::ExitedWithCode(0),
              "^tavcli: -scanpath \"\\.\" is relative, and the current folder is gone: name it from / on$");
}

TEST_F(WithoutACurrentFolder, ARelativeScanPathThatIsNotThereIsRefusedSilently) {
  EXPECT_EXIT(refuseThere("etc"), testing::ExitedWithCode(0), "^$");  // there is an /etc
}

TEST_F(BatchArguments, WithARelativeLogPathStayAsTheyAre) {
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(refusalOf(dir_.path(), "report"), "-");
  EXPECT_EQ(accepted_.logPath, "report");
}

}  // namespace
