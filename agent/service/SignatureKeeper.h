#pragma once

#include <functional>
#include <future>
#include <string>
#include <vector>

#include "service/SignatureWatch.h"

namespace agent {

/// Has signatures loaded again when their files change and when somebody asks, one load at a time: what comes
/// while one runs is remembered and leads to another. Made before the first load, so that no change behind
/// that is missed. One thread; the loads run on one of their own.
class SignatureKeeper {
 public:
  /// load: loads again and says what came of it. Throws nothing.
  SignatureKeeper(std::vector<std::string> folders, std::function<void()> load);
  void ask() { wanted_ = true; }
  /// Looks at the files. A change counts when it is seen in two looks: leave time between them.
  void look() { wanted_ = watch_.changed() || wanted_; }
  /// Begins a load when one is wanted and none runs. True while one runs.
  bool turn();

 private:
  bool running() const;

  SignatureWatch watch_;
  const std::function<void()> load_;
  bool wanted_ = false;
  std::future<void> running_;
};

}  // namespace agent
