#include "worker/WorkerPool.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "worker/PoolWorker.h"
#include "worker/SpawnerImpl.h"

namespace agent {
namespace {

constexpr unsigned kQueuedPerWorker = 4;
constexpr int kMostStartFailures = 3;

Verdict verdictOf(Outcome outcome, std::string reason) {
  Verdict verdict;
  verdict.outcome = outcome;
  verdict.reason = std::move(reason);
  return verdict;
}

Verdict cancelled() {
  return verdictOf(Outcome::kSkipped, "cancelled");
}

unsigned coreCount() {
  return std::max(1U, std::thread::hardware_concurrency());
}

std::uint64_t sizeOf(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && status.st_size > 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

class WorkerPool::Impl {
 public:
  Impl(Spawner::Impl& spawner, unsigned count)
      : spawner_(spawner),
        count_(count == 0 ? coreCount() : count),
        wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) {
      throw std::system_error(errno, std::generic_category(), "no eventfd for the pool");
    }
    thread_ = std::thread([this] { run(); });
  }

  ~Impl() {
    cancel(false);
    drain();
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake();
    thread_.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void scan(int fd, std::string name, const ScanOptions& options, Done done) {
    PoolTask task{0, platform::Descriptor(fd), std::move(name), options, std::move(done), sizeOf(fd)};
    {
      std::unique_lock lock(mutex_);
      roomMade_.wait(lock, [this] { return queue_.size() < std::size_t{kQueuedPerWorker} * count_; });
      task.id = ++lastId_;
      queue_.push_back(std::move(task));
      ++pending_;
    }
    wake();
  }

  void drain() {
    std::unique_lock lock(mutex_);
    allDone_.wait(lock, [this] { return pending_ == 0; });
  }

  void cancel(bool kill) {
    {
      const std::lock_guard lock(mutex_);
      cancelled_ = true;
      killed_ = killed_ || kill;
    }
    wake();
  }

  unsigned size() const { return count_; }

 private:
  using Workers = std::list<PoolWorker>;

  void wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
  }

  // All below: the pool's thread.

  void run() {
    for (;;) {
      bool ending = false;
      bool cancelling = false;
      bool killing = false;
      {
        const std::lock_guard lock(mutex_);
        ending = ending_;
        cancelling = cancelled_;
        killing = killed_;
      }
      if (ending) {
        workers_.clear();  // each ends when its channel closes
        return;
      }
      if (cancelling) {
        finishQueued(cancelled());
      }
      if (killing) {
        killWorkers();
      }
      dispatch();
      waitForNews();
      killOverdue();
    }
  }

  void finish(PoolTask task, Verdict verdict) {
    task.fd.reset();
    try {
      if (task.done) {
        task.done(std::move(verdict));
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the caller's own; the pool must go on
    }
    const std::lock_guard lock(mutex_);
    if (--pending_ == 0) {
      allDone_.notify_all();
    }
  }

  enum class Purpose { kScan, kFinish };
  // For a scan: nothing once the pool is cancelled, even if that came just now.
  std::optional<PoolTask> takeQueued(Purpose purpose) {
    const std::lock_guard lock(mutex_);
    if (queue_.empty() || (purpose == Purpose::kScan && cancelled_)) {
      return std::nullopt;
    }
    PoolTask task = std::move(queue_.front());
    queue_.pop_front();
    roomMade_.notify_one();
    return task;
  }

  void giveBack(PoolTask task) {
    const std::lock_guard lock(mutex_);
    queue_.push_front(std::move(task));
  }

  // What is queued by now. What comes meanwhile is looked at anew: its chances may be better.
  void finishQueued(const Verdict& verdict) {
    for (std::size_t left = queued(); left > 0; --left) {
      if (auto task = takeQueued(Purpose::kFinish)) {
        finish(std::move(*task), verdict);
      }
    }
  }

  std::size_t queued() {
    const std::lock_guard lock(mutex_);
    return queue_.size();
  }

  void killWorkers() {
    for (auto& worker : workers_) {
      worker.kill();
      for (auto& task : worker.takeTasks()) {
        finish(std::move(task), cancelled());
      }
    }
    workers_.clear();
  }

  void dispatch() {
    retireOld();
    while (auto task = takeQueued(Purpose::kScan)) {
      PoolWorker* worker = workerFor(task->bytes);
      if (worker == nullptr) {
        giveBack(std::move(*task));
        if (!startProblem_.empty() && workers_.empty()) {
          finishQueued(verdictOf(Outcome::kError, startProblem_));
        }
        return;
      }
      hand(*worker, std::move(*task));
    }
  }

  void hand(PoolWorker& worker, PoolTask task) {
    switch (worker.begin(task)) {
      case PoolWorker::Begun::kYes:
        return;
      case PoolWorker::Begun::kWorkerGone:
        giveBack(std::move(task));
        hearAll(worker);  // what it said before it died, then its end
        return;
      case PoolWorker::Begun::kCannot:
        const std::string why = std::generic_category().message(errno);
        finish(std::move(task), verdictOf(Outcome::kError, "cannot be handed to a worker: " + why));
        return;
    }
  }

  // Signatures were loaded again: a worker with the old ones ends when it has nothing under way.
  void retireOld() {
    const unsigned generation = spawner_.generation();
    workers_.remove_if([&](const PoolWorker& w) { return w.generation() != generation && w.idle(); });
  }

  // An idle worker; else a new one while there are fewer than wanted; else room behind a small file.
  PoolWorker* workerFor(std::uint64_t bytes) {
    PoolWorker* best = nullptr;
    const unsigned generation = spawner_.generation();
    for (auto& worker : workers_) {
      if (worker.generation() == generation && worker.hasRoomFor(bytes) &&
          (best == nullptr || worker.load() < best->load())) {
        best = &worker;
      }
    }
    if ((best == nullptr || !best->idle()) && workers_.size() < count_) {
      if (PoolWorker* fresh = startWorker()) {
        return fresh;
      }
    }
    return best;
  }

  PoolWorker* startWorker() {
    if (startFailures_ >= kMostStartFailures) {
      startProblem_ = "no scanning process can be started: each ends at once";
      return nullptr;
    }
    auto forked = spawner_.forkWorker();
    loading_ = forked.loading;
    startProblem_ = forked.problem;
    if (!forked.channel) {
      return nullptr;
    }
    return &workers_.emplace_back(std::move(forked.channel), forked.generation);
  }

  void waitForNews() {
    std::vector<pollfd> waiting{{wake_.get(), POLLIN, 0}};
    std::vector<PoolWorker*> waited;
    for (auto& worker : workers_) {
      waiting.push_back({worker.fd(), POLLIN, 0});
      waited.push_back(&worker);
    }
    if (loading_) {
      waiting.push_back({loading_->channel.fd(), POLLIN, 0});
      waiting.push_back({loading_->settled.get(), POLLIN, 0});
    }
    if (poll(waiting.data(), waiting.size(), pollTimeout()) <= 0) {
      return;
    }
    if (waiting[0].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const ssize_t got = read(wake_.get(), &count, sizeof count);
    }
    for (std::size_t i = 0; i < waited.size(); ++i) {
      if (waiting[i + 1].revents != 0) {
        hearAll(*waited[i]);
      }
    }
  }

  int pollTimeout() const {
    std::optional<PoolWorker::Clock::time_point> first;
    for (const auto& worker : workers_) {
      const auto deadline = worker.deadline(spawner_.config().fileTimeout);
      if (deadline && (!first || *deadline < *first)) {
        first = deadline;
      }
    }
    if (!first) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - PoolWorker::Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60000));
  }

