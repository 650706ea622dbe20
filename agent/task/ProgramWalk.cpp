#include "task/ProgramWalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "platform/Posix.h"

namespace agent {

namespace {

using FileSet = std::set<std::pair<dev_t, ino_t>>;

/// The file of a program, open for reading; or why it is not.
struct Opened {
  MetFile file;
  bool gone = false;  // there is nothing of that program to be read any more
  std::string reason;
};

Opened openFile(const std::string& path, int flags) {
  Opened result;
  result.file.fd =
      platform::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
  result.file.statusNs = platform::nowNs();
  if (!result.file.fd || fstat(result.file.fd.get(), &result.file.status) != 0) {
    const int error = errno;
    result.file.fd.reset();
    result.gone = error == ENOENT || error == ESRCH || error == ENOTDIR || error == ELOOP;
    result.reason = std::error_code(error, std::generic_category()).message();
  }
  return result;
}

Opened openThroughProcess(const RunningProgram& program) {
  Opened result = openFile("/proc/" + std::to_string(program.pid) + "/exe", 0);
  if (result.gone) {
    result.reason = "a running program whose process had ended";
  }
  return result;
}

/// Only when that program still stands there.
Opened openAtPath(const RunningProgram& program) {
  Opened result = openFile(program.path, O_NOFOLLOW);
  const struct stat& status = result.file.status;
  if (result.file.fd && (status.st_dev != program.device || status.st_ino != program.inode)) {
    result.file.fd.reset();
    result.gone = true;
  }
  if (result.gone) {
    result.reason = "a running program that is not at its path";
  }
  return result;
}

void meet(const RunningProgram& program, Opened opened, FileSet& met, WalkSink& sink) {
  if (!opened.file.fd) {
    opened.gone ? sink.skipped(program.path, opened.reason) : sink.failed(program.path, opened.reason);
    return;
  }
  if (!met.emplace(opened.file.status.st_dev, opened.file.status.st_ino).second) {
    return;
  }
  const std::size_t slash = program.path.find_last_of('/');
  const std::string folder = slash == 0 || slash == std::string::npos ? "/" : program.path.substr(0, slash);
  opened.file.path = program.path;
  opened.file.folderWritable = faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  sink.file(std::move(opened.file));
}

}  // namespace

void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink) {
  FileSet met;
  for (const RunningProgram& program : programs) {
    if (!sink.keepGoing()) {
      return;
    }
    if (!onlyOf) {
      meet(program, openThroughProcess(program), met, sink);
    } else if (program.uid == *onlyOf) {
      meet(program, openAtPath(program), met, sink);
    }
    sink.advanced(share / static_cast<double>(programs.size()));
  }
}

}  // namespace agent
