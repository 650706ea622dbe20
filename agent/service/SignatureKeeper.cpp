#include "service/SignatureKeeper.h"

#include <chrono>

namespace agent {

SignatureKeeper::SignatureKeeper(std::vector<std::string> folders, std::function<void()> load)
    : watch_(std::move(folders)), load_(std::move(load)) {}

bool SignatureKeeper::startWanted() {
  if (wanted_ && !running()) {
    wanted_ = false;
    running_ = std::async(std::launch::async, load_);
  }
  return running();
}

bool SignatureKeeper::running() const {
  return running_.valid() && running_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

}  // namespace agent
