#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>

#include "EngineFixture.h"
#include "support/Wait.h"
#include "worker/WorkerPool.h"

namespace agent {
namespace {

using testsupport::eicar;
using testsupport::makeZip;

class Pools : public ::testing::Test {
 protected:
  Spawner& spawner() {
    if (!spawner_) {
      if (config_.shippedSignatures.empty()) {
        config_.shippedSignatures = testing::kShippedSignatures;
      }
      config_.tempFolder = dir_.path();
      spawner_ = std::make_unique<Spawner>(config_);
    }
    return *spawner_;
  }
  void begin(WorkerPool& pool, const std::string& name, const std::string& content,
             const ScanOptions& options = {}) {
    const std::string path = dir_.write(name, content);
    pool.scan(open(path.c_str(), O_RDONLY | O_CLOEXEC), path, options, [this, name](Verdict verdict) {
      const std::lock_guard lock(mutex_);
      verdicts_[name] = std::move(verdict);
    });
  }
  Verdict verdict(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return verdicts_.at(name);
  }

  testsupport::TempDir dir_;
  Spawner::Config config_;
  std::unique_ptr<Spawner> spawner_;
  std::mutex mutex_;
  std::map<std::string, Verdict> verdicts_;
};

TEST_F(Pools, FindsTheTestFilePlainAndInAZip) {
  WorkerPool pool(spawner(), 2);
  begin(pool, "plain", eicar());
  begin(pool, "zip", makeZip({{"x/test.com", eicar()}}));
  begin(pool, "clean", "some text");
  pool.drain();
  EXPECT_EQ(verdict("plain").outcome, Outcome::kInfected) << testing::describe(verdict("plain"));
  EXPECT_EQ(verdict("zip").outcome, Outcome::kInfected) << testing::describe(verdict("zip"));
  EXPECT_EQ(verdict("clean").outcome, Outcome::kClean) << testing::describe(verdict("clean"));
}

}  // namespace
}  // namespace agent
