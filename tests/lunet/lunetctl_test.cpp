#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <sstream>

#include "BusFixture.h"
#include "lunet/ListenerAt.h"
#include "support/Json.h"
#include "support/Pty.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::Process;
using testsupport::waitFor;

class LunetctlTest : public BusTest {
 protected:
  LunetctlTest() { installTree("{\"log_level\":3,\"connect_timeout_ms\":10000}"); }

  struct Result {
    int status;
    std::string out;
    std::string err;
  };
  static Result run(const std::vector<std::string>& command) {
    Process process(command);
    const int status = process.wait().value_or(-1);
    return {status, process.out(), process.err()};
  }
  /// The n-th line, waited for.
  static Json::Value line(Process& process, std::size_t n) {
    EXPECT_TRUE(waitFor([&] { return testsupport::jsonLines(process.out()).size() > n; }))
        << process.out() << process.err();
    const std::vector<Json::Value> lines = testsupport::jsonLines(process.out());
    return n < lines.size() ? lines[n] : Json::Value(Json::objectValue);
  }

  const std::string guid = lunet::formatGuid(newGuid());
};

TEST_F(LunetctlTest, AListenerTakesTheFirstMessageThatReachesItAndSaysReadyBefore) {
  Client client(config());
  Endpoint caller(client, newGuid());
  for (int round = 0; round < 30; ++round) {
    const lunet::Guid address = newGuid();
    Player player(lunetctl({"listen", lunet::formatGuid(address)}));
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!lunet::listenerAt(socketFolder(), address)) {  // without a pause, to be the first caller
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << player.process.err();
    }
    ASSERT_EQ(caller.send(address, "first"), lunet::kOk);
    EXPECT_EQ(line(player.process, 0)["event"], "ready");
    EXPECT_EQ(line(player.process, 1)["data"], "first") << round;
  }
}

TEST_F(LunetctlTest, ListShowsTheEndpointsAliveWithPidAndUser) {
  std::filesystem::remove_all(socketFolder());
  const Result none = run(lunetctl({"list"}));
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(none.out, "");
  Player first(lunetctl({"listen", guid}));
  Player second(lunetctl({"listen", lunet::kAgentGuid}));
  ASSERT_TRUE(first.ready() && second.ready());
  const Result both = run(lunetctl({"list"}));
  EXPECT_EQ(both.status, 0);
  const passwd* entry = getpwuid(geteuid());
  const std::string user = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
  EXPECT_NE(both.out.find(guid + "  " + std::to_string(first.process.pid()) + "  " + user + "\n"),
            std::string::npos)
      << both.out;
  EXPECT_NE(both.out.find(std::string(lunet::kAgentGuid) + "  " + std::to_string(second.process.pid())),
            std::string::npos);
  first.process.kill(SIGKILL);
  first.process.wait();
  EXPECT_EQ(run(lunetctl({"list"})).out.find(guid), std::string::npos);
}

TEST_F(LunetctlTest, AListIsInOrderAndHoldsEndpointsOnly) {
  Client client(config());
  std::vector<std::unique_ptr<Endpoint>> endpoints;
  std::vector<std::string> expected;
  for (int i = 0; i < 12; ++i) {
    endpoints.push_back(std::make_unique<Endpoint>(client, newGuid()));
    expected.push_back(lunet::formatGuid(endpoints.back()->guid()));
  }
  std::sort(expected.begin(), expected.end());
  std::string lower = expected[0];
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  for (const std::string& name : {lower + ".sock", std::string("other.sock"), guid + ".new", guid + ".sock",
                                  std::string(lunet::kConsoleGuid) + ".mark"}) {
    tree.write("run/lunet/" + name, "");
  }
  const Result list = run(lunetctl({"list"}));
  EXPECT_EQ(list.status, 0) << list.err;
  std::vector<std::string> addresses;
  std::istringstream lines(list.out);
  for (std::string each; std::getline(lines, each);) {
    addresses.push_back(each.substr(0, each.find(' ')));
  }
  EXPECT_EQ(addresses, expected) << list.out;
}

TEST_F(LunetctlTest, ListenTakesLongAndOddTextsBothWays) {
  Client client(config());
  Endpoint peer(client, newGuid(), echo);
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  const std::string odd = "\"\\/\t\r\n\x01 \u00e9\u4e2d\U0001f600 %s %n {}[]";
  for (const std::string& text : {std::string(), odd, std::string(300000, 'l')}) {
    Json::Value call(Json::objectValue);
    call["call"] = lunet::formatGuid(peer.guid());
    call["data"] = text;
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    const std::size_t before = testsupport::jsonLines(player.process.out()).size();
    player.process.write(Json::writeString(compact, call) + "\n");
    EXPECT_TRUE(line(player.process, before)["data"].asString() == text) << text.substr(0, 80);
    EXPECT_TRUE(peer.messages().back().data == text);
    peer.send(lunet::parseGuid(guid.c_str()), text);
    EXPECT_TRUE(line(player.process, before + 1)["data"].asString() == text) << text.substr(0, 80);
  }
}

