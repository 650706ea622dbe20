#include "platform/CLog.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

std::atomic<CLogLevel> gLevel{CLogLevel::kError};
std::atomic<CLog::Callback> gCallback{nullptr};

}  // namespace

void CLog::set_log_level(CLogLevel level) {
  gLevel = level;
}
CLogLevel CLog::log_level() {
  return gLevel;
}
void CLog::set_log_callback(Callback callback) {
  gCallback = callback;
}

void CLog::emit(CLogLevel level, const char* format, ...) {
  const Callback callback = gCallback;
  if (callback == nullptr || level < gLevel) {
    return;
  }
  std::array<char, 4096> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  callback(static_cast<int>(level), text.data());
}
