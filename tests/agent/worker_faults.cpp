// Whole scans of very many files, among them files on which the workers die or hang. Exactly these files must
// be errors. Minutes, so not a test of ctest: worker_faults [FILES [EACH [SECONDS [WORKERS]]]]

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include "platform/CLogDebug.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "task/ScanTask.h"

namespace {

constexpr std::uint32_t kUser = 60706;  // of the workers, when this program is root's

/// Keeps the last state and the detections.
class Owner : public agent::TaskEvents {
 public:
  void state(json::TaskState /*state*/, const std::string& detail) override { detail_ = detail; }
  void progress(int /*percent*/) override {}
  void overview(const Json::Value& /*overview*/) override {}
  void stage(int /*stage*/, const std::string& /*what*/) override {}
  void attributes(const Json::Value& /*payload*/) override {}
  void risk(json::RiskInfoType /*kind*/, json::Handling /*handling*/, const Json::Value& /*info*/) override {
    ++risks_;
  }
  void repaired(json::RiskInfoType /*kind*/, json::Handling /*handling*/, const Json::Value& /*info*/,
                const Json::Value& /*result*/) override {}
  void waitForQuota(const std::function<bool()>& /*cancelled*/) override {}
  void onDelivered(std::function<void()> action) override { action(); }

  std::string detail_;  ///< read after the end
  int risks_ = 0;
};

struct Settings {
  int files, each, seconds;
  unsigned workers;
};

Settings settingsOf(int count, char** arguments) {
  const auto number = [&](int index, int otherwise) {
    return index < count ? std::atoi(arguments[index]) : otherwise;
  };
  return {number(1, 20000), number(2, 100), number(3, 5), static_cast<unsigned>(number(4, 8))};
}

/// Makes the files; returns the paths of the faulty ones.
std::set<std::string> makeFiles(const testsupport::TempDir& dir, const Settings& settings) {
  std::set<std::string> faulty;
  const char* kinds[] = {"crash", "stop", "memory", "loop"};
  const int every = std::max(1, settings.files / std::max(1, settings.each * 4));
  for (int i = 0; i < settings.files; ++i) {
    const int turn = i / every;
    const bool fault = i % every == 0 && turn < settings.each * 4;
    const std::string name = (fault ? kinds[turn % 4] : "file") + std::to_string(i);
    const std::string path = dir.write("files/" + std::to_string(i / 1000) + "/" + name, "text " + name);
    if (fault) {
      faulty.insert(path);
    }
  }
  return faulty;
}

/// The files that the log names as not scanned.
std::set<std::string> errorsIn(const std::string& log) {
  std::set<std::string> found;
  std::ifstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const auto end = line.find(": not scanned: ");
    const auto begin = line.find(" /");
    if (end != std::string::npos && begin < end) {
      found.insert(line.substr(begin + 1, end - begin - 1));
    }
  }
  return found;
}

agent::Spawner::Config configOf(const testsupport::TempDir& dir, const Settings& settings) {
  agent::Spawner::Config config;
  config.program = TAV_BIN_DIR "/tav_scan_faults";
  config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
  config.systemSignatures = dir.at("system");
  config.tempFolder = dir.path();
  config.memoryBytes = 64U << 20;
  config.fileTimeout = std::chrono::seconds(settings.seconds);
  if (geteuid() == 0) {
    config.user = {kUser, kUser};
  }
  return config;
}

void openLog(const testsupport::TempDir& dir) {
  CLogDebug* log = CLogDebug::Create();
  log->SetProperty(CLogDebug::kPath, dir.path() + "/");
  log->SetProperty(CLogDebug::kName, "log");
  log->SetProperty(CLogDebug::kSize, std::to_string(64U << 20));
  log->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(LogLevel::kWarning)));
}

int run(const Settings& settings) {
  const testsupport::TempDir dir(testsupport::diskFolder());
  openLog(dir);
  const std::set<std::string> faulty = makeFiles(dir, settings);
  const auto store = agent::Store::open(dir.at("state"));
  agent::Spawner spawner(configOf(dir, settings));
  agent::ScanPlan plan;
  plan.mode = json::ScanMode::kCustom;
  plan.items = {dir.at("files")};
  plan.parallelism = settings.workers;
  const auto owner = std::make_shared<Owner>();
  const auto begun = std::chrono::steady_clock::now();
  {
    agent::ScanTask task({*store, spawner, {}}, "token", plan, {geteuid(), getegid(), {}, getpid()}, owner);
    task.start({[] {}, [] {}});
    task.waitOver(std::chrono::hours(2));
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begun);
  const std::set<std::string> errors = errorsIn(dir.at("log.log"));
  std::printf("%d files, %zu of them faulty; %lld s\n%s\n%zu files are errors; %d detections\n",
              settings.files, faulty.size(), static_cast<long long>(seconds.count()), owner->detail_.c_str(),
              errors.size(), owner->risks_);
  std::printf("audit record:\n%s", testsupport::readFile(dir.at("state/audit.log")).c_str());
  const bool exact = errors == faulty && owner->risks_ == 0;
  std::printf("%s\n", exact ? "exactly the faulty files are errors" : "WRONG: other files are errors");
  return exact ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  return run(settingsOf(count, arguments));
}
