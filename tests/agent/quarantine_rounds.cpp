// quarantine_rounds: rounds of kill -9 at random moments while files are being quarantined.
//
//   quarantine_rounds [--rounds N] [--files N] [--threads N] [--seed N] [--folder PATH]
//
// In each round a child process opens the store and quarantines the files, and is killed at a random moment.
// Then the store is opened again. Every original must be either in place or in the quarantine. The round
// restores all files and compares content (SHA-256), owner, mode and times. The exit status is 0 when all
// rounds went well. Needs no other program.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/RoundsParts.h"
#include "json/CppJson.h"
#include "store/Store.h"
#include "support/TempDir.h"

namespace {

using namespace agent;
using rounds::Original;

struct Options {
  unsigned long rounds = 3, files = 40, threads = 2;
  unsigned long seed = std::random_device()();
  std::string folder;  ///< of the state and the files; empty: a private one
};

/// The killed one's work: all files, by several threads, over and over until it is killed or done.
void quarantineAll(const std::string& state, const std::vector<Original>& originals, unsigned long threads) {
  const auto store = Store::open(state);
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next++; i < originals.size(); i = next++) {
      struct stat st {};
      if (::lstat(originals[i].path.c_str(), &st) != 0) {
        continue;
      }
      QuarantineRequest request;
      request.path = originals[i].path;
      request.identity = FileIdentity::of(st);
      request.detection.name = "Rounds.Test";
      store->quarantine().add(request);
    }
  };
  std::vector<std::thread> workers;
  for (unsigned long i = 0; i < threads; ++i) {
    workers.emplace_back(work);
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
}

/// Starts what quarantines the files, and is to be killed.
pid_t startInChild(const std::string& state, const std::vector<Original>& originals, unsigned long threads) {
  const pid_t child = ::fork();
  if (child == 0) {
    quarantineAll(state, originals, threads);
    ::_exit(0);
  }
  return child;
}

class Rounds {
 public:
  Rounds(const Options& options, const std::string& folder)
      : options_(options),
        random_(options.seed),
        state_(folder + "/state"),
        originals_(folder + "/files", options.files,
                   [this](std::size_t) { return rounds::randomBytes(random_() % 60'000, random_); }) {}

  int run() {
    measureWholeRun();
    for (unsigned long round = 1; round <= options_.rounds; ++round) {
      const pid_t child = startInChild(state_, originals_.all(), options_.threads);
      const bool killed = killAtRandomMoment(child);
      const std::size_t quarantined = settleAndCount();
      restoreAll();
      checkAll();
      std::printf("round %lu: %s, %zu in quarantine, %zu in place%s\n", round, killed ? "killed" : "ended",
                  quarantined, originals_.size() - quarantined, failures_ == 0 ? "" : ", FAILED");
      if (failures_ > 0) {
        return 1;
      }
    }
    std::printf("%lu rounds, %zu files: nothing lost; killed while at work in %u\n", options_.rounds,
                originals_.size(), killedAtWork_);
    return 0;
  }

 private:
  /// A run that nobody kills says how long one takes: the moments of the kills fall all over that.
  void measureWholeRun() {
    const auto start = std::chrono::steady_clock::now();
    int status = 0;
    ::waitpid(startInChild(state_, originals_.all(), options_.threads), &status, 0);
    wholeRun_ = since(start);
    const std::size_t quarantined = settleAndCount();
    if (quarantined != originals_.size()) {
      fail("the run that was not killed",
           "left " + std::to_string(originals_.size() - quarantined) + " files");
    }
    restoreAll();
    checkAll();
  }

  bool killAtRandomMoment(pid_t child) {
    const auto start = std::chrono::steady_clock::now();
    const auto wait =
        std::chrono::microseconds(random_() % static_cast<std::uint64_t>(wholeRun_.count() + 1));
    std::this_thread::sleep_for(wait - std::min(wait, since(start)));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    const bool killed = WIFSIGNALED(status);
    killedAtWork_ += killed ? 1U : 0U;
    return killed;
  }

  static std::chrono::microseconds since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  }

  std::size_t settleAndCount() {
    store_ = Store::open(state_);
    std::multiset<std::string> quarantined;
    for (const Json::Value& item : store_->quarantine().list(std::nullopt)) {
      quarantined.insert(json::decodePath(item["filepath_src"].asString()));
    }
    originals_.count(quarantined, fail_);
    return quarantined.size();
  }

  void restoreAll() {
    const CallerId root{.uid = ::geteuid(), .gid = ::getegid(), .groups = {}, .pid = ::getpid()};
    for (const auto& outcome : store_->quarantine().restore({}, true, false, "", root)) {
      if (!outcome.result) {
        fail(outcome.uuid, outcome.result.error());
      }
    }
    if (!store_->quarantine().list(std::nullopt).empty()) {
      fail("the quarantine", "is not empty after all was restored");
    }
    store_.reset();
  }

  void checkAll() {
    originals_.checkAll(fail_);
    for (const auto& entry : std::filesystem::directory_iterator(state_ + "/quarantine")) {
      fail(entry.path(), "is left over");
    }
  }

  void fail(const std::string& what, const std::string& why) {
    std::fprintf(stderr, "%s %s (seed %lu)\n", what.c_str(), why.c_str(), options_.seed);
    ++failures_;
  }

  const Options options_;
  std::mt19937_64 random_;
  const std::string state_;
  const rounds::Originals originals_;
  const rounds::Originals::Fail fail_ = [this](const auto& what, const auto& why) { fail(what, why); };
  std::unique_ptr<Store> store_;
  std::chrono::microseconds wholeRun_{0};
  unsigned killedAtWork_ = 0, failures_ = 0;
};

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (!rounds::readOptions(argc, argv,
                           {{"--rounds", &options.rounds, 1},
                            {"--files", &options.files, 1},
                            {"--threads", &options.threads, 1},
                            {"--seed", &options.seed},
                            {"--folder", &options.folder}})) {
    return 2;
  }
  std::printf("seed %lu\n", options.seed);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const testsupport::TempDir own;
  return Rounds(options, options.folder.empty() ? own.path() : options.folder).run();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
