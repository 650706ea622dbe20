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

/// Counts the connections of mere members of the bus's group, greeted or not, so that none of them can take
/// all the descriptors and the memory of the process that listens. Any thread.
class MemberLinks {
  struct Counts;

 public:
  /// One connection, counted until this ends; may outlive the counter.
  class Place {
   public:
    explicit Place(std::shared_ptr<Counts> counts) : counts_(std::move(counts)) {}
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    /// Counts it for that address of its user as well; once. False when the address has
    /// kMaxMemberLinksOfAddress.
    bool takeAddress(const Guid& guid);

   private:
    friend class MemberLinks;
    const std::shared_ptr<Counts> counts_;
    std::optional<uid_t> user_;
    std::optional<Guid> guid_;
  };

  MemberLinks();
  /// Null when the user has kMaxMemberLinks.
  std::unique_ptr<Place> enter(uid_t user);

 private:
  struct Counts {
    std::mutex mutex;
    std::map<uid_t, std::uint32_t> ofUser;
    std::map<std::pair<uid_t, Guid>, std::uint32_t> ofAddress;
  };
  const std::shared_ptr<Counts> counts_;
};

}  // namespace lunet