TEST_F(LunetctlTest, ALastLineWithoutALineEndIsDone) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  player.process.write("{\"send\":\"" + guid + "\",\"data\":\"last\"}");
  player.process.closeInput();
  EXPECT_EQ(player.process.wait(), 0);
  EXPECT_NE(player.process.out().find("{\"error\":0,\"event\":\"sent\"}"), std::string::npos)
      << player.process.out();
}

TEST_F(LunetctlTest, RepliesMayBeGivenInAnotherOrderThanTheirRequests) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  Process first(lunetctl({"call", guid, "first"}));
  const std::string firstId = line(player.process, 1)["id"].asString();
  Process second(lunetctl({"call", guid, "second"}));
  const std::string secondId = line(player.process, 2)["id"].asString();
  player.process.write("{\"reply\":" + secondId + ",\"data\":\"to the second\"}\n");
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(second.out(), "to the second\n");
  player.process.write("{\"reply\":" + firstId + ",\"data\":\"to the first\"}\n");
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(first.out(), "to the first\n");
}

TEST_F(LunetctlTest, ATreeThatIsNotThereIsNamed) {
  const Result result = run({tree.at("bin/lunetctl"), "--runtime", tree.at("absent"), "list"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("absent"), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, AFolderThatCannotBeReadIsNamed) {
  tree.write("run/lunet", "a file");
  const Result result = run(lunetctl({"list"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("run/lunet cannot be read: Not a directory"), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, ABusConfigurationThatOthersMayWriteIsRefused) {
  ASSERT_EQ(chmod(tree.at("etc/communication/cli_lunet.conf").c_str(), 0666), 0);
  const Result result = run(lunetctl({"list"}));
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("cli_lunet.conf can be written by others"), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, CallPrintsTheAnswer) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  Process call(lunetctl({"call", guid, "how are you"}));
  const Json::Value message = line(player.process, 1);
  EXPECT_EQ(message["event"].asString(), "message");
  EXPECT_EQ(message["channel"].asUInt(), 10990u);
  EXPECT_EQ(message["data"].asString(), "how are you");
  EXPECT_TRUE(message["wants_reply"].asBool());
  player.process.write("{\"reply\":" + message["id"].asString() + ",\"data\":\"fine\"}\n");
  EXPECT_EQ(call.wait(), 0);
  EXPECT_EQ(call.out(), "fine\n");
}

TEST_F(LunetctlTest, SendSendsAndWaitsForNothing) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  const Result sent = run(lunetctl({"send", guid, "news"}));
  EXPECT_EQ(sent.status, 0);
  EXPECT_EQ(sent.out + sent.err, "");
  const Json::Value message = line(player.process, 1);
  EXPECT_EQ(message["channel"].asUInt(), 20991u);
  EXPECT_EQ(message["data"].asString(), "news");
  EXPECT_FALSE(message["wants_reply"].asBool());
  EXPECT_NE(lunet::parseGuid(message["peer"].asCString()), lunet::Guid{});
}

TEST_F(LunetctlTest, AnAbsentEndpointIsAnErrorOfOneLine) {
  for (const char* command : {"call", "send"}) {
    const Result result = run(lunetctl({command, guid, "x"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("nobody is at that address now (0xE0010002)"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(LunetctlTest, ListenSendsAndPrintsTheError) {
  Player peer(lunetctl({"listen", lunet::kAgentGuid}));
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(peer.ready() && player.ready());
  player.process.write("{\"send\":\"" + std::string(lunet::kAgentGuid) +
                       "\",\"channel\":20991,\"data\":\"Grüße\"}\n");
  EXPECT_EQ(line(player.process, 1)["event"].asString(), "sent");
  EXPECT_EQ(line(player.process, 1)["error"].asUInt(), 0u);
  EXPECT_EQ(line(peer.process, 1)["data"].asString(), "Grüße");
  EXPECT_EQ(line(peer.process, 1)["peer"].asString(), guid);
  player.process.write("{\"send\":\"" + lunet::formatGuid(newGuid()) +
                       "\",\"channel\":20991,\"data\":\"x\"}\n");
  EXPECT_EQ(line(player.process, 2)["error"].asUInt(), lunet::kErrNoTarget);
}

TEST_F(LunetctlTest, ListenSendsOnTheChannelThatItsLineNames) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  player.process.write("{\"send\":\"" + guid + "\",\"channel\":10990,\"data\":\"self\"}\n");
  ASSERT_TRUE(player.gotMessage("self"));
  EXPECT_TRUE(player.process.waitForOut("\"channel\":10990")) << player.process.out();
}

TEST_F(LunetctlTest, ListenCallsAndPrintsTheAnswer) {
  Player peer(lunetctl({"listen", lunet::kAgentGuid}));
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(peer.ready() && player.ready());
  const std::string call =
      "{\"call\":\"" + std::string(lunet::kAgentGuid) + "\",\"channel\":10990,\"data\":\"q\",\"timeout_ms\":";
  player.process.write(call + "20000}\n");
  EXPECT_EQ(line(peer.process, 1)["data"].asString(), "q");
  peer.process.write("{\"reply\":" + line(peer.process, 1)["id"].asString() + ",\"data\":\"a\"}\n");
  EXPECT_EQ(line(player.process, 1)["event"].asString(), "answer");
  EXPECT_EQ(line(player.process, 1)["error"].asUInt(), 0u);
  EXPECT_EQ(line(player.process, 1)["data"].asString(), "a");
  player.process.write(call + "20}\n");
  EXPECT_EQ(line(player.process, 2)["error"].asUInt(), lunet::kErrTimeout);
  EXPECT_EQ(line(player.process, 2)["data"].asString(), "");
}

TEST_F(LunetctlTest, ListenRepliesWhileItsOwnCallIsUnderWay) {
  Player peer(lunetctl({"listen", lunet::kAgentGuid}));
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(peer.ready() && player.ready());
  player.process.write("{\"call\":\"" + std::string(lunet::kAgentGuid) + "\",\"data\":\"q\"}\n");
  const Json::Value question = line(peer.process, 1);
  Process third(lunetctl({"call", guid, "meanwhile"}));
  const Json::Value meanwhile = line(player.process, 1);
  player.process.write("{\"reply\":" + meanwhile["id"].asString() + ",\"data\":\"yes\"}\n");
  EXPECT_EQ(third.wait(), 0);
  EXPECT_EQ(third.out(), "yes\n");
  peer.process.write("{\"reply\":" + question["id"].asString() + ",\"data\":\"a\"}\n");
  EXPECT_EQ(line(player.process, 2)["data"].asString(), "a");
}

TEST_F(LunetctlTest, ControlCharactersAreEscapedInEveryLine) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  run(lunetctl({"send", guid, "a\nb\x1b[31m\x7f"}));
  EXPECT_EQ(line(player.process, 1)["data"].asString(), "a\nb\x1b[31m\x7f");
  for (const char c : player.process.out()) {
    EXPECT_TRUE(c == '\n' || (c >= 0x20 && c != 0x7f)) << static_cast<int>(c);
  }
}

class UnreadableLineTest : public LunetctlTest, public testing::WithParamInterface<const char*> {};

TEST_P(UnreadableLineTest, IsAnsweredWithAnErrorAndTheNextOneIsDone) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  player.process.write(std::string(GetParam()) + "\n");
  EXPECT_EQ(line(player.process, 1)["event"].asString(), "error");
  EXPECT_NE(line(player.process, 1)["message"].asString(), "");
  player.process.write("{\"send\":\"" + guid + "\",\"channel\":20991,\"data\":\"self\"}\n");
  EXPECT_TRUE(player.gotMessage("self"));
  player.process.closeInput();
  EXPECT_EQ(player.process.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, UnreadableLineTest,
    testing::Values("nonsense", "[]", "{}", "{\"reply\":1}", "{\"reply\":\"1\",\"data\":\"x\"}",
                    "{\"reply\":99,\"data\":\"nobody waits\"}", "{\"reply\":-1,\"data\":\"x\"}",
                    "{\"send\":\"no guid\",\"data\":\"x\"}", "{\"send\":5,\"data\":\"x\"}",
                    "{\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\"}",
                    "{\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":\"x\",\"channel\":-1}",
                    "{\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":\"x\",\"channel\":\"1\"}",
                    "{\"call\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":\"x\",\"timeout_ms\":1.5}",
                    "{\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":5}",
                    "{\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\","
                    "\"call\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":\"x\"}",
                    "{\"reply\":1,\"send\":\"FBE54D8E-D8E6-41F8-BE05-A94CE5469587\",\"data\":\"x\"}"));

TEST_F(LunetctlTest, BlankLinesArePassedOver) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  player.process.write("\n \t\r\n{\"send\":\"" + guid + "\",\"data\":\"self\"}\n");
  EXPECT_TRUE(player.gotMessage("self"));
  EXPECT_EQ(player.process.out().find("\"event\":\"error\""), std::string::npos) << player.process.out();
}

TEST_F(LunetctlTest, ASecondReplyToAMessageIsAnError) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  Process call(lunetctl({"call", guid, "x"}));
  const std::string id = line(player.process, 1)["id"].asString();
  player.process.write("{\"reply\":" + id + ",\"data\":\"one\"}\n{\"reply\":" + id + ",\"data\":\"two\"}\n");
  EXPECT_EQ(line(player.process, 2)["message"].asString(), "no message " + id + " waits for a reply");
  EXPECT_EQ(call.wait(), 0);
  EXPECT_EQ(call.out(), "one\n");
}

TEST_F(LunetctlTest, AReplyToACallerWhoIsGoneIsAnError) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  Process call(lunetctl({"call", guid, "x"}));
  const std::string id = line(player.process, 1)["id"].asString();
  call.kill(SIGKILL);
  call.wait();
  player.process.write("{\"reply\":" + id + ",\"data\":\"late\"}\n");
  const std::string why = line(player.process, 2)["message"].asString();
  EXPECT_TRUE(why.starts_with("message " + id + " is not replied to: ")) << why;
}

TEST_F(LunetctlTest, ATextMayBeginAsAnOptionDoes) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  EXPECT_EQ(run(lunetctl({"send", guid, "--text"})).status, 0);
  EXPECT_TRUE(player.gotMessage("--text"));
}

TEST_F(LunetctlTest, OnATerminalAnAnswersControlCharactersAreVisible) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  const std::string tool = "'" + tree.at("bin/lunetctl") + "' --runtime '" + tree.path() + "'";
  testsupport::PtyProgram call({"/bin/sh", "-c", tool + " call " + guid + " x < /dev/null"});
  const std::string id = line(player.process, 1)["id"].asString();
  player.process.write("{\"reply\":" + id + ",\"data\":\"\\u001b[2Jgone\"}\n");
  EXPECT_TRUE(call.waitForText("\\x1b[2Jgone"));
}

TEST_F(LunetctlTest, OutputThatCannotBeWrittenIsAFailureOfOneLine) {
  const std::string help = "'" + tree.at("bin/lunetctl") + "' --help";
  const Result full = run({"/bin/sh", "-c", help + " > /dev/full"});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(full.err, "lunetctl: standard output cannot be written\n");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);  // the shell gets the writing end
  close(ends[0]);
  const Result gone = run({"/bin/bash", "-c", help + " >&" + std::to_string(ends[1])});
  close(ends[1]);
  EXPECT_EQ(gone.status, 1);
  EXPECT_EQ(gone.err, "lunetctl: standard output cannot be written\n");
}

