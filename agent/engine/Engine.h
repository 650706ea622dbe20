#pragma once

#include <memory>
#include <string>

#include "engine/EngineLimits.h"
#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"

namespace agent {

/// libclamav with its signatures loaded, for the worker processes. Scans by descriptor; what it answers is
/// clean only where the whole file was scanned. One thread at a time, and one engine scanning in a process
/// at a time.
class Engine {
 public:
  struct Config {
    std::string shippedSignatures;  ///< folder of our own signatures; must be there
    std::string systemSignatures;   ///< folder of the system's database; may be missing or empty
    EngineLimits limits;
  };
  /// Loads and compiles. Null when there is nothing to scan with: state.detail says why. Where the system's
  /// database alone does not load, the engine stands with our own signatures and state says so.
  static std::unique_ptr<Engine> load(const Config& config, SignatureState& state);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// Where temporary files go: folders of this process alone. quick: in memory, for small ones; may be empty.
  /// disk: for all others.
  void setTempFolders(const std::string& quick, const std::string& disk);

  /// The descriptor stays the caller's; its position may change. name: how people know the file; only its
  /// last component is used, for type hints. Never throws for what is in a file.
  Verdict scan(int fd, const std::string& name, const ScanOptions& options);

 private:
  class Impl;
  explicit Engine(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
