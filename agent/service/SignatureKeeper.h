#pragma once

#include <functional>
#include <future>
#include <string>
#include <vector>

#include "service/SignatureWatch.h"

namespace agent {

/// Reloads the signatures when their files change and on request, one load at a time. A request during a load
/// leads to another load. Make the object before the first load, to see every change after that load. One
/// thread; the loads run on a thread of their own.
class SignatureKeeper {
 public:
  /// load: loads the signatures again, and logs the result. Throws nothing.
  SignatureKeeper(std::vector<std::string> folders, std::function<void()> load);
  void requestLoad() { wanted_ = true; }
  /// Looks at the files. A change counts when two looks see it: leave time between them.
  void look() { wanted_ = watch_.changed() || wanted_; }
  /// Begins a load when one is wanted and none runs. True while a load runs.
  bool startWanted();

 private:
  bool running() const;

  SignatureWatch watch_;
  const std::function<void()> load_;
  bool wanted_ = false;
  std::future<void> running_;
};

}  // namespace agent
