#include "store/AuditLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/Text.h"

namespace agent::store {
namespace {

/// A text in quotes with its control characters visible: no text can look like a further field.
std::string field(const std::string& text) {
  std::string quotedText = "\"";
  for (const char c : platform::visibleText(text.substr(0, kMaxFieldBytes))) {
    quotedText += c == '"' ? "\\\"" : std::string(1, c);
  }
  quotedText += '"';
  return quotedText + cutRemark(text);
}

std::string caller(const CallerId& who) {
  if (who.uid == static_cast<uid_t>(-1)) {
    return "agent";
  }
  return "uid=" + std::to_string(who.uid) + " gid=" + std::to_string(who.gid) +
         " pid=" + std::to_string(who.pid);
}

}  // namespace

std::string cutRemark(std::string_view text) {
  return text.size() <= kMaxFieldBytes ? "" : "...(" + std::to_string(text.size()) + " bytes)";
}

std::string cutField(std::string_view text) {
  return std::string(text.substr(0, kMaxFieldBytes)) + cutRemark(text);
}

AuditLog::AuditLog(std::string path, std::int64_t maxBytes) : path_(std::move(path)), maxBytes_(maxBytes) {
  open();
}

bool AuditLog::open() {
  file_.reset(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  struct stat st {};
  size_ = file_ && ::fstat(file_.get(), &st) == 0 ? st.st_size : 0;
  return static_cast<bool>(file_);
}

void AuditLog::rotate() {
  file_.reset();
  for (int age = kKept - 1; age >= 0; --age) {
    const std::string from = age == 0 ? path_ : path_ + "." + std::to_string(age);
    ::rename(from.c_str(), (path_ + "." + std::to_string(age + 1)).c_str());
  }
}

bool AuditLog::append(const std::string& line) {
  if (size_ > 0 && size_ + static_cast<std::int64_t>(line.size()) > maxBytes_) {
    rotate();
  }
  if (!file_ && !open()) {
    return false;
  }
  if (platform::writeAll(file_.get(), line) != 0) {
    return false;
  }
  size_ += static_cast<std::int64_t>(line.size());
  return true;
}

void AuditLog::add(const CallerId& who, const std::string& action, const std::string& object,
                   const std::string& outcome) noexcept {
  try {
    std::string line = CDateTime::now() + " " + caller(who) + " action=" + field(action) +
                       " object=" + field(object) + " outcome=" + field(outcome);
    const std::lock_guard lock(mutex_);
    if (lost_ > 0) {
      line += " lost_before=" + std::to_string(lost_);
    }
    lost_ = append(line + "\n") ? 0 : lost_ + 1;
  } catch (...) {
    // Out of memory: no line can be written.
  }
}

}  // namespace agent::store
