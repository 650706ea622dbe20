#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "StoreFixture.h"
#include "store/StepHook.h"

namespace agent {

inline constexpr uid_t kOther = 65534;  ///< the second user of these tests, with a group of the same number

/// Everything of a file that a restore must restore.
struct FileFacts {
  bool there = false;
  std::string content;
  unsigned mode = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::int64_t accessNs = 0, modifyNs = 0;
  std::map<std::string, std::string> attributes;
  static FileFacts of(const std::string& path);
  friend bool operator==(const FileFacts&, const FileFacts&) = default;
};
void PrintTo(const FileFacts& facts, std::ostream* out);

/// A store, a folder with files to quarantine that every user can reach, and a step hook that is reset. Needs
/// root, like the agent.
class QuarantineTest : public StoreTest {
 protected:
  void SetUp() override;
  void TearDown() override { store::stepHook = nullptr; }

  std::string at(const std::string& name) const { return folder_.at("files/" + name); }
  std::string write(const std::string& name, const std::string& content = "a file that was detected") const;
  /// A file with everything a file can have.
  std::string writeRich(const std::string& name) const;
  static QuarantineRequest requestFor(const std::string& path);
  platform::Expected<Remark> add(const std::string& path) {
    return store().quarantine().add(requestFor(path));
  }
  platform::Expected<Remark> restore(const std::string& uuid, const CallerId& caller = root(),
                                     const std::string& target = "", bool trust = false);
  Json::Value items() { return store().quarantine().list(std::nullopt); }
  std::string uuidOf(const std::string& path);
  /// Quarantines the file, which must succeed.
  std::string take(const std::string& path);
  std::vector<std::string> vaultFiles() const { return namesIn(stateDir() + "/quarantine"); }
  static std::vector<std::string> namesIn(const std::string& folder);
  static CallerId other() { return {.uid = kOther, .gid = kOther, .groups = {kOther}, .pid = 2}; }
  static void before(const std::string& step, std::function<void()> what);
  static void exitAt(const std::string& step);
  void sql(const char* text);
  /// Runs the work in a child process. Returns its exit status, or 128 + the signal that ended the child.
  static int inChild(const std::function<void()>& what);
};

}  // namespace agent
