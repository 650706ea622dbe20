#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "engine/Engine.h"
#include "platform/Descriptor.h"
#include "support/ArchiveMaker.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace agent::testing {

inline const std::string kShippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";

inline void PrintTo(Outcome outcome, std::ostream* out) {
  static constexpr const char* kNames[] = {"clean", "infected", "error", "skipped"};
  *out << kNames[static_cast<int>(outcome)];
}

/// Everything of a verdict in one text, for messages of failed tests.
inline std::string describe(const Verdict& verdict) {
  std::string text = ::testing::PrintToString(static_cast<int>(verdict.outcome)) + " " + verdict.reason;
  for (const auto& detection : verdict.detections) {
    text += " [" + detection.name + "]";
  }
  return text;
}

/// An engine with the shipped signatures and limits that small files reach.
class EngineFixture : public ::testing::Test {
 protected:
  static EngineLimits smallLimits() {
    EngineLimits limits;
    limits.maxFileBytes = 1U << 20;
    limits.maxScanBytes = 4U << 20;
    limits.maxFiles = 50;
    limits.maxRecursion = 12;
    limits.processorMs = 60000;
    limits.clockFactor = 1;
    return limits;
  }

  Engine& engine() {
    if (!engine_) {
      load(smallLimits());
    }
    return *engine_;
  }
  /// Throws when the engine does not load.
  static std::unique_ptr<Engine> newEngine(const std::string& shipped, const std::string& system,
                                           const EngineLimits& limits = smallLimits()) {
    auto engine = Engine::load({shipped, system, limits});
    if (!engine) {
      throw std::runtime_error("the engine does not load: " + engine.error());
    }
    return std::move(*engine);
  }
  void load(const EngineLimits& limits, const std::string& system = "/nonexistent") {
    use({kShippedSignatures, system, limits});
  }
  /// Throws when the engine does not load.
  void use(const Engine::Config& config) {
    auto engine = Engine::load(config);
    if (!engine) {
      throw std::runtime_error("the engine does not load: " + engine.error());
    }
    engine_ = std::move(*engine);
    mkdir(dir_.at("quick").c_str(), 0700);
    mkdir(dir_.at("disk").c_str(), 0700);
    engine_->setTempFolders(dir_.at("quick"), dir_.at("disk"));
  }
  const SignatureState& state() const { return engine_->signatures(); }

  Verdict scan(const std::string& content, const ScanOptions& options = {},
               const std::string& name = "sample") {
    return scanPath(dir_.write(name, content), options);
  }
  Verdict scanPath(const std::string& path, const ScanOptions& options = {}) {
    const platform::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return engine().scan(file.get(), path, options);
  }
  const testsupport::TempDir& dir() const { return dir_; }

 private:
  testsupport::TempDir dir_;
  std::unique_ptr<Engine> engine_;
};

}  // namespace agent::testing
