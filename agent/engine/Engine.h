#pragma once

#include <functional>
#include <memory>
#include <string>

#include "engine/EngineLimits.h"
#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"
#include "platform/Expected.h"

namespace agent {

/// libclamav with its signatures loaded, for the worker processes. A file is clean only when it was scanned
/// whole. One thread at a time; only one engine of a process scans at a time.
class Engine {
 public:
  struct Config {
    std::string shippedSignatures;  ///< folder of our own signatures; must be there
    std::string systemSignatures;   ///< folder of the system's database; may be missing or empty
    EngineLimits limits;
    std::string signatureCopies{};  ///< folder with the copy of the last good load; may be missing
    bool copyForMissing = true;     ///< a copy also serves for a file that the system's folder lacks
    std::function<void(const std::string&)> beforeSignatureFile{};  ///< for tests
  };
  /// Loads and compiles. A file of the system's database that does not load is left out, and signatures()
  /// says so.
  static platform::Expected<std::unique_ptr<Engine>> load(const Config& config);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const SignatureState& signatures() const;
  const EngineLimits& limits() const;

  /// The folders for temporary files, used by this process only. quick: in memory, for small files; may be
  /// empty. disk: for all others.
  void setTempFolders(const std::string& quick, const std::string& disk);

  /// The descriptor stays the caller's; its position may change. name: the file's path; its last component is
  /// a hint of the file's type. Never throws for the content of a file.
  Verdict scan(int fd, const std::string& name, const ScanOptions& options);

 private:
  class Impl;
  explicit Engine(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
