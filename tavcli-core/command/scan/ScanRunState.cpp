#include "command/scan/ScanRunState.h"

#include <utility>

ScanRunState& ScanRunState::instance() {
  // Never destroyed: a notification may arrive while the process ends.
  static auto* const state = new ScanRunState;
  return *state;
}

std::string ScanRunState::log_path() const {
  const std::lock_guard lock(mutex_);
  return log_path_;
}

void ScanRunState::set_log_path(const std::string& path) {
  const std::lock_guard lock(mutex_);
  log_path_ = path;
}

std::string ScanRunState::scan_path() const {
  const std::lock_guard lock(mutex_);
  return scan_path_;
}

void ScanRunState::set_scan_path(const std::string& path) {
  const std::lock_guard lock(mutex_);
  scan_path_ = path;
}

void ScanRunState::start(const std::function<bool()>& ask) {
  const std::lock_guard starting(starting_);
  accepted_ = false;
  accepted_ = ask();
  if (accepted_ && !std::exchange(issuedAgain_, false)) {
    const std::lock_guard lock(mutex_);
    result_ = Json::Value(Json::objectValue);
    failed_items_ = 0;
  }
}

void ScanRunState::noteBusy() {
  const std::lock_guard starting(starting_);
  issuedAgain_ = accepted_;
}

Json::Value ScanRunState::result() const {
  const std::lock_guard starting(starting_);
  const std::lock_guard lock(mutex_);
  return result_;
}

void ScanRunState::updateResult(const std::function<void(Json::Value&)>& change) {
  const std::lock_guard starting(starting_);
  const std::lock_guard lock(mutex_);
  change(result_);
}

void ScanRunState::reset() {
  const std::lock_guard starting(starting_);
  const std::lock_guard lock(mutex_);
  accepted_ = false;
  issuedAgain_ = false;
  log_path_.clear();
  scan_path_.clear();
  batch_mode_ = 0;
  fix_handle_ = 0;
  failed_items_ = 0;
  result_ = Json::Value(Json::objectValue);
}
