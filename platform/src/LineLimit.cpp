#include "platform/LineLimit.h"

namespace platform {
namespace {

constexpr uid_t kOtherUsers = static_cast<uid_t>(-2);

}  // namespace

std::optional<std::string> LineLimit::admit(uid_t user, Time now) {
  const std::lock_guard lock(mutex_);
  Share& share = shareOf(user, now);
  std::string remark;
  if (now - share.since >= kWindow) {
    if (share.lines > most_) {
      remark = " (" + std::to_string(share.lines - most_) + " lines about this user were left out before)";
    }
    share = {now, 0};
  }
  ++share.lines;
  if (share.lines > most_) {
    return std::nullopt;
  }
  return share.lines < most_ ? remark : remark + " (further lines about this user are left out for a minute)";
}

LineLimit::Share& LineLimit::shareOf(uid_t user, Time now) {
  if (shares_.size() >= kMostUsers && !shares_.contains(user)) {
    std::erase_if(shares_, [now](const auto& entry) { return now - entry.second.since >= kWindow; });
    user = shares_.size() < kMostUsers ? user : kOtherUsers;
  }
  return shares_.try_emplace(user, Share{now, 0}).first->second;
}

}  // namespace platform
