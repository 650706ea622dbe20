#pragma once

#include "store/Store.h"
#include "task/Counters.h"
#include "task/ScanPlan.h"
#include "task/TaskControl.h"
#include "task/TaskEvents.h"

namespace agent {

/// The objects that the parts of one scan share. The ScanTask owns each object except the store.
struct ScanContext {
  const ScanPlan& plan;
  const CallerId& caller;
  Store& store;
  Counters& counters;
  TaskEvents& events;
  TaskControl& control;
};

}  // namespace agent
