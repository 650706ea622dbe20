#include "store/AuditLog.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "engine/Digest.h"
#include "platform/Text.h"

namespace agent::store {
namespace {

constexpr uid_t kOtherUsers = static_cast<uid_t>(-2);
constexpr const char* kOtherActions = "others";

std::string visible(std::string_view text) {
  std::string shown;
  for (const char c : platform::visibleText(text)) {
    shown += c == '"' ? "\\\"" : std::string(1, c);
  }
  return shown;
}

std::string cutRemark(std::string_view whole) {
  return "...(" + std::to_string(whole.size()) + " bytes, sha256 " + sha256Of(whole) + ")";
}

/// A text in quotes with its control characters visible: no text can look like a further field.
std::string field(const std::string& text) {
  if (text.size() <= kMaxFieldBytes) {
    if (const std::string all = visible(text); all.size() <= kMaxFieldBytes) {
      return "\"" + all + "\"";
    }
  }
  std::size_t fits = 0;
  for (std::size_t tooMany = std::min(text.size(), kMaxFieldBytes) + 1; tooMany - fits > 1;) {
    const std::size_t middle = fits + (tooMany - fits) / 2;
    (visible(std::string_view(text).substr(0, middle)).size() <= kMaxFieldBytes ? fits : tooMany) = middle;
  }
  return "\"" + visible(std::string_view(text).substr(0, fits)) + "\"" + cutRemark(text);
}

std::string caller(const CallerId& who) {
  if (who.uid == static_cast<uid_t>(-1)) {
    return "agent";
  }
  return "uid=" + std::to_string(who.uid) + " gid=" + std::to_string(who.gid) +
         " pid=" + std::to_string(who.pid);
}

std::string nowInUtc() {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  gmtime_r(&now, &fields);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields)};
}

std::string lineOf(const std::string& who, const std::string& action, const std::string& object,
                   const std::string& outcome) {
  return nowInUtc() + " " + who + " action=" + field(action) + " object=" + field(object) +
         " outcome=" + field(outcome);
}

/// "3 more: change region 1, restore 2"
std::string countText(const std::map<std::string, unsigned long>& actions) {
  unsigned long sum = 0;
  std::string each;
  for (const auto& [action, count] : actions) {
    sum += count;
    each += (each.empty() ? "" : ", ") + action + " " + std::to_string(count);
  }
  return std::to_string(sum) + " more: " + each;
}

}  // namespace

std::string cutField(std::string_view text) {
  return text.size() <= kMaxFieldBytes ? std::string(text)
                                       : std::string(text.substr(0, kMaxFieldBytes)) + cutRemark(text);
}

AuditLog::AuditLog(const std::string& folder, AuditOptions options)
    : options_(std::move(options)),
      changes_(folder + "/audit.log", options_.keeping),
      refusals_(folder + "/audit-refusals.log", options_.keeping),
      systemLog_(options_.systemLog) {}

AuditLog::~AuditLog() {
  try {
    const std::lock_guard lock(mutex_);
    changes_.writeWaiting();
    writeCounts(Time::max());
    refusals_.writeWaiting();
  } catch (...) {
    // Out of memory: no line can be written.
  }
}

void AuditLog::add(const CallerId& who, const std::string& action, const std::string& object,
                   const std::string& outcome) noexcept {
  try {
    const std::string line = lineOf(caller(who), action, object, outcome);
    const std::lock_guard lock(mutex_);
    changes_.append(line);
    systemLog_.send(SystemLog::Severity::kNotice, line);
  } catch (...) {
    // Out of memory: no line can be written.
  }
}

void AuditLog::refuse(const CallerId& who, const std::string& action, const std::string& object,
                      const std::string& outcome) noexcept {
  try {
    const std::lock_guard lock(mutex_);
    const Time now = options_.now();
    writeCounts(now);
    const auto [user, first] = users_.try_emplace(countedAs(who.uid), Refusals{now, {}});
    if (first) {
      writeRefusal(lineOf(caller(who), action, object, outcome));
      return;
    }
    auto& actions = user->second.uncounted;
    const bool named = actions.size() < kMostActions || actions.contains(action);
    ++actions[named ? action : kOtherActions];
  } catch (...) {
    // Out of memory: no line can be written.
  }
}

void AuditLog::settle() noexcept {
  try {
    const std::lock_guard lock(mutex_);
    changes_.writeWaiting();
    writeCounts(options_.now());
    refusals_.writeWaiting();
  } catch (...) {
    // Out of memory: a later call writes what waits.
  }
}

uid_t AuditLog::countedAs(uid_t uid) const {
  return users_.size() < kMostUsers || users_.contains(uid) ? uid : kOtherUsers;
}

void AuditLog::writeRefusal(const std::string& line) {
  refusals_.append(line);
  systemLog_.send(SystemLog::Severity::kWarning, line);
}

/// For each user whose minute is over by then: a line, and the next minute; or the end, after a minute
/// without a refusal.
void AuditLog::writeCounts(Time until) {
  for (auto user = users_.begin(); user != users_.end();) {
    auto& [uid, refusals] = *user;
    if (until - refusals.since < kWindow) {
      ++user;
    } else if (refusals.uncounted.empty()) {
      user = users_.erase(user);
    } else {
      writeRefusal(lineOf(uid == kOtherUsers ? "other users" : "uid=" + std::to_string(uid), "refused calls",
                          "", countText(refusals.uncounted)));
      refusals = {until, {}};
      ++user;
    }
  }
}

}  // namespace agent::store
