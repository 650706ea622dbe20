#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "lunet/Lunet.h"

namespace lunet {

/// Counts the connections of group members, pending ones too. So no member can take all descriptors and
/// memory of the listening process. Any thread.
class MemberQuota {
  struct Counts;

 public:
  /// One connection, counted until the slot ends. A slot may outlive its MemberQuota.
  class Slot {
   public:
    explicit Slot(std::shared_ptr<Counts> counts) : counts_(std::move(counts)) {}
    ~Slot();
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    /// Counts the connection for an address of its user too; once. False: the address has its limit.
    bool takeAddress(const Guid& guid);

   private:
    friend class MemberQuota;
    const std::shared_ptr<Counts> counts_;
    std::optional<uid_t> user_;
    std::optional<Guid> guid_;
  };

  MemberQuota();
  /// Null when the user has kMaxMemberLinks.
  std::unique_ptr<Slot> take(uid_t user);

 private:
  struct Counts {
    std::mutex mutex;
    std::map<uid_t, std::uint32_t> ofUser;
    std::map<std::pair<uid_t, Guid>, std::uint32_t> ofAddress;
  };
  const std::shared_ptr<Counts> counts_;
};

}  // namespace lunet