TEST_F(LunetctlTest, TheEndOfTheInputEndsListenAndLeavesNothingBehind) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  player.process.closeInput();
  EXPECT_EQ(player.process.wait(), 0);
  EXPECT_TRUE(std::filesystem::is_empty(socketFolder()));
}

TEST_F(LunetctlTest, WhatWasAskedBeforeTheEndIsStillDone) {
  Player peer(lunetctl({"listen", lunet::kAgentGuid}));
  ASSERT_TRUE(peer.ready());
  Player player(lunetctl({"listen", guid}));
  player.process.write("{\"send\":\"" + std::string(lunet::kAgentGuid) + "\",\"data\":\"last words\"}\n");
  player.process.closeInput();
  EXPECT_EQ(player.process.wait(), 0);
  EXPECT_TRUE(peer.gotMessage("last words"));
  EXPECT_NE(player.process.out().find("\"sent\""), std::string::npos);
}

TEST_F(LunetctlTest, AnAddressInUseCannotBeListenedAt) {
  Player player(lunetctl({"listen", guid}));
  ASSERT_TRUE(player.ready());
  const Result second = run(lunetctl({"listen", guid}));
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("the address is in use"), std::string::npos) << second.err;
}

TEST_F(LunetctlTest, ARelativeTreeIsTakenFromTheWorkingFolder) {
  Process::Options options;
  options.workingDir = tree.path();
  Process list({tree.at("bin/lunetctl"), "--runtime", ".", "send", guid, "x"}, options);
  EXPECT_EQ(list.wait(), 1);
  EXPECT_NE(list.err().find("nobody is at that address"), std::string::npos) << list.err();
}

