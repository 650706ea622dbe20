#include "worker/CallFilter.h"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "worker/Messages.h"

namespace agent {
namespace {

constexpr int kExitBreach = 159;

// Calls that both may make with any arguments. Of a descriptor, these calls can do no more than its opening
// allowed.
constexpr const char* kOfBoth[] = {
    // files of the root, which is empty, and the received descriptor
    "read", "readv", "pread64", "preadv", "write", "writev", "pwrite64", "pwritev", "lseek", "_llseek",
    "open", "openat", "close", "stat", "lstat", "fstat", "newfstatat", "statx", "fstat64", "fstatat64",
    "access", "faccessat", "faccessat2", "getdents", "getdents64", "mkdir", "mkdirat", "rmdir", "unlink",
    "unlinkat", "rename", "renameat", "renameat2", "readlink", "readlinkat", "chmod", "fchmodat", "ftruncate",
    "ftruncate64", "fadvise64", "getcwd", "dup", "dup2", "dup3", "umask",
    // memory
    "brk", "munmap", "mremap", "madvise", "msync",
    // the channel
    "sendmsg", "sendto", "recvmsg", "poll", "ppoll",
    // signals, time and the process itself
    "rt_sigprocmask", "rt_sigreturn", "sigaltstack", "restart_syscall", "futex", "set_robust_list", "rseq",
    "sched_yield", "sched_getaffinity", "clock_gettime", "clock_getres", "clock_nanosleep", "nanosleep",
    "gettimeofday", "time", "times", "getrusage", "getpid", "getppid", "gettid", "getuid", "geteuid",
    "getgid", "getegid", "uname", "sysinfo", "getrandom", "exit", "exit_group",
    // the budget of a scan
    "setitimer", "statfs", "getrlimit", "setrlimit"};

// What the template needs to fork a worker, to collect it, and to confine it further.
constexpr const char* kOfTemplate[] = {"wait4",
                                       "waitid",
                                       "signalfd4",
                                       "chdir",
                                       "pidfd_open",
                                       "close_range",
                                       "seccomp",
                                       "landlock_create_ruleset",
                                       "landlock_add_rule",
                                       "landlock_restrict_self",
                                       "fstatfs",
                                       "flock"};

#ifdef TAV_SANITIZED
// The sanitizers look at memory by a pipe.
constexpr const char* kOfSanitizers[] = {"pipe2"};
#else
constexpr std::initializer_list<const char*> kOfSanitizers;
#endif

constexpr int kNewNamespaces =
    CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;

/// Collects the first error of the rules.
class Rules {
 public:
  Rules() : context_(seccomp_init(SCMP_ACT_TRAP), seccomp_release) { error_ = context_ ? 0 : -ENOMEM; }

  void attribute(scmp_filter_attr name, std::uint32_t value) { keep(seccomp_attr_set(get(), name, value)); }
  void allow(const char* name, std::initializer_list<scmp_arg_cmp> arguments = {}) {
    add(SCMP_ACT_ALLOW, name, arguments);
  }
  void add(std::uint32_t action, const char* name, std::initializer_list<scmp_arg_cmp> arguments) {
    const int number = seccomp_syscall_resolve_name(name);
    if (number < 0) {
      return;  // a call of other machines
    }
    keep(seccomp_rule_add_array(get(), action, number, static_cast<unsigned>(arguments.size()),
                                arguments.begin()));
  }
  int load() {
    keep(error_ == 0 ? seccomp_load(get()) : 0);
    return -error_;
  }

 private:
  scmp_filter_ctx get() const { return context_.get(); }
  void keep(int result) { error_ = error_ == 0 && result < 0 ? result : error_; }

  std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
  int error_ = 0;
};

scmp_arg_cmp argument(unsigned index, scmp_compare how, scmp_datum_t value, scmp_datum_t more = 0) {
  return {index, how, value, more};
}

// Memory that can be run is made by the loader only, before the filter.
void allowMemory(Rules& rules) {
  rules.allow("mmap", {argument(2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)});
  rules.allow("mprotect", {argument(2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)});
}

// Nothing here changes the open file, which the agent shares.
void allowDescriptorCalls(Rules& rules) {
  for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_DUPFD, F_DUPFD_CLOEXEC}) {
    rules.allow("fcntl", {argument(1, SCMP_CMP_EQ, static_cast<scmp_datum_t>(command))});
  }
  rules.allow("ioctl", {argument(1, SCMP_CMP_EQ, TCGETS)});  // isatty of the C library's streams
}

void allowOwnProcess(Rules& rules, CallsOf whose) {
  rules.allow("prlimit64", {argument(0, SCMP_CMP_EQ, 0)});
  rules.allow("rt_sigaction", {argument(0, SCMP_CMP_NE, SIGSYS)});
  // abort() of this process only. The template's own children have a filter with their own number.
  if (whose == CallsOf::kWorker) {
    rules.allow("tgkill", {argument(0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()))});
    return;
  }
  rules.allow("tgkill");
  rules.allow("prctl");
  rules.allow("clone", {argument(0, SCMP_CMP_MASKED_EQ, kNewNamespaces, 0)});
}

// Runs in a process that may be an attacker's. The kernel has refused the call already; this names it.
void onBreach(int, siginfo_t* info, void*) {
  std::array<char, 1 + sizeof(std::int32_t)> packet{MessageFields<CallBreach>::kTag};
  const std::int32_t number = info->si_syscall;
  std::memcpy(&packet[1], &number, sizeof number);
  send(kChannelFd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  _exit(kExitBreach);
}

void handleBreaches() {
  struct sigaction action {};
  action.sa_sigaction = onBreach;
  action.sa_flags = SA_SIGINFO;
  sigfillset(&action.sa_mask);
  sigaction(SIGSYS, &action, nullptr);
}

}  // namespace

int filterCalls(CallsOf whose) {
  if (whose == CallsOf::kTemplate) {
    handleBreaches();  // the workers inherit it
  }
  Rules rules;
  rules.attribute(SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
  rules.attribute(SCMP_FLTATR_CTL_OPTIMIZE, 2);  // a search tree: every read of a scan passes the filter
  for (const char* name : kOfBoth) {
    rules.allow(name);
  }
  for (const char* name : kOfSanitizers) {
    rules.allow(name);
  }
  if (whose == CallsOf::kTemplate) {
    for (const char* name : kOfTemplate) {
      rules.allow(name);
    }
  }
  allowMemory(rules);
  allowDescriptorCalls(rules);
  allowOwnProcess(rules, whose);
  return rules.load();
}

std::string breachText(const CallBreach& breach) {
  const std::unique_ptr<char, void (*)(void*)> name(
      seccomp_syscall_resolve_num_arch(static_cast<std::uint32_t>(SCMP_ARCH_NATIVE), breach.call), std::free);
  return "it called " + (name ? std::string(name.get()) : "number " + std::to_string(breach.call)) +
         ", which the filter of its system calls refuses";
}

}  // namespace agent
