#include "worker/WorkerPool.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/Posix.h"
#include "worker/PoolWorker.h"

namespace agent {
namespace {

constexpr unsigned kQueuedPerWorker = 4;
constexpr int kMostStartFailures = 3;
constexpr int kMostLosses = 3;                           // of one file, with a template each time
constexpr std::chrono::milliseconds kHoldPatience{250};  // for running files; most end within this time
constexpr int kMostInterruptions = 2;                    // of one file

Verdict diedOnIt(const std::string& reason) {
  Verdict verdict = notScanned(Outcome::kError, reason);
  verdict.workerDied = true;
  return verdict;
}

Verdict cancelled() {
  return notScanned(Outcome::kSkipped, "cancelled");
}

unsigned coreCount() {
  return std::max(1U, std::thread::hardware_concurrency());
}

// All zeros for a descriptor that cannot be examined: the worker says so.
struct stat statusOf(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    status = {};
  }
  return status;
}

}  // namespace

class WorkerPool::Impl {
 public:
  Impl(Spawner& spawner, unsigned count)
      : spawner_(spawner),
        count_(count == 0 ? coreCount() : count),
        wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) {
      throw std::runtime_error("no eventfd for the pool: " + platform::errnoText(errno));
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

  void scan(platform::Descriptor file, std::string name, const ScanOptions& options, Done done) {
    const struct stat status = statusOf(file.get());
    const auto bytes = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    PoolTask task{0,
                  std::move(file),
                  std::move(name),
                  options,
                  std::move(done),
                  bytes,
                  budgetOf(spawner_.config().limits, status),
                  0,
                  0};
    {
      std::unique_lock lock(mutex_);
      queueHasRoom_.wait(lock,
                         [this] { return held_ || queue_.size() < std::size_t{kQueuedPerWorker} * count_; });
      task.id = ++lastId_;
      queue_.push_back(std::move(task));
      ++pending_;
    }
    wake();
  }

  bool drain() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return pending_ == 0 || held_; });
    return pending_ == 0;
  }

  void hold() {
    {
      const std::lock_guard lock(mutex_);
      if (held_ || cancelled_) {
        return;
      }
      held_ = true;
      stands_ = false;
      interruptAt_ = PoolWorker::Clock::now() + kHoldPatience;
      changed_.notify_all();
      queueHasRoom_.notify_all();
    }
    wake();
  }

  void release() {
    {
      const std::lock_guard lock(mutex_);
      endHold();
    }
    wake();
  }

  void waitHeld() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stands_ || !held_; });
  }

  void cancel(bool kill) {
    {
      const std::lock_guard lock(mutex_);
      cancelled_ = true;
      killed_ = killed_ || kill;
      endHold();
    }
    wake();
  }

  unsigned size() const { return count_; }

 private:
  using Workers = std::list<PoolWorker>;

  void wake() { eventfd_write(wake_.get(), 1); }

  // Under the lock.
  void endHold() {
    held_ = false;
    changed_.notify_all();
  }

  // The functions below run on the pool's thread.

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
      applyHold();
      dispatch();
      waitForEvents();
      killOverdue();
    }
  }

  void finish(PoolTask task, Verdict verdict) {
    task.fd.reset();
    try {
      if (task.done) {
        task.done(std::move(verdict));
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the caller's failure must not stop the pool
    }
    const std::lock_guard lock(mutex_);
    if (--pending_ == 0) {
      changed_.notify_all();
    }
  }

  enum class Purpose { kScan, kFinish };
  // For a scan: nothing while the pool is held, or once the pool is cancelled.
  std::optional<PoolTask> takeQueued(Purpose purpose) {
    const std::lock_guard lock(mutex_);
    if (queue_.empty() || (purpose == Purpose::kScan && (cancelled_ || held_))) {
      return std::nullopt;
    }
    PoolTask task = std::move(queue_.front());
    queue_.pop_front();
    queueHasRoom_.notify_one();
    return task;
  }

  void giveBack(PoolTask task) {
    const std::lock_guard lock(mutex_);
    queue_.push_front(std::move(task));
  }

  // Finishes the files queued by now. Files that come meanwhile get a new try.
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

  // The time of the interruption while the pool is held, else nothing.
  std::optional<PoolWorker::Clock::time_point> interruptAt() {
    const std::lock_guard lock(mutex_);
    return held_ ? std::optional(interruptAt_) : std::nullopt;
  }

  bool runsFiles() const {
    return std::any_of(workers_.begin(), workers_.end(), [](const PoolWorker& w) { return w.runs(); });
  }

  void applyHold() {
    const auto at = interruptAt();
    if (!at) {
      for (auto& worker : workers_) {
        worker.goOn();
      }
      return;
    }
    loading_.reset();  // its descriptors stay readable until the next fork
    if (*at <= PoolWorker::Clock::now()) {
      interruptWorkers();
    }
    if (!runsFiles()) {
      const std::lock_guard lock(mutex_);
      stands_ = held_;
      changed_.notify_all();
    }
  }

  void interruptWorkers() {
    std::deque<PoolTask> interrupted;
    for (auto next = workers_.begin(); next != workers_.end();) {
      const auto worker = next++;
      if (!worker->runs() || worker->stopAfter(kMostInterruptions)) {
        continue;
      }
      worker->kill();
      for (auto& task : worker->takeInterrupted()) {
        interrupted.push_back(std::move(task));
      }
      workers_.erase(worker);
    }
    std::sort(interrupted.begin(), interrupted.end(),
              [](const PoolTask& one, const PoolTask& other) { return one.id > other.id; });
    for (auto& task : interrupted) {
      giveBack(std::move(task));
    }
  }

  void dispatch() {
    retireOld();
    while (auto task = takeQueued(Purpose::kScan)) {
      PoolWorker* worker = workerFor(task->bytes);
      if (worker == nullptr) {
        giveBack(std::move(*task));
        if (startProblem_ && workers_.empty()) {
          finishQueued(notScanned(Outcome::kError, *startProblem_));
        }
        return;
      }
      assign(*worker, std::move(*task));
    }
  }

  void assign(PoolWorker& worker, PoolTask task) {
    const auto begun = worker.begin(task);
    if (begun) {
      return;
    }
    if (begun.error().peerGone) {
      giveBack(std::move(task));
      receiveAll(worker);  // the last messages of the dead worker, then its end
    } else {
      finish(std::move(task),
             notScanned(Outcome::kError, "cannot be handed to a worker: " + begun.error().reason));
    }
  }

  // Ends the idle workers that have older signatures than the current ones.
  void retireOld() {
    const unsigned generation = spawner_.generation();
    workers_.remove_if([&](const PoolWorker& w) { return w.generation() != generation && w.idle(); });
  }

  // An idle worker; else a new one while there are fewer than `count_`; else one that accepts another file.
  PoolWorker* workerFor(std::uint64_t bytes) {
    PoolWorker* best = nullptr;
    const unsigned generation = spawner_.generation();
    for (auto& worker : workers_) {
      if (worker.generation() == generation && worker.accepts(bytes) &&
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
    loading_ = forked ? forked->loading : nullptr;
    startProblem_ = forked ? std::nullopt : std::optional(forked.error());
    if (!forked || !forked->channel) {
      return nullptr;
    }
    return &workers_.emplace_back(std::move(forked->channel), forked->generation);
  }

  void waitForEvents() {
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
      eventfd_t count = 0;
      eventfd_read(wake_.get(), &count);
    }
    for (std::size_t i = 0; i < waited.size(); ++i) {
      if (waiting[i + 1].revents != 0) {
        receiveAll(*waited[i]);
      }
    }
  }

  std::chrono::milliseconds timeLimit(const PoolWorker& worker) const {
    const auto fixed = spawner_.config().fileTimeout;
    return fixed.count() != 0 ? fixed : worker.budget().clockEnd;
  }

  int pollTimeout() {
    constexpr auto kNever = PoolWorker::Clock::time_point::max();
    auto first = runsFiles() ? interruptAt().value_or(kNever) : kNever;
    for (const auto& worker : workers_) {
      const auto deadline = worker.deadline(timeLimit(worker));
      first = std::min(first, deadline.value_or(kNever));
    }
    if (first == kNever) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - PoolWorker::Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60000));
  }

  void receiveAll(PoolWorker& worker) {
    PoolWorker::Answered answered;
    for (;;) {
      switch (worker.receive(answered)) {
        case PoolWorker::Received::kAnswer:
          finish(std::move(answered.task), std::move(answered.verdict));
          break;
        case PoolWorker::Received::kHello:
          startFailures_ = 0;
          break;
        case PoolWorker::Received::kNothing:
          return;
        case PoolWorker::Received::kEnded:
          if (worker.helloReceived() && !worker.breached() && !spawner_.isCurrent(worker.generation())) {
            loseWorker(worker);
          } else {
            endWorker(worker, worker.endReason());
          }
          return;
      }
    }
  }

  void killOverdue() {
    const auto now = PoolWorker::Clock::now();
    for (auto next = workers_.begin(); next != workers_.end();) {
      auto& worker = *next++;
      const auto limit = timeLimit(worker);
      const auto deadline = worker.deadline(limit);
      if (deadline && *deadline <= now) {
        endWorker(worker, clockReason(limit) + " and was ended");
      }
    }
  }

  std::deque<PoolTask> removeWorker(PoolWorker& worker) {
    worker.kill();
    auto tasks = worker.takeTasks();
    workers_.remove_if([&](const PoolWorker& w) { return &w == &worker; });
    return tasks;
  }

  // The worker's current file, its first, ends in an error; the files behind it go back to the queue.
  void endWorker(PoolWorker& worker, const std::string& reason) {
    const bool begun = worker.helloReceived();
    auto tasks = removeWorker(worker);
    if (!begun) {
      ++startFailures_;
    } else if (!tasks.empty()) {
      finish(std::move(tasks.front()), diedOnIt(reason));
      tasks.pop_front();
    }
    giveAllBack(std::move(tasks));
  }

  // The worker ended together with its template, or after it: its file need not be the reason.
  void loseWorker(PoolWorker& worker) {
    auto tasks = removeWorker(worker);
    if (!tasks.empty() && ++tasks.front().lost >= kMostLosses) {
      finish(std::move(tasks.front()),
             notScanned(Outcome::kError, "the scanning processes were ended " + std::to_string(kMostLosses) +
                                             " times while the file was scanned"));
      tasks.pop_front();
    }
    giveAllBack(std::move(tasks));
  }

  void giveAllBack(std::deque<PoolTask> tasks) {
    while (!tasks.empty()) {
      giveBack(std::move(tasks.back()));
      tasks.pop_back();
    }
  }

  Spawner& spawner_;
  const unsigned count_;
  const platform::Descriptor wake_;

  std::mutex mutex_;  // guards the members up to the blank line
  std::condition_variable queueHasRoom_;
  std::condition_variable changed_;  // all files are done, or the pool is held, stands, or is released
  std::deque<PoolTask> queue_;
  std::size_t pending_ = 0;  // files whose callback has not run
  std::uint64_t lastId_ = 0;
  bool cancelled_ = false;
  bool killed_ = false;
  bool held_ = false;
  bool stands_ = false;  // counts while held: no file runs
  PoolWorker::Clock::time_point interruptAt_{};
  bool ending_ = false;

  Workers workers_;  // used by the pool's thread only, as are the next three
  std::shared_ptr<const TemplateLink> loading_;
  std::optional<std::string> startProblem_;  // why the last worker could not be started
  int startFailures_ = 0;

  std::thread thread_;
};

WorkerPool::WorkerPool(Spawner& spawner, unsigned count) : impl_(std::make_unique<Impl>(spawner, count)) {}
WorkerPool::~WorkerPool() = default;

void WorkerPool::scan(platform::Descriptor file, std::string name, const ScanOptions& options, Done done) {
  impl_->scan(std::move(file), std::move(name), options, std::move(done));
}

bool WorkerPool::drain() {
  return impl_->drain();
}

void WorkerPool::hold() {
  impl_->hold();
}

void WorkerPool::release() {
  impl_->release();
}

void WorkerPool::waitHeld() {
  impl_->waitHeld();
}

void WorkerPool::cancel(bool kill) {
  impl_->cancel(kill);
}

unsigned WorkerPool::size() const {
  return impl_->size();
}

}  // namespace agent
