#include "Receivers.h"

namespace lunet {

void Receivers::add(std::uint32_t channel, Entry entry) {
  const std::lock_guard lock(mutex_);
  entries_[channel] = entry;
}

bool Receivers::remove(std::uint32_t channel) {
  std::unique_lock lock(mutex_);
  const bool found = entries_.erase(channel) > 0;
  if (runner_ != std::this_thread::get_id()) {
    ended_.wait(lock, [&] { return running_ != channel; });
  }
  return found;
}

bool Receivers::callsHere() {
  const std::lock_guard lock(mutex_);
  return runner_ == std::this_thread::get_id();
}

std::optional<Receivers::Entry> Receivers::begin(std::uint32_t channel) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(channel);
  if (found == entries_.end()) {
    return std::nullopt;
  }
  running_ = channel;
  runner_ = std::this_thread::get_id();
  return found->second;
}

void Receivers::end() {
  const std::lock_guard lock(mutex_);
  running_.reset();
  runner_ = std::thread::id();
  ended_.notify_all();
}

}  // namespace lunet