TEST_F(LunetctlTest, AMissingLibraryIsNamed) {
  std::filesystem::remove(tree.at("lib/modules/libLunetClientMgr.so"));
  const Result result = run(lunetctl({"send", guid, "x"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("dlopen failed: "), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, AnUnreadableConfigurationIsNamed) {
  tree.write("etc/communication/cli_lunet.conf", "{ broken");
  for (const char* command : {"list", "listen"}) {
    const Result result =
        run(command == std::string("list") ? lunetctl({command}) : lunetctl({command, guid}));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("cli_lunet.conf is not a JSON object"), std::string::npos) << result.err;
  }
}

TEST_F(LunetctlTest, AListenerWithoutOutputAndErrorKeepsThemOffItsSockets) {
  const std::vector<std::string> listen = lunetctl({"listen", guid});
  std::vector<std::string> command{"/bin/sh", "-c", "exec \"$0\" \"$@\" >&- 2>&-"};
  command.insert(command.end(), listen.begin(), listen.end());
  Process listener(command);
  ASSERT_TRUE(
      waitFor([&] { return lunet::listenerAt(socketFolder(), lunet::parseGuid(guid.c_str())).has_value(); }));
  for (const char* fd : {"1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(listener.pid()) + "/fd/" + fd),
              "/dev/null");
  }
  listener.closeInput();
  EXPECT_EQ(listener.wait(), 0);
}

TEST_F(LunetctlTest, AListWithoutStandardDescriptorsEndsWith0) {
  const std::vector<std::string> list = lunetctl({"list"});
  Player listener(lunetctl({"listen", guid}));
  ASSERT_TRUE(listener.ready());
  std::vector<std::string> command{"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-"};
  command.insert(command.end(), list.begin(), list.end());
  EXPECT_EQ(run(command).status, 0);
}

TEST_F(LunetctlTest, AConfigurationThatIsNoObjectIsNamed) {
  tree.write("etc/communication/cli_lunet.conf", "[]");
  const Result result = run(lunetctl({"list"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("cli_lunet.conf is not a JSON object"), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, ABusThatCannotBeSetUpIsAFailure) {
  tree.write("etc/communication/cli_lunet.conf", "{\"group\":\"no such group\"}");
  const Result result = run(lunetctl({"send", guid, "x"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("the bus cannot be set up: a wrong argument"), std::string::npos) << result.err;
}

TEST_F(LunetctlTest, HelpNamesEveryCommand) {
  for (const char* option : {"--help", "-h"}) {
    const Result help = run({tree.at("bin/lunetctl"), option});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"--runtime DIR", "list", "call GUID TEXT", "send GUID TEXT", "listen GUID",
                             "\"event\":\"ready\""}) {
      EXPECT_NE(help.out.find(word), std::string::npos) << option << " " << word;
    }
  }
}

struct UsageRow {
  const char* name;
  std::vector<std::string> words;
  const char* says;
};

class UsageTest : public LunetctlTest, public testing::WithParamInterface<UsageRow> {};

TEST_P(UsageTest, IsAnErrorOfOneLineAndStatusTwo) {
  std::vector<std::string> command = GetParam().words;
  command.insert(command.begin(), tree.at("bin/lunetctl"));
  const Result result = run(command);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find(GetParam().says), std::string::npos) << result.err;
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Table, UsageTest,
    testing::Values(UsageRow{"NoWord", {}, "no command is given"},
                    UsageRow{"NoTree", {"list"}, "--runtime DIR is missing"},
                    UsageRow{"ATreeWithoutItsName", {"--runtime"}, "--runtime needs"},
                    UsageRow{"ATreeWithAnEmptyName", {"--runtime", "", "list"}, "--runtime needs"},
                    UsageRow{"AnUnknownCommand", {"--runtime", "/", "go\x1b"}, "no command \"go\\x1b\""},
                    UsageRow{"AnUnknownOption", {"--fast", "list"}, "no option \"--fast\""},
                    UsageRow{"NoGuid", {"--runtime", "/", "listen"}, "the command is: listen GUID"},
                    UsageRow{"AWordTooMany", {"--runtime", "/", "list", "x"}, "the command is: list"},
                    UsageRow{"ABadGuid", {"--runtime", "/", "listen", "123"}, "\"123\" is not a GUID"},
                    UsageRow{"NoText", {"--runtime", "/", "call", "123"}, "the command is: call GUID TEXT"}),
    [](const auto& row) { return std::string(row.param.name); });
