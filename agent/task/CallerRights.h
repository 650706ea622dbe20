#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "store/Store.h"

namespace agent {

/// While it lives, the calling thread reaches files with a caller's user, group and groups only: what he
/// could not open, the thread cannot. Other threads keep the agent's rights. For root and for the agent's own
/// user nothing is changed.
class CallerRights {
 public:
  /// error() says why when the agent cannot take the caller's rights; then nothing is changed.
  explicit CallerRights(const CallerId& caller);
  ~CallerRights();  ///< the agent's rights again; ends the process if that fails
  CallerRights(const CallerRights&) = delete;
  CallerRights& operator=(const CallerRights&) = delete;

  const std::string& error() const { return error_; }
  /// True when the thread has fewer rights than the agent.
  bool reduced() const { return reduced_; }

  /// The agent's own rights for a while, on the same thread: to write its log, its store.
  class Suspended {
   public:
    explicit Suspended(const CallerRights* rights);  ///< null: nothing to suspend
    ~Suspended();
    Suspended(const Suspended&) = delete;
    Suspended& operator=(const Suspended&) = delete;

   private:
    const CallerRights* rights_;
  };

 private:
  void restore();
  bool take() const;

  std::string error_;
  bool reduced_ = false;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  gid_t ownGid_ = 0;
  std::vector<gid_t> ownGroups_;
};

}  // namespace agent
