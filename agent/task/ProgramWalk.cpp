#include "task/ProgramWalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>

#include "platform/Posix.h"
#include "task/MappedFiles.h"

namespace agent {

namespace {

constexpr const char* kProgramGone = "a running program that is not at its path";
constexpr const char* kMappedGone = "a file that a process has mapped and that is not at its path";

/// A file of a process: its program, or a file that the process has mapped.
struct ProcessFile {
  std::string path;
  std::string link;  ///< the way to the file through the process
  dev_t device = 0;
  ino_t inode = 0;
  const char* whenGone = "";  ///< the reason when the file cannot be reached
};

/// Nothing, and the reason is reported, when the file cannot be opened.
std::optional<EncounteredFile> openFile(const ProcessFile& wanted, const std::string& path, int flags,
                                        const char* whenGone, WalkSink& sink) {
  EncounteredFile file;
  file.path = wanted.path;
  file.fd = platform::Descriptor(open(path.c_str(), platform::readingFlags() | flags));
  file.statusNs = platform::nowNs();
  if (file.fd && fstat(file.fd.get(), &file.status) == 0) {
    return file;
  }
  const int error = errno;
  if (error == ENOENT || error == ESRCH || error == ENOTDIR || error == ELOOP) {
    sink.skipped(wanted.path, whenGone);
  } else {
    sink.failed(wanted.path, platform::errnoText(error));
  }
  return std::nullopt;
}

/// Only while the file at the path is still the wanted one.
std::optional<EncounteredFile> openAtPath(const ProcessFile& wanted, WalkSink& sink) {
  std::optional<EncounteredFile> file = openFile(wanted, wanted.path, O_NOFOLLOW, wanted.whenGone, sink);
  if (file && (file->status.st_dev != wanted.device || file->status.st_ino != wanted.inode)) {
    sink.skipped(wanted.path, wanted.whenGone);
    return std::nullopt;
  }
  return file;
}

/// One walk over the files of processes. Each file is handed over once.
class ProcessFiles {
 public:
  ProcessFiles(bool byPath, WalkSink& sink) : byPath_(byPath), sink_(sink) {}

  void program(const RunningProgram& program) {
    const ProcessFile wanted{program.path, "/proc/" + std::to_string(program.pid) + "/exe", program.device,
                             program.inode, kProgramGone};
    listed_.emplace(program.device, program.inode);
    handOver(wanted,
             byPath_ ? openAtPath(wanted, sink_)
                     : openFile(wanted, wanted.link, 0, "a running program whose process had ended", sink_));
  }

  /// False when the walk must end.
  bool mapped(pid_t pid) {
    const auto files = mappedFiles(pid);
    if (!files) {
      sink_.failed("/proc/" + std::to_string(pid) + "/maps", files.error());
      return true;
    }
    for (const MappedFile& file : *files) {
      if (listed_.emplace(file.device, file.inode).second) {
        if (!sink_.keepGoing()) {
          return false;
        }
        mapped(pid, file);
      }
    }
    return true;
  }

 private:
  void mapped(pid_t pid, const MappedFile& file) {
    ProcessFile wanted{file.path, "/proc/" + std::to_string(pid) + "/map_files/" + file.range, file.device,
                       file.inode, kMappedGone};
    // The kernel shows the way through the process to few: without it the path must do.
    struct stat status {};
    const bool reachable = stat(wanted.link.c_str(), &status) == 0;
    if (reachable && (!S_ISREG(status.st_mode) || seen_.count({status.st_dev, status.st_ino}) != 0)) {
      return;  // a device, or the program
    }
    if (!reachable && errno == ENOENT) {
      return;  // no longer mapped
    }
    if (reachable) {
      wanted.device = status.st_dev;
      wanted.inode = status.st_ino;
    }
    handOver(wanted, byPath_ || !reachable ? openAtPath(wanted, sink_)
                                           : openFile(wanted, wanted.link, 0, kMappedGone, sink_));
  }

  void handOver(const ProcessFile& wanted, std::optional<EncounteredFile> file) {
    if (file && seen_.emplace(file->status.st_dev, file->status.st_ino).second) {
      file->folderWritable = mayWriteFolderOf(wanted.path);
      sink_.file(std::move(*file));
    }
  }

  const bool byPath_;
  WalkSink& sink_;
  std::set<std::pair<dev_t, ino_t>> listed_;  // as /proc lists them
  std::set<std::pair<dev_t, ino_t>> seen_;    // as opened
};

}  // namespace

void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink) {
  ProcessFiles files(onlyOf.has_value(), sink);
  for (const RunningProgram& program : programs) {
    if (!sink.keepGoing()) {
      return;
    }
    if (!onlyOf || program.uid == *onlyOf) {
      files.program(program);
      if (!files.mapped(program.pid)) {
        return;
      }
    }
    sink.advanced(share / static_cast<double>(programs.size()));
  }
}

}  // namespace agent
