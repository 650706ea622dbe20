#include "MemberQuota.h"

namespace lunet {

namespace {

template <class Map>
bool countUp(Map& counts, const typename Map::key_type& key, std::uint32_t limit) {
  std::uint32_t& count = counts[key];
  if (count >= limit) {
    return false;
  }
  ++count;
  return true;
}

template <class Map>
void countDown(Map& counts, const typename Map::key_type& key) {
  const auto found = counts.find(key);
  if (--found->second == 0) {
    counts.erase(found);
  }
}

}  // namespace

MemberQuota::MemberQuota() : counts_(std::make_shared<Counts>()) {}

std::unique_ptr<MemberQuota::Slot> MemberQuota::take(uid_t user) {
  auto slot = std::make_unique<Slot>(counts_);
  const std::lock_guard lock(counts_->mutex);
  if (!countUp(counts_->ofUser, user, kMaxMemberLinks)) {
    return nullptr;
  }
  slot->user_ = user;
  return slot;
}

bool MemberQuota::Slot::takeAddress(const Guid& guid) {
  const std::lock_guard lock(counts_->mutex);
  if (guid_ || !countUp(counts_->ofAddress, {*user_, guid}, kMaxMemberLinksOfAddress)) {
    return false;
  }
  guid_ = guid;
  return true;
}

MemberQuota::Slot::~Slot() {
  if (!user_) {
    return;
  }
  const std::lock_guard lock(counts_->mutex);
  countDown(counts_->ofUser, *user_);
  if (guid_) {
    countDown(counts_->ofAddress, {*user_, *guid_});
  }
}

}  // namespace lunet
