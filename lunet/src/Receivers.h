#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "lunet/Lunet.h"

namespace lunet {

/// The receiver of each channel. When remove() returns, the removed receiver is not called any more, and no
/// call of the receiver is running.
class Receivers {
 public:
  struct Entry {
    IMRReceiveComplete* receiver = nullptr;
    void* context = nullptr;
  };

  void add(std::uint32_t channel, Entry entry);
  /// False without a receiver. Inside a callback it does not wait for the callback's end.
  bool remove(std::uint32_t channel);
  /// True in a callback, on the thread that runs it.
  bool callsHere();

  /// Runs `call(entry)` for the channel's receiver; false without a receiver. On the delivery thread. An
  /// exception of the call passes through.
  template <class Callable>
  bool with(std::uint32_t channel, Callable call) {
    const std::optional<Entry> entry = begin(channel);
    if (!entry) {
      return false;
    }
    const Running running(*this);
    call(*entry);
    return true;
  }

 private:
  /// Ends the call, whichever way it ends.
  class Running {
   public:
    explicit Running(Receivers& receivers) : receivers_(receivers) {}
    ~Running() { receivers_.end(); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    Receivers& receivers_;
  };

  std::optional<Entry> begin(std::uint32_t channel);
  void end();

  std::mutex mutex_;
  std::condition_variable ended_;
  std::map<std::uint32_t, Entry> entries_;
  std::optional<std::uint32_t> running_;  ///< the channel whose receiver is being called
  std::thread::id runner_;
};

}  // namespace lunet
