#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Descriptor.h"

namespace agent {

/// Whether files are scanned when the kernel does not grant the whole confinement.
enum class Unconfined : std::uint8_t {
  kNever = 0,              ///< scans only with every part in force
  kWithoutNamespaces = 1,  ///< scans unless an essential part is missing
  kAlways = 2
};

/// A user that owns nothing; 0: the processes keep the agent's user, who is not root.
struct ScannerUser {
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

/// What of the confinement is in force, from the worker template.
struct ConfinementState {
  bool known = false;                ///< false before the first report
  std::vector<std::string> missing;  ///< parts that the kernel did not grant, with the reason
  bool essentialMissing = false;     ///< system call filter, or a user other than root without capabilities
};

/// One line: "whole", or the missing parts.
std::string describe(const ConfinementState& state);
/// Whether the setting lets the processes scan in this state.
bool mayScan(const ConfinementState& state, Unconfined setting);

/// What the template's process needs to confine itself.
struct ConfinementPlan {
  ScannerUser user;
  std::vector<std::string> readable;  ///< folders that stay, read-only, at their paths; may be missing
  std::string fallbackFolder;     ///< of the agent; used for temporary files when the root cannot be replaced
  std::uint64_t tempBytes = 0;    ///< of all temporary files of the template's workers together
  std::uint64_t memoryBytes = 0;  ///< of a worker, above the template's memory and the file's size
  std::uint64_t largestFileBytes = 0;
};

/// The confinement of one process and of the workers that it forks. confine() is called once, as the agent's
/// user, before the first signature is read. The process has one thread.
class Confinement {
 public:
  explicit Confinement(ConfinementPlan plan) : plan_(std::move(plan)) {}

  /// Takes the steps in order, and goes on behind a refused one.
  ConfinementState confine();
  /// The parent of the workers' folders for temporary files.
  const std::string& tempFolder() const { return tempFolder_; }
  /// Reads the size of the process after its load; the limits of workers count from there.
  void measureMemory();
  /// In a worker, before its first file: no further process, no file but below the working folder, fewer
  /// calls. False when a part that the template has is refused.
  bool confineWorker() const;
  /// In a worker, before each file.
  void limitMemory(std::uint64_t fileBytes) const;

 private:
  void missing(const std::string& part, int error, bool essential = false);
  void enterNamespaces();
  void enterEmptyRoot();
  void useFallbackFolder();
  bool makeForUser(const char* folder) const;
  void becomeUser();
  void limitTemplate() const;

  ConfinementPlan plan_;
  ConfinementState state_;
  bool ownMounts_ = false;
  bool landlock_ = false;
  bool filter_ = false;
  std::string tempFolder_;
  platform::Descriptor memory_;  // /proc/self/statm, until measureMemory
  std::uint64_t templateBytes_ = 0;
};

}  // namespace agent
