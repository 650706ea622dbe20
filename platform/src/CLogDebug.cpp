#include "platform/CLogDebug.h"

#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/Descriptor.h"
#include "platform/Files.h"
#include "platform/Text.h"

namespace {

constexpr std::uint32_t kFolderMode = 0700;

struct State {
  std::mutex lock;
  bool active = false;
  bool tried = false;                                ///< to open the file, since the last property
  int level = static_cast<int>(LogLevel::kWarning);  ///< the lowest level that is written; any number
  std::size_t sizeBytes = 1048576;
  std::size_t backups = 5;
  std::string name = "tavcli";
  std::string path;
  std::shared_ptr<spdlog::logger> logger;
};

/// Never destroyed: a thread of a library may log while the program ends.
State& state() {
  static State* const instance = new State;
  return *instance;
}

/// Makes the folder, and closes an older one to other users: only its owner, and a group that the owner
/// gives it to, may look for the log.
platform::Expected<std::string> makeClosedFolder(const std::string& path) {
  auto folder = CDir::makeForFiles(path, kFolderMode);
  struct stat st {};
  if (folder && stat(folder->c_str(), &st) == 0 && st.st_uid == geteuid() && (st.st_mode & S_IRWXO) != 0) {
    (void)chmod(folder->c_str(), st.st_mode & 07777 & ~static_cast<mode_t>(S_IRWXO));
  }
  return folder;
}

/// Only the owner may read the log: its records hold paths and detections. The file is private before the
/// sink opens it, so no other user opens it first.
void makePrivate(const spdlog::filename_t& path) {
  const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const platform::Descriptor file(open(path.c_str(), flags, 0600));
  if (!file || fchmod(file.get(), 0600) != 0) {
    throw spdlog::spdlog_ex("cannot make the log private", errno);
  }
}

void openLog(State& s) {
  s.tried = true;
  s.logger.reset();
  try {
    if (s.path.empty()) {
      return;
    }
    // The log is made private: another user must not choose the file that this changes.
    const auto folder = makeClosedFolder(s.path);
    if (!folder) {
      return;
    }
    spdlog::file_event_handlers handlers;
    handlers.before_open = makePrivate;
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(
        *folder + "/" + s.name + ".log", s.sizeBytes, s.backups, false, handlers);
    s.logger = std::make_shared<spdlog::logger>(s.name, std::move(sink));
    s.logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %P %t %v");
    s.logger->set_level(spdlog::level::trace);
    s.logger->flush_on(spdlog::level::trace);
    s.logger->set_error_handler([](const std::string&) {});  // a full disk costs only the record
  } catch (const std::exception&) {
    s.logger.reset();
  }
}

bool readNumber(const std::string& text, long long* number) {
  if (!CStr::isNum(text)) {
    return false;
  }
  *number = std::atoll(text.c_str());
  return true;
}

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return "DEBUG";
    case LogLevel::kInfo:
      return "INFO";
    case LogLevel::kWarning:
      return "WARN";
    case LogLevel::kError:
      break;
  }
  return "ERROR";
}

void write(LogLevel level, const char* source, const char* function, int line,
           const std::string& text) noexcept {
  try {
    State& s = state();
    const std::lock_guard<std::mutex> guard(s.lock);
    if (!s.active || static_cast<int>(level) < s.level) {
      return;
    }
    if (!s.tried) {
      openLog(s);
    }
    if (s.logger) {
      s.logger->log(spdlog::level::info, "{} {}:{}:{} {}", levelName(level), source, function, line,
                    platform::visibleText(text));
    }
  } catch (...) {
    // A failing log must not end its caller.
  }
}

}  // namespace

CLogDebug* CLogDebug::Instance() {
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  static CLogDebug instance;
  return s.active ? &instance : nullptr;
}

CLogDebug* CLogDebug::Create() {
  {
    State& s = state();
    const std::lock_guard<std::mutex> guard(s.lock);
    s.active = true;
  }
  return Instance();
}

bool CLogDebug::CheckLogLevel(LogLevel level) {
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  return s.active && static_cast<int>(level) >= s.level;
}

void CLogDebug::SetProperty(int property, const std::string& text) {
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  long long number = 0;
  switch (property) {
    case kName:
      s.name = text;
      break;
    case kPath:
      s.path = text;
      break;
    case kLevel:
      s.level = readNumber(text, &number) ? static_cast<int>(number) : s.level;
      break;
    case kSize:
      s.sizeBytes = readNumber(text, &number) && number > 0 ? static_cast<std::size_t>(number) : s.sizeBytes;
      break;
    case kBackupCount:
      s.backups = readNumber(text, &number) && number >= 0 ? static_cast<std::size_t>(number) : s.backups;
      break;
    default:
      return;
  }
  s.tried = false;
}

platform::Expected<void> CLogDebug::makeFolder() {
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  return makeClosedFolder(s.path).map([](const std::string&) {});
}

void CLogDebug::LogPrintV(LogLevel level, const char* source, const char* function, int line,
                          const char* format, ...) {
  if (!CheckLogLevel(level)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  write(level, source, function, line, text);
}

void CLogDebug::LogPrintStr(LogLevel level, const char* source, const char* function, int line,
                            const std::string& text) {
  if (CheckLogLevel(level)) {
    write(level, source, function, line, text);
  }
}

void CLogDebug::Close() {
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  s.logger.reset();
  s.active = false;
  s.tried = false;
}
