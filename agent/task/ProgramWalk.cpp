#include "task/ProgramWalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>

#include "platform/Posix.h"

namespace agent {

namespace {

/// Nothing, and the reason is reported, when the file cannot be opened. whenGone: the reason for a file that
/// is no longer there.
std::optional<EncounteredFile> openFile(const RunningProgram& program, const std::string& path, int flags,
                                        const char* whenGone, WalkSink& sink) {
  EncounteredFile file;
  file.path = program.path;
  file.fd = platform::Descriptor(open(path.c_str(), platform::readingFlags() | flags));
  file.statusNs = platform::nowNs();
  if (file.fd && fstat(file.fd.get(), &file.status) == 0) {
    return file;
  }
  const int error = errno;
  if (error == ENOENT || error == ESRCH || error == ENOTDIR || error == ELOOP) {
    sink.skipped(program.path, whenGone);
  } else {
    sink.failed(program.path, platform::errnoText(error));
  }
  return std::nullopt;
}

std::optional<EncounteredFile> openThroughProcess(const RunningProgram& program, WalkSink& sink) {
  return openFile(program, "/proc/" + std::to_string(program.pid) + "/exe", 0,
                  "a running program whose process had ended", sink);
}

/// Only while the file at the path is still the program.
std::optional<EncounteredFile> openAtPath(const RunningProgram& program, WalkSink& sink) {
  constexpr const char* kGone = "a running program that is not at its path";
  std::optional<EncounteredFile> file = openFile(program, program.path, O_NOFOLLOW, kGone, sink);
  if (file && (file->status.st_dev != program.device || file->status.st_ino != program.inode)) {
    sink.skipped(program.path, kGone);
    return std::nullopt;
  }
  return file;
}

}  // namespace

void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink) {
  std::set<std::pair<dev_t, ino_t>> seen;
  for (const RunningProgram& program : programs) {
    if (!sink.keepGoing()) {
      return;
    }
    if (!onlyOf || program.uid == *onlyOf) {
      std::optional<EncounteredFile> file =
          onlyOf ? openAtPath(program, sink) : openThroughProcess(program, sink);
      if (file && seen.emplace(file->status.st_dev, file->status.st_ino).second) {
        file->folderWritable = mayWriteFolderOf(program.path);
        sink.file(std::move(*file));
      }
    }
    sink.advanced(share / static_cast<double>(programs.size()));
  }
}

}  // namespace agent
