#include "platform/CLog.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

std::atomic<int> gLevel{3};
std::atomic<CLog::Callback> gCallback{nullptr};

}  // namespace

void CLog::set_log_level(int level) {
  gLevel = level;
}
int CLog::log_level() {
  return gLevel;
}
void CLog::set_log_callback(Callback callback) {
  gCallback = callback;
}

void CLog::emit(int level, const char* format, ...) {
  const Callback callback = gCallback;
  if (callback == nullptr || level < gLevel) {
    return;
  }
  std::array<char, 4096> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  callback(level, text.data());
}
