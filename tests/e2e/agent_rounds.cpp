// agent_rounds: rounds of kill -9 of the agent at random moments while the agent quarantines files.
//
//   agent_rounds [--rounds N] [--files N] [--seed N]
//
// The program uses one private install tree with the real agent. A round scans a folder full of detections
// with automatic handling. The round kills the agent at a random moment, and starts the agent again. Then
// every original must be either in place or in the quarantine. The round restores all files over the bus and
// compares content (SHA-256), owner, mode and time. The exit status is 0 when all rounds went well.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "agent/RoundsParts.h"
#include "e2e/AgentTree.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/ScanRecords.h"
#include "json/Values.h"
#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/Holders.h"
#include "support/ConsoleLink.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::chrono::seconds kLimit{120};  // of a whole scan, and of a call, on a busy machine
constexpr int kBySource = json::toNumber(json::RequestSource::kConsole);

struct Options {
  unsigned long rounds = 1000, files = 500;
  unsigned long seed = std::random_device()();
};

/// A detection, different for every call: the standard test file with a line of its own, or a sample in
/// random bytes.
std::string detection(std::size_t number, std::mt19937_64& random) {
  if (number % 3 == 0) {
    return testsupport::eicar() + "\n" + std::to_string(number) + " " +
           std::to_string(random() % 1'000'000'000);
  }
  const std::string before = rounds::randomBytes(random() % 20'000, random);
  return before + testsupport::genericSample() + rounds::randomBytes(1 + random() % 20'000, random);
}

Json::Value toJson(const JsonSerializerObject& record) {
  Json::Value value;
  record.ToValue(value);
  return value;
}

class AgentRounds {
 public:
  explicit AgentRounds(const Options& options)
      : options_(options),
        random_(options.seed),
        originals_(tree_.data(), options.files, [this](std::size_t i) { return detection(i, random_); }) {}

  int run() {
    measureWholeRun();
    for (unsigned long round = 1; round <= options_.rounds && failures_ == 0; ++round) {
      const microseconds moment = startAndKill();
      tree_.start();
      const rounds::Originals::Places places = count();
      note(places);
      std::printf("round %lu: killed after %lld of %lld ms, %zu in quarantine, %zu in place\n", round,
                  static_cast<long long>(moment.count() / 1000),
                  static_cast<long long>(wholeRun_.count() / 1000), places.inQuarantine, places.inPlace);
      restoreAll();
      ++rounds_;
    }
    endAgent();
    std::printf("%lu rounds of %zu files: %lu kills, %lu with the handling half done\n", rounds_,
                originals_.size(), rounds_, halfDone_);
    std::printf("after the restarts: %zu in place, %zu restored from the quarantine, %zu lost, %zu twice\n",
                sum_.inPlace, sum_.inQuarantine, sum_.lost, sum_.twice);
    std::printf("%s\n", failures_ == 0 ? "all well" : "FAILED");
    return failures_ == 0 ? 0 : 1;
  }

 private:
  static jsonrpchelper::AgentStub agent() {
    return jsonrpchelper::AgentStub(*jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid));
  }

  void startScan() {
    JsonReflect::ScanParams params;
    params.items().push_back(json::encodePath(originals_.folder()));
    params.set_custom_stop(true);
    params.set_handle_action(json::toNumber(json::HandleAction::kByAgent));
    params.set_fix_method(json::toFixMethod(json::Handling::kAutomatic));
    params.set_scan_type(json::toNumber(json::ScanMode::kCustom));
    const Json::Value answer = agent().call(jsonrpchelper::StartScanTask{
        .ctx = {}, .desc = "", .params = toJson(params), .source = kBySource, .token_id = ""});
    if (!answer["status"].asBool()) {
      throw std::runtime_error("the scan was refused: " + answer["detail"].asString());
    }
  }

  /// Measures a scan without a kill. The scan must quarantine all files.
  void measureWholeRun() {
    const auto start = Clock::now();
    startScan();
    if (!testsupport::waitFor([] { return agent().call(jsonrpchelper::GetBusList{}).empty(); }, kLimit)) {
      throw std::runtime_error("the scan does not end: " + tree_.log());
    }
    wholeRun_ = std::chrono::duration_cast<microseconds>(Clock::now() - start);
    const std::size_t left = count().inPlace;
    if (left != 0) {
      fail("the scan that was not killed", "left " + std::to_string(left) + " files");
    }
    restoreAll();
  }

  microseconds startAndKill() {
    const auto moment = microseconds(random_() % static_cast<std::uint64_t>(wholeRun_.count() + 1));
    const auto start = Clock::now();
    startScan();
    std::this_thread::sleep_until(start + moment);
    tree_.kill(SIGKILL);
    const int status = tree_.wait().value_or(-1);
    if (status != 128 + SIGKILL) {
      fail("the agent", "ended with " + std::to_string(status) + " before it was killed");
    }
    return moment;
  }

  rounds::Originals::Places count() {
    std::multiset<std::string> quarantined;
    for (const Json::Value& item : agent().call(jsonrpchelper::GetIsolationInfo{})) {
      quarantined.insert(json::decodePath(item["filepath_src"].asString()));
    }
    return originals_.count(quarantined, fail_);
  }

  void note(const rounds::Originals::Places& places) {
    const bool halfDone = places.inPlace > 0 && places.inQuarantine > 0;
    halfDone_ += halfDone ? 1U : 0U;
    sum_.inPlace += places.inPlace;
    sum_.inQuarantine += places.inQuarantine;
    sum_.lost += places.lost;
    sum_.twice += places.twice;
    // How fast the agent is changes with what else the machine does: the moments follow.
    if (places.inPlace == 0) {
      wholeRun_ = wholeRun_ * 9 / 10;
    } else if (places.inQuarantine == 0) {
      wholeRun_ = wholeRun_ * 21 / 20;
    }
  }

  void restoreAll() {
    JsonReflect::DeIsolateParams params;
    params.action = json::toNumber(json::RestoreAction::kRestore);
    params.is_all = true;
    const Json::Value answer = agent().call(jsonrpchelper::StartDeIsolate{
        .ctx = {}, .desc = "", .params = toJson(params), .source = kBySource, .token_id = ""});
    for (const Json::Value& refused : answer["detail"]) {
      fail(refused["uuid"].asString(), refused["reason"].asString());
    }
    if (!answer["status"].asBool()) {
      fail("the restore", "was not done");
    }
    if (!agent().call(jsonrpchelper::GetIsolationInfo{}).empty()) {
      fail("the quarantine", "is not empty after all was restored");
    }
    for (const auto& entry : std::filesystem::directory_iterator(tree_.at("state/quarantine"))) {
      fail(entry.path(), "is left over");
    }
    originals_.checkAll(fail_);
  }

  void endAgent() {
    tree_.kill(SIGTERM);
    const int status = tree_.wait().value_or(-1);
    if (status != 0) {
      fail("the agent", "ended with " + std::to_string(status));
    }
  }

  void fail(const std::string& what, const std::string& why) {
    std::fprintf(stderr, "%s %s (seed %lu)\n", what.c_str(), why.c_str(), options_.seed);
    ++failures_;
  }

  const Options options_;
  std::mt19937_64 random_;
  testsupport::AgentTree tree_;
  testsupport::ConsoleLink link_{tree_.path(), static_cast<std::uint32_t>(kLimit.count() * 1000)};
  const rounds::Originals originals_;
  const rounds::Originals::Fail fail_ = [this](const auto& what, const auto& why) { fail(what, why); };
  microseconds wholeRun_{0};
  rounds::Originals::Places sum_;
  unsigned long rounds_ = 0, halfDone_ = 0, failures_ = 0;
};

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (!rounds::readOptions(
          argc, argv,
          {{"--rounds", &options.rounds, 1}, {"--files", &options.files, 1}, {"--seed", &options.seed}})) {
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("seed %lu\n", options.seed);
  return AgentRounds(options).run();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
