#include "task/Counters.h"

#include "json/CppJson.h"

namespace agent {

namespace {

constexpr std::size_t kMostReasons = 32;

}  // namespace

void Counters::count(std::int64_t Numbers::*which) {
  const std::lock_guard guard(mutex_);
  ++(numbers_.*which);
}

void Counters::knownClean() {
  const std::lock_guard guard(mutex_);
  ++numbers_.clean;
  ++numbers_.known;
}

void Counters::encountered(const std::string& path) {
  const std::lock_guard guard(mutex_);
  ++numbers_.encountered;
  current_ = path;
}

void Counters::skipped(const std::string& reason) {
  const std::lock_guard guard(mutex_);
  ++numbers_.skipped;
  const bool room = skipReasons_.size() < kMostReasons || skipReasons_.count(reason) != 0;
  ++skipReasons_[room ? reason : "other reasons"];
}

void Counters::trusted() {
  count(&Numbers::trusted);
  skipped("trusted");
}

JsonReflect::ScanBusOverView Counters::overview(const std::string& token) const {
  const std::lock_guard guard(mutex_);
  JsonReflect::ScanBusOverView view;
  view.fixed_risk_count = numbers_.fixed;
  view.checkout_risk_count = numbers_.infected;
  view.trusted_risk_count = numbers_.trusted;
  view.total_item_count = numbers_.encountered;
  view.ignore_risk_count = numbers_.leftAlone;
  view.checked_item_count = numbers_.clean + numbers_.infected;
  view.failed_item_count = numbers_.failed;
  view.cur_item = json::encodePath(current_);
  view.token_id = token;
  view.disposed_risk_count = numbers_.fixed + numbers_.leftAlone + numbers_.fixFailed;
  view.cost_time =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin_).count();
  return view;
}

std::string Counters::summary() const {
  const std::lock_guard guard(mutex_);
  const auto part = [](std::int64_t number, const std::string& what) {
    return std::to_string(number) + " " + what;
  };
  std::string reasons;
  for (const auto& [reason, number] : skipReasons_) {
    reasons += (reasons.empty() ? " (" : ", ") + part(number, reason);
  }
  reasons += reasons.empty() ? "" : ")";
  const std::string known = numbers_.known > 0 ? " (" + part(numbers_.known, kKnownClean) + ")" : "";
  return part(numbers_.encountered, "entries: ") + part(numbers_.clean, "clean") + known + ", " +
         part(numbers_.infected, "infected, ") + part(numbers_.failed, "errors, ") +
         part(numbers_.skipped, "skipped") + reasons + "; " + part(numbers_.fixed, "handled, ") +
         part(numbers_.fixFailed, "not handled");
}

}  // namespace agent
