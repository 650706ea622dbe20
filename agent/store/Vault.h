#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/Posix.h"

namespace agent::store {

/// The folder of the items' files (0700). The ending of a name is the state of the file: `.part` is being
/// written, `.item` is whole, `.gone` is being deleted. `.part` and `.gone` without a row are deleted at the
/// start. Throws StoreError.
class Vault {
 public:
  explicit Vault(const std::string& path);
  platform::Descriptor create(const std::string& uuid) const;  ///< `.part`, empty, 0600
  /// Opens `.item`. A `.part` becomes `.item` first.
  platform::Descriptor open(const std::string& uuid) const;
  void name(const std::string& uuid) const;      ///< `.part` becomes `.item`, durably
  bool isWhole(const std::string& uuid) const;   ///< as `.item`
  void markGone(const std::string& uuid) const;  ///< `.item` becomes `.gone`, durably
  void revive(const std::string& uuid) const;    ///< `.gone` becomes `.item`, durably
  void discardPart(const std::string& uuid) const noexcept;
  void discardGone(const std::string& uuid) const noexcept;

  struct File {
    std::string uuid;
    enum class Kind { kPart, kItem, kGone } kind;
  };
  std::vector<File> files() const;  ///< files with other endings are ignored

  /// Takes or releases the busy lock. A restore child inherits the lock and keeps it until the child ends:
  /// the next agent then waits for the child.
  void setBusy(bool busy) const noexcept;
  int busyLock() const { return folder_.get(); }  ///< the descriptor of the busy lock
  /// Waits until no child of an earlier agent holds the busy lock. False after the limit.
  bool waitIdle(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

 private:
  void rename(const std::string& from, const std::string& to) const;
  platform::Descriptor folder_;
};

}  // namespace agent::store
