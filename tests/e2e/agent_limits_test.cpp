// What one message may cost the agent: refusals, and the memory of the agent's process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"
#include "support/Json.h"
#include "support/Samples.h"

namespace {

using ::testing::HasSubstr;
using testsupport::AgentTree;
using testsupport::jsonOf;
using testsupport::PeerConsole;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMostGrowthKiB = 64 * kKiB;

class AgentLimits : public ::testing::Test {
 protected:
  void join(bool member) {
    console = std::make_unique<PeerConsole>(
        tree, member ? testsupport::secondUser() : testsupport::Process::Options{});
    EXPECT_TRUE(answers());
  }
  bool answers() { return console->call("getScanCacheDetail", Json::Value()).isInt(); }
  Json::Value ask(const std::string& text) { return console->ask(testsupport::kAgentAddress, text); }
  /// A number of /proc/<pid>/status, in KiB.
  std::size_t memory(const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(tree.agent().pid()) + "/status");
    for (std::string line; std::getline(in, line);) {
      if (line.rfind(field + ":", 0) == 0) {
        return std::stoul(line.substr(field.size() + 1));
      }
    }
    ADD_FAILURE() << "no " << field;
    return 0;
  }
  static std::string request(const std::string& method, const std::string& params) {
    return R"({"jsonrpc":"2.0","id":7,"method":")" + method + R"(","params":)" + params + "}";
  }
  static std::string repeated(const std::string& part, std::size_t times) {
    std::string text;
    for (std::size_t i = 0; i < times; ++i) {
      text += (i == 0 ? "" : ",") + part;
    }
    return text;
  }
  static std::string startWith(const std::string& ctx, const std::string& params) {
    return request("startScanTask",
                   R"({"ctx":)" + ctx + R"(,"desc":"","source":1,"token_id":"","params":)" + params + "}");
  }
  /// Adds so many entries of `bytes` bytes to the trust list.
  static std::string entries(std::size_t count, std::size_t bytes) {
    std::string items;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      items += (i == 0 ? "\"" : ",\"") + std::string(bytes - number.size(), 'x') + number + "\"";
    }
    return request("ctlRegion",
                   R"({"desc":"","source":1,"region_type":0,"items":{"action":0,"type":4,"domain":0,)"
                   R"("is_all":false,"items":[)" +
                       items + "]}}");
  }

  AgentTree tree{{.group = testsupport::secondUsersGroup(), .uid = {}}};
  std::unique_ptr<PeerConsole> console;
};

TEST_F(AgentLimits, AMessageThatWouldCostMuchIsRefusedBeforeItCostsMemory) {
  constexpr const char* kList = R"({"domain":2,"item_type":0,"region_type":0})";
  const std::string zeros = "[" + repeated("0", 256 * kKiB) + "]";
  const std::string ctx = "\"" + std::string(7u << 20, 'x') + "\"";
  const struct {
    const char* name;
    bool member;
    std::string text;
    int code;
    const char* why;
  } rows[] = {
      {"a nested batch", false, "[" + zeros + "]", -32600, "batches are not served"},
      {"a nested batch", true, "[" + zeros + "]", -32600, "batches are not served"},
      {"a flat batch", false, "[" + repeated(request("getRegionInfo", kList), 100) + "]", -32600, "batches"},
      {"a flat batch", true, "[" + repeated(request("getRegionInfo", kList), 100) + "]", -32600, "batches"},
      {"a context of 7 MiB", false, startWith(ctx, "{}"), -32602, "parameter ctx"},
      {"a context of 7 MiB", true, startWith(ctx, "{}"), -32600, "over the limit of 1048576"},
      {"a context of 5 KiB", true, startWith("\"" + std::string(5 * kKiB, 'x') + "\"", "{}"), -32602, "ctx"},
      {"many values", false, startWith("{}", zeros), -32600, "more values than the limit of 131072"},
      {"half a MiB", true, startWith("{}", zeros), -32600, "is over the limit of 262144"},
      {"deep nesting", true, startWith("{}", std::string(100, '[') + std::string(100, ']')), -32700,
       "deeper"},
      {"500,000 entries", false, entries(500'000, 7), -32600, "more values than the limit of 131072"},
      {"17,000 entries", true, entries(17'000, 7), -32600, "more values than the limit of 16384"},
  };
  for (const bool member : {true, false}) {  // root takes the address from a member
    join(member);
    const std::size_t peak = memory("VmHWM");
    const std::size_t resident = memory("VmRSS");
    for (const auto& row : rows) {
      if (row.member != member) {
        continue;
      }
      const Json::Value error = ask(row.text)["error"];
      EXPECT_EQ(error["code"].asInt(), row.code) << row.name;
      EXPECT_THAT(error["message"].asString(), HasSubstr(row.why)) << row.name;
      EXPECT_TRUE(answers()) << row.name;
    }
    EXPECT_LT(memory("VmHWM"), peak + kMostGrowthKiB);
    EXPECT_LT(memory("VmRSS"), resident + kMostGrowthKiB);
    console.reset();
  }
}

TEST_F(AgentLimits, TheMemoryOfALargeRequestIsGivenBack) {
  join(false);
  ask(entries(100, 60));
  const std::size_t before = memory("VmRSS");
  const std::string large = entries(110'000, 65);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(ask(large)["result"], false) << "more entries than the lists take";
  }
  EXPECT_TRUE(answers());
  EXPECT_LT(memory("VmRSS"), before + kMostGrowthKiB);
  EXPECT_THAT(testsupport::readFile(tree.at("state/audit-refusals.log")),
              HasSubstr("at most 100000 entries"));
}

}  // namespace
