#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/Posix.h"

namespace agent::store {

/// The folder that holds the items' files (0700), by names that carry their state: `.part` is being written
/// and worth nothing without a row, `.item` is whole, `.gone` is about to go and worth nothing without a row.
/// Throws StoreError.
class Vault {
 public:
  explicit Vault(const std::string& path);
  platform::Descriptor create(const std::string& uuid) const;  ///< `.part`, empty, 0600
  platform::Descriptor open(
      const std::string& uuid) const;            ///< `.item`; names it so when it is still `.part`
  void name(const std::string& uuid) const;      ///< `.part` becomes `.item`, lasting
  bool isWhole(const std::string& uuid) const;   ///< as `.item`
  void markGone(const std::string& uuid) const;  ///< `.item` becomes `.gone`, lasting
  void revive(const std::string& uuid) const;    ///< and back
  void discardPart(const std::string& uuid) const noexcept;
  void discardGone(const std::string& uuid) const noexcept;

  struct File {
    std::string uuid;
    enum class Kind { kPart, kItem, kGone } kind;
  };
  std::vector<File> files() const;  ///< others are left alone

  /// Says to the next agent that a child process may outlive this one by a moment. The child's copy of the
  /// descriptor says so too, until it ends.
  void setBusy(bool busy) const noexcept;
  int busyMark() const { return folder_.get(); }  ///< the descriptor that does
  /// Waits until no child of an earlier agent is at work; false when one still is after that time.
  bool waitIdle(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

 private:
  void rename(const std::string& from, const std::string& to) const;
  platform::Descriptor folder_;
};

}  // namespace agent::store
