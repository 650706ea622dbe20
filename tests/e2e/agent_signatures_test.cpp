// The system's signatures from their files to what the user sees: the real agent and the real console.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "agent/OwnMounts.h"
#include "e2e/AgentTree.h"
#include "support/Wait.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::readFile;
using testsupport::waitFor;

const std::string kOne = "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n";
const std::string kTwo = "Other.Trojan.Two:0:*:74776f206f66207468652073797374656d73\n";
constexpr const char* kBroken = "this is no signature\n";

class SignaturesOfTheSystem : public ::testing::Test {
 protected:
  SignaturesOfTheSystem() {
    tree.write("one", "this is one of the systems");
    tree.write("two", "this is two of the systems");
  }
  void writeSystem(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(tree.systemSignatures());
    std::ofstream(tree.at("new")) << content;
    std::filesystem::rename(tree.at("new"), tree.systemSignatures() + "/" + name);
  }
  std::string copyOf(const std::string& name) const { return readFile(tree.at("state/signatures/" + name)); }
  std::string status() const {
    const auto asked = tree.run({"--status"});
    EXPECT_EQ(0, asked->wait()) << asked->err();
    return asked->out();
  }
  bool statusTells(const std::string& text) const {
    return waitFor([&] { return status().find(text) != std::string::npos; });
  }
  bool logTells(const std::string& text) const {
    return waitFor([&] { return tree.log().find(text) != std::string::npos; });
  }
  /// Scans the data. Returns the standard error; the report is in report.
  std::string batch() {
    const std::string path = tree.at("report" + std::to_string(++reports_));
    const auto console = tree.console("tavcli", {"-scanpath", tree.data(), "-logpath", path});
    console->wait();
    report = readFile(path);
    return console->err();
  }
  void restart() {
    stop();
    tree.start();
  }
  void stop() {
    tree.kill(SIGTERM);
    EXPECT_EQ(0, tree.wait());
  }

  AgentTree tree{{.group = "", .start = false, .uid = {}}};
  std::string report;

 private:
  int reports_ = 0;
};

TEST_F(SignaturesOfTheSystem, ThatAreAllInUseLeaveNoLine) {
  writeSystem("a.ndb", kOne);
  tree.start();
  EXPECT_TRUE(statusTells("shortage=none\n"));
  EXPECT_THAT(batch(), IsEmpty());
  EXPECT_THAT(report, HasSubstr("Other.Trojan.One"));
}

TEST_F(SignaturesOfTheSystem, ThatAreNotThereAreSaidToTheUser) {
  tree.start();
  const std::string shortage =
      "the system's signatures are not in use: " + tree.systemSignatures() + ": No such file or directory";
  EXPECT_TRUE(statusTells("shortage=" + shortage + "\n"));
  EXPECT_EQ(batch(), "tavcli: " + shortage + "\n");
  EXPECT_THAT(tree.log(), HasSubstr("signatures: "));
}

TEST_F(SignaturesOfTheSystem, ThatAreBrokenMissingOrCutAtAStartAreThoseOfTheLastGoodLoad) {
  writeSystem("a.ndb", kOne);
  writeSystem("b.ndb", kOne + kTwo);
  tree.start();
  ASSERT_TRUE(waitFor([&] { return copyOf("a.ndb") == kOne && copyOf("b.ndb") == kOne + kTwo; }));
  for (const std::string& left :
       {std::string(kBroken), std::string{}, (kOne + kTwo).substr(0, kOne.size() + 29)}) {
    stop();
    writeSystem("b.ndb", left);
    tree.start();
    EXPECT_THAT(batch(),
                HasSubstr("tavcli: not all of the system's signatures are in use: b.ndb is left out: "))
        << left;
    EXPECT_THAT(report, HasSubstr("Other.Trojan.Two")) << left;
    EXPECT_TRUE(statusTells(", and the last good copy is in use\n"));
    EXPECT_EQ(copyOf("b.ndb"), kOne + kTwo);
  }
  stop();
  std::filesystem::remove_all(tree.systemSignatures());
  tree.start();
  EXPECT_THAT(batch(), HasSubstr("a.ndb is missing, and the last good copy is in use"));
  EXPECT_THAT(report, HasSubstr("Other.Trojan.One"));
  EXPECT_THAT(report, HasSubstr("Other.Trojan.Two"));
  EXPECT_EQ(copyOf("a.ndb") + copyOf("b.ndb"), kOne + kOne + kTwo) << "a load from copies is not copied";
}

TEST_F(SignaturesOfTheSystem, ThatAreBrokenAtAReloadLeaveTheOldOnesInUseAndAreSaid) {
  writeSystem("a.ndb", kOne);
  tree.start();
  ASSERT_TRUE(waitFor([&] { return copyOf("a.ndb") == kOne; }));
  writeSystem("a.ndb", kBroken);
  tree.kill(SIGHUP);
  ASSERT_TRUE(logTells("signatures could not be loaded again"));
  EXPECT_TRUE(statusTells("shortage=the signatures of an earlier load are in use: "));
  EXPECT_THAT(batch(), HasSubstr("tavcli: the signatures of an earlier load are in use: "));
  EXPECT_THAT(report, HasSubstr("Other.Trojan.One"));
  EXPECT_EQ(copyOf("a.ndb"), kOne);
}

TEST_F(SignaturesOfTheSystem, ThatAreNewOnAFullDiskAreInUseAndTheirCopyStays) {
  writeSystem("a.ndb", kOne);
  std::filesystem::create_directories(tree.at("state/signatures"));
  const auto onSmallDisk = [&] {
    return mount("tmpfs", tree.at("state/signatures").c_str(), "tmpfs", 0, "size=256k") == 0;
  };
  const bool ran = agent::withOwnMounts(onSmallDisk, [&] {
    tree.start();
    ASSERT_TRUE(logTells("the copy of the system's signatures stays as it is: the disk is full: "));
    writeSystem("b.ndb", kTwo);
    tree.kill(SIGHUP);
    ASSERT_TRUE(logTells("signatures were loaded again"));
    EXPECT_THAT(batch(), IsEmpty());
    EXPECT_THAT(report, HasSubstr("Other.Trojan.Two"));
    EXPECT_TRUE(std::filesystem::is_empty(tree.at("state/signatures")));
    stop();
  });
  if (!ran) {
    GTEST_SKIP() << "this process may not mount";
  }
}

TEST_F(SignaturesOfTheSystem, StandInLogAndStatusWithTheVersionsOfWhatScans) {
  writeSystem("a.ndb", kOne);
  tree.start();
  ASSERT_TRUE(logTells("signatures: "));
  EXPECT_THAT(tree.log(), HasSubstr("libclamav "));
  const std::string told = status();
  for (const char* key : {"\nrules=tavagentd ", "\nlimits=file ", "\nsignatures=", "\nsignature_version="}) {
    EXPECT_THAT(told, HasSubstr(key));
  }
}

}  // namespace
