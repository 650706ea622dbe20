#pragma once

#include <sys/types.h>

#include <memory>
#include <vector>

#include "platform/Expected.h"
#include "store/StoreTypes.h"

namespace agent {

/// True for root and for the agent's own user, who may do everything.
bool isAdministrator(const CallerId& caller);

/// While an object lives, its thread accesses files with the caller's user, group and groups only. Other
/// threads keep the agent's rights. Administrators change nothing.
class CallerRights {
 public:
  /// Fails when the agent cannot take the caller's rights. Then nothing is changed.
  static platform::Expected<std::unique_ptr<CallerRights>> take(const CallerId& caller);
  ~CallerRights();  ///< restores the agent's rights; ends the process when that fails
  CallerRights(const CallerRights&) = delete;
  CallerRights& operator=(const CallerRights&) = delete;

  /// True when the thread has fewer rights than the agent.
  bool reduced() const { return reduced_; }

  /// The agent's own rights for a while, on the same thread: for the agent's log and store.
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
  CallerRights() = default;
  platform::Expected<void> takeAll(const CallerId& caller);
  bool takeUser() const;

  bool reduced_ = false;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  gid_t ownGid_ = 0;
  std::vector<gid_t> ownGroups_;
};

}  // namespace agent
