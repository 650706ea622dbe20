#pragma once

#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/io_uring.h>
#include <linux/perf_event.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>

namespace agent::testing {

/// What a worker that is an attacker's may try. An attempt whose call the filter refuses ends the worker, and
/// the agent learns the name of the call.
struct Attempt {
  const char* name;
  const char* call;          ///< that the filter refuses; null: the call is made, and fails
  bool (*succeeds)(int fd);  ///< fd: the file of the scan
  bool needsMemoryLimit = false;
};

inline bool opens(const std::string& path, int flags) {
  return open(path.c_str(), flags, 0600) >= 0;
}
template <class... Arguments>
bool calls(long number, Arguments... arguments) {
  return syscall(number, arguments...) >= 0;
}

inline const Attempt kAttempts[] = {
    // files
    {"ReadThePasswordFile", nullptr, [](int) { return opens("/etc/passwd", O_RDONLY); }},
    {"ReadTheShadowFile", nullptr, [](int) { return opens("/etc/shadow", O_RDONLY); }},
    {"LeaveTheRoot", nullptr, [](int) { return opens("../../../../etc/passwd", O_RDONLY); }},
    {"ListTheRoot", nullptr, [](int) { return opens("/", O_RDONLY | O_DIRECTORY); }},
    {"ListTheFoldersOfOtherWorkers", nullptr, [](int) { return opens("..", O_RDONLY | O_DIRECTORY); }},
    {"WriteBesideItsFolder", nullptr, [](int) { return opens("../x", O_WRONLY | O_CREAT); }},
    {"WriteToTheRoot", nullptr, [](int) { return opens("/x", O_WRONLY | O_CREAT); }},
    {"MakeAFolderInTheRoot", nullptr, [](int) { return mkdir("/x", 0700) == 0; }},
    {"OpenADevice", nullptr, [](int) { return opens("/dev/mem", O_RDWR); }},
    {"OpenProc", nullptr, [](int) { return opens("/proc/self/mem", O_RDWR); }},
    {"MakeADevice", "mknod", [](int) { return calls(SYS_mknod, "x", S_IFBLK | 0600, 0x800); }},
    {"MakeALink", "symlink", [](int) { return symlink("/etc", "x") == 0; }},
    {"MakeAHardLink", "link", [](int) { return link("/unpacked", "x") == 0; }},
    {"ChangeItsRoot", "chroot", [](int) { return chroot(".") == 0; }},
    {"ChangeItsFolder", "chdir", [](int) { return chdir("/") == 0; }},
    // the file of the scan
    {"WriteToTheFile", nullptr, [](int fd) { return write(fd, "x", 1) == 1; }},
    {"WriteIntoTheFile", nullptr, [](int fd) { return pwrite(fd, "x", 1, 0) == 1; }},
    {"CutTheFile", nullptr, [](int fd) { return ftruncate(fd, 0) == 0; }},
    {"MapTheFileForWriting", nullptr,
     [](int fd) { return mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) != MAP_FAILED; }},
    {"MakeAMappingWritable", nullptr,
     [](int fd) {
       void* place = mmap(nullptr, 1, PROT_READ, MAP_SHARED, fd, 0);
       return place != MAP_FAILED && mprotect(place, 1, PROT_READ | PROT_WRITE) == 0;
     }},
    {"ReopenTheFile", nullptr, [](int fd) { return opens("/proc/self/fd/" + std::to_string(fd), O_RDWR); }},
    {"ReopenTheFileByDev", nullptr, [](int fd) { return opens("/dev/fd/" + std::to_string(fd), O_RDWR); }},
    {"OpenTheFileByItsEmptyName", nullptr, [](int fd) { return openat(fd, "", O_RDWR) >= 0; }},
    {"OpenTheFileByItsHandle", "open_by_handle_at",
     [](int fd) { return calls(SYS_open_by_handle_at, fd, nullptr, O_RDWR); }},
    {"LinkTheFile", "linkat", [](int fd) { return linkat(fd, "", AT_FDCWD, "x", AT_EMPTY_PATH) == 0; }},
    {"ChangeTheFilesMode", "fchmod", [](int fd) { return fchmod(fd, 0777) == 0; }},
    {"ChangeTheFilesOwner", "fchown", [](int fd) { return fchown(fd, getuid(), getgid()) == 0; }},
    {"ChangeTheFilesTimes", "utimensat", [](int fd) { return futimens(fd, nullptr) == 0; }},
    {"ChangeTheFilesAttributes", "fsetxattr",
     [](int fd) { return calls(SYS_fsetxattr, fd, "user.x", "x", 1, 0); }},
    {"LockTheFile", "flock", [](int fd) { return calls(SYS_flock, fd, 2); }},
    {"LeaseTheFile", "fcntl", [](int fd) { return fcntl(fd, F_SETLEASE, F_RDLCK) == 0; }},
    {"ChangeTheFilesFlags", "fcntl", [](int fd) { return fcntl(fd, F_SETFL, O_NONBLOCK) == 0; }},
    {"AllocateInTheFile", "fallocate", [](int fd) { return calls(SYS_fallocate, fd, 0, 0, 4096); }},
    // the network and other processes
    {"MakeAnInternetSocket", "socket", [](int) { return socket(AF_INET, SOCK_STREAM, 0) >= 0; }},
    {"MakeALocalSocket", "socket", [](int) { return socket(AF_UNIX, SOCK_STREAM, 0) >= 0; }},
    {"MakeANetlinkSocket", "socket", [](int) { return socket(AF_NETLINK, SOCK_RAW, 0) >= 0; }},
    {"MakeAPairOfSockets", "socketpair",
     [](int) {
       int ends[2];
       return socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0;
     }},
    {"ConnectItsChannel", "connect",
     [](int) {
       const sockaddr_un address{AF_UNIX, "/run/x"};
       return connect(3, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
     }},
    {"KillTheTemplate", "kill", [](int) { return kill(getppid(), SIGKILL) == 0; }},
    {"KillAll", "kill", [](int) { return kill(-1, SIGKILL) == 0; }},
    {"KillAThreadOfTheTemplate", "tgkill", [](int) { return calls(SYS_tgkill, 1, 1, SIGKILL); }},
    {"KillAThread", "tkill", [](int) { return calls(SYS_tkill, 1, SIGKILL); }},
    {"OpenAProcess", "pidfd_open", [](int) { return calls(SYS_pidfd_open, 1, 0); }},
    {"TakeADescriptor", "pidfd_getfd", [](int) { return calls(SYS_pidfd_getfd, 3, 3, 0); }},
    {"TraceTheTemplate", "ptrace", [](int) { return calls(SYS_ptrace, PTRACE_ATTACH, getppid(), 0, 0); }},
    {"ReadTheTemplatesMemory", "process_vm_readv",
     [](int) { return calls(SYS_process_vm_readv, getppid(), nullptr, 0, nullptr, 0, 0); }},
    {"WriteTheTemplatesMemory", "process_vm_writev",
     [](int) { return calls(SYS_process_vm_writev, getppid(), nullptr, 0, nullptr, 0, 0); }},
    {"Fork", "clone", [](int) { return fork() >= 0; }},
    {"BeginAThread", "clone3", [](int) { return calls(SYS_clone3, nullptr, 0); }},
    {"ExecuteAProgram", "execve", [](int) { return execl("/bin/sh", "sh", nullptr) == 0; }},
    {"ExecuteTheFile", "execveat",
     [](int fd) { return calls(SYS_execveat, fd, "", nullptr, nullptr, AT_EMPTY_PATH); }},
    {"ShareMemory", "shmget", [](int) { return calls(SYS_shmget, IPC_PRIVATE, 4096, 0600); }},
    {"LowerOthersLimits", "prlimit64",
     [](int) { return calls(SYS_prlimit64, 1, RLIMIT_CPU, nullptr, nullptr); }},
    // rights
    {"BecomeRoot", "setuid", [](int) { return calls(SYS_setuid, 0); }},
    {"BecomeAnotherGroup", "setgid", [](int) { return calls(SYS_setgid, 0); }},
    {"JoinGroups", "setgroups", [](int) { return calls(SYS_setgroups, 0, nullptr); }},
    {"TakeCapabilities", "capset", [](int) { return calls(SYS_capset, nullptr, nullptr); }},
    {"BecomeDumpable", "prctl", [](int) { return prctl(PR_SET_DUMPABLE, 1) == 0; }},
    {"MakeAUserNamespace", "unshare", [](int) { return unshare(CLONE_NEWUSER) == 0; }},
    {"JoinANamespace", "setns", [](int fd) { return calls(SYS_setns, fd, 0); }},
    {"Mount", "mount", [](int) { return mount("proc", "/unpacked", "proc", 0, nullptr) == 0; }},
    {"Unmount", "umount2", [](int) { return umount2("/", MNT_DETACH) == 0; }},
    {"CopyAMount", "open_tree", [](int) { return calls(SYS_open_tree, AT_FDCWD, "/", 1); }},
    {"ReplaceTheFilter", "seccomp", [](int) { return calls(SYS_seccomp, 0, 0, nullptr); }},
    {"ReplaceTheBreachHandler", "rt_sigaction", [](int) { return std::signal(SIGSYS, SIG_IGN) != SIG_ERR; }},
    {"RunItsOwnCode", "mprotect",
     [](int) {
       void* place = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
       return mprotect(place, 4096, PROT_READ | PROT_EXEC) == 0;
     }},
    {"MapCode", "mmap",
     [](int) {
       return mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) !=
              MAP_FAILED;
     }},
    // parts of the kernel
    {"UseTheKeyring", "keyctl", [](int) { return calls(SYS_keyctl, 0, -3, 1); }},
    {"AddAKey", "add_key", [](int) { return calls(SYS_add_key, "user", "x", "x", 1, -3); }},
    {"LoadABpfProgram", "bpf", [](int) { return calls(SYS_bpf, BPF_PROG_LOAD, nullptr, 0); }},
    {"MakeAnIoUring", "io_uring_setup", [](int) { return calls(SYS_io_uring_setup, 1, nullptr); }},
    {"HandlePageFaults", "userfaultfd", [](int) { return calls(SYS_userfaultfd, 0); }},
    {"CountEvents", "perf_event_open", [](int) { return calls(SYS_perf_event_open, nullptr, 0, -1, -1, 0); }},
    {"MakeAMemoryFile", "memfd_create", [](int) { return calls(SYS_memfd_create, "x", 0); }},
    {"WatchFolders", "inotify_init1", [](int) { return calls(SYS_inotify_init1, 0); }},
    {"LoadAModule", "finit_module", [](int fd) { return calls(SYS_finit_module, fd, "", 0); }},
    {"SetTheClock", "clock_settime", [](int) { return calls(SYS_clock_settime, CLOCK_REALTIME, nullptr); }},
    {"TypeInATerminal", "ioctl", [](int) { return ioctl(2, TIOCSTI, "x") == 0; }},
    // limits
    {"RaiseItsLimits", nullptr,
     [](int) {
       const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
       return setrlimit(RLIMIT_DATA, &all) == 0 || setrlimit(RLIMIT_NPROC, &all) == 0 ||
              setrlimit(RLIMIT_CORE, &all) == 0;
     },
     true},
    {"TakeMemory", nullptr,
     [](int) {
       return mmap(nullptr, std::size_t{4} << 30, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) != MAP_FAILED;
     },
     true},
    {"TakeDescriptors", nullptr,
     [](int fd) {
       int count = 0;
       while (count < 1000 && dup(fd) >= 0) {
         ++count;
       }
       return count == 1000;
     }},
    {"FillTheRoot", nullptr,
     [](int) {
       const int file = open("x", O_WRONLY | O_CREAT, 0600);
       const std::string block(1U << 20, 'x');
       int count = 0;
       while (count < 100 && write(file, block.data(), block.size()) == static_cast<ssize_t>(block.size())) {
         ++count;
       }
       return count == 100;
     }},
};

}  // namespace agent::testing