  void hearAll(PoolWorker& worker) {
    PoolWorker::Answered answered;
    for (;;) {
      switch (worker.hear(answered)) {
        case PoolWorker::Heard::kAnswer:
          finish(std::move(answered.task), std::move(answered.verdict));
          break;
        case PoolWorker::Heard::kHello:
          startFailures_ = 0;
          break;
        case PoolWorker::Heard::kNothing:
          return;
        case PoolWorker::Heard::kEnded:
          bury(worker, "the process that scanned the file died");
          return;
      }
    }
  }

  void killOverdue() {
    const auto now = PoolWorker::Clock::now();
    const auto limit = spawner_.config().fileTimeout;
    for (auto next = workers_.begin(); next != workers_.end();) {
      auto& worker = *next++;
      const auto deadline = worker.deadline(limit);
      if (deadline && *deadline <= now) {
        bury(worker,
             "the scan took longer than " + std::to_string(limit.count() / 1000) + " seconds and was ended");
      }
    }
  }

  // The file under way, the first, ends in an error; what was queued behind it goes to another worker.
  void bury(PoolWorker& worker, const std::string& reason) {
    worker.kill();
    auto tasks = worker.takeTasks();
    const bool begun = worker.greeted();
    workers_.remove_if([&](const PoolWorker& w) { return &w == &worker; });
    if (!begun) {
      ++startFailures_;
    } else if (!tasks.empty()) {
      finish(std::move(tasks.front()), verdictOf(Outcome::kError, reason));
      tasks.pop_front();
    }
    while (!tasks.empty()) {
      giveBack(std::move(tasks.back()));
      tasks.pop_back();
    }
  }

  Spawner::Impl& spawner_;
  const unsigned count_;
  const platform::Descriptor wake_;

  std::mutex mutex_;  // guards up to the blank line
  std::condition_variable roomMade_;
  std::condition_variable allDone_;
  std::deque<PoolTask> queue_;
  std::size_t pending_ = 0;  // taken, and its callback has not run
  std::uint64_t lastId_ = 0;
  bool cancelled_ = false;
  bool killed_ = false;
  bool ending_ = false;

  Workers workers_;  // the pool's thread from here on
  std::shared_ptr<const TemplateLink> loading_;
  std::string startProblem_;
  int startFailures_ = 0;

  std::thread thread_;
};

WorkerPool::WorkerPool(Spawner& spawner, unsigned count)
    : impl_(std::make_unique<Impl>(spawner.impl(), count)) {}
WorkerPool::~WorkerPool() = default;

void WorkerPool::scan(int fd, std::string name, const ScanOptions& options, Done done) {
  impl_->scan(fd, std::move(name), options, std::move(done));
}

void WorkerPool::drain() {
  impl_->drain();
}

void WorkerPool::cancel(bool kill) {
  impl_->cancel(kill);
}

unsigned WorkerPool::size() const {
  return impl_->size();
}

}  // namespace agent
