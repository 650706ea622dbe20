// Compares the bus with a bare ping-pong over a SEQPACKET socket pair in the same run. Prints a table:
// compare the ratios, because the times depend on the machine.

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lunet/BusClient.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBytes = 300;
constexpr int kRounds = 7;
constexpr int kRoundTrips = 10000;
constexpr int kOneway = 200000;
constexpr const char* kServer = "00000000-0000-4000-8000-000000000001";
constexpr const char* kCaller = "00000000-0000-4000-8000-000000000002";

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "bus_bench: %s\n", why.c_str());
  std::exit(1);
}

/// A child that runs `body` and ends when the parent closes its end of the pair.
class Child {
 public:
  template <class Body>
  explicit Child(Body body, int type) {
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, pair.data()) != 0) {
      fail("socketpair");
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(pair[0]);
      body(pair[1]);
      _exit(0);
    }
    close(pair[1]);
    fd_ = pair[0];
  }
  ~Child() {
    close(fd_);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  int fd() const { return fd_; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

void bareEcho(int fd) {
  std::array<char, kBytes> data{};
  for (;;) {
    const ssize_t count = recv(fd, data.data(), data.size(), 0);
    if (count <= 0 || send(fd, data.data(), static_cast<std::size_t>(count), 0) != count) {
      return;
    }
  }
}

/// Seconds a round trip.
double bareRoundTrip(int fd) {
  std::array<char, kBytes> data{};
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < kRoundTrips; ++i) {
    if (send(fd, data.data(), data.size(), 0) < 0 || recv(fd, data.data(), data.size(), 0) <= 0) {
      fail("the bare ping-pong broke");
    }
  }
  return secondsSince(begin) / kRoundTrips;
}

/// An open endpoint of a bus of its own.
class Bus {
 public:
  Bus(const std::string& tree, const char* guid) {
    if (const auto loaded = bus_.load(TAV_LIB_DIR "/libLunetClientMgr.so"); !loaded) {
      fail(loaded.error());
    }
    const std::string config = "{\"runtime_path\":\"" + tree + "\"}";
    if (bus_.init(config, "bench") != lunet::kOk) {
      fail("Init");
    }
    if (!bus_.createEndpoint() || bus_.open(lunet::parseGuid(guid)) != lunet::kOk) {
      fail("Open");
    }
  }
  lunet::IEndpoint* operator->() const { return bus_.endpoint(); }

 private:
  lunet::BusClient bus_;
};

class Echo final : public lunet::IMRReceiveComplete {
 public:
  explicit Echo(Bus& bus) : bus_(bus) {
    bus_->RegisterReceiver(lunet::kRequestChannel, this, nullptr);
    bus_->RegisterReceiver(lunet::kOnewayChannel, this, nullptr);
  }
  void ReceiveCallback(std::uint32_t, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void*) override {
    if (replyContext != nullptr) {
      bus_->Reply(0, messageId, data, length, replyContext);
    }
  }

 private:
  Bus& bus_;
};

void busEcho(const std::string& tree, int fd) {
  Bus bus(tree, kServer);
  Echo echo(bus);
  char byte = 1;
  (void)!write(fd, &byte, 1);
  (void)!read(fd, &byte, 1);  // until the parent is done
}

void call(Bus& bus, const lunet::Guid& target, const std::array<char, kBytes>& data) {
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t length = 0;
  if (bus->SyncSend(target, lunet::kRequestChannel, data.data(), kBytes, &error, &reply, &length, 10000) !=
      0) {
    fail("SyncSend gave " + std::to_string(error));
  }
  bus->FreeBuffer(reply);
}

double busRoundTrip(Bus& bus, const lunet::Guid& target) {
  const std::array<char, kBytes> data{};
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < kRoundTrips; ++i) {
    call(bus, target, data);
  }
  return secondsSince(begin) / kRoundTrips;
}

/// Messages a second. The call after the messages is answered when all are delivered.
double busOneway(Bus& bus, const lunet::Guid& target) {
  const std::array<char, kBytes> data{};
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < kOneway; ++i) {
    std::uint32_t error = 0;
    while ((error = bus->OnewaySend(target, lunet::kOnewayChannel, data.data(), kBytes)) ==
           lunet::kErrQueueFull) {
      std::this_thread::yield();
    }
    if (error != 0) {
      fail("OnewaySend gave " + std::to_string(error));
    }
  }
  call(bus, target, data);
  return kOneway / secondsSince(begin);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// Puts all threads of a process on one processor. The scheduler's placement of two processes changes a
/// ping-pong by a factor of eight.
void pin(pid_t pid, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    if (sched_setaffinity(std::stoi(task.path().filename()), sizeof set, &set) != 0) {
      fail("sched_setaffinity");
    }
  }
}

std::vector<int> processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<int> found;
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &set)) {
        found.push_back(cpu);
      }
    }
  }
  return found;
}

struct Figures {
  std::vector<double> bare;
  std::vector<double> trip;
  std::vector<double> oneway;
  std::vector<double> tripRatio;
  std::vector<double> onewayRatio;
};

Figures measure(Bus& bus, int bareFd) {
  const lunet::Guid server = lunet::parseGuid(kServer);
  Figures figures;
  for (int round = 0; round < kRounds; ++round) {  // in turns: other load on the machine affects both
    figures.bare.push_back(bareRoundTrip(bareFd));
    figures.trip.push_back(busRoundTrip(bus, server));
    figures.oneway.push_back(busOneway(bus, server));
    figures.tripRatio.push_back(figures.trip.back() / figures.bare.back());
    figures.onewayRatio.push_back(figures.oneway.back() * figures.bare.back());
  }
  return figures;
}

void print(const char* placement, const Figures& figures) {
  const double trip = median(figures.tripRatio);
  const double oneway = median(figures.onewayRatio);
  std::printf("%-12s %-32s %9.1f us %8s %8s\n", placement, "bare SEQPACKET ping-pong",
              median(figures.bare) * 1e6, "1.00", "");
  std::printf("%-12s %-32s %9.1f us %8.2f %8s\n", "", "bus round trip", median(figures.trip) * 1e6, trip,
              "<= 1.3");
  std::printf("%-12s %-32s %7.0f k/s %8.1f %8s\n", "", "one-way, beside ping-pongs a second",
              median(figures.oneway) / 1e3, oneway, ">= 10");
}

void run(const std::string& tree) {
  const Child bareChild([](int fd) { bareEcho(fd); }, SOCK_SEQPACKET);
  const Child busChild([&](int fd) { busEcho(tree, fd); }, SOCK_STREAM);
  char byte = 0;
  if (read(busChild.fd(), &byte, 1) != 1) {
    fail("the echoing process did not start");
  }
  Bus bus(tree, kCaller);
  const std::vector<int> cpus = processors();
  std::printf("%-12s %-32s %12s %8s %8s\n", "bus", "300 bytes, two processes", "measured", "ratio", "target");
  for (const bool apart : {true, false}) {
    if (cpus.empty() || (apart && cpus.size() < 2)) {
      continue;
    }
    pin(getpid(), cpus[0]);
    pin(bareChild.pid(), cpus[apart ? 1 : 0]);
    pin(busChild.pid(), cpus[apart ? 1 : 0]);
    print(apart ? "two cores" : "one core", measure(bus, bareChild.fd()));
  }
}

}  // namespace

int main() {
  char pattern[] = "/tmp/bus_bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    fail("mkdtemp");
  }
  run(pattern);
  std::filesystem::remove_all(pattern);
}
