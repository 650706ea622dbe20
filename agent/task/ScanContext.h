#pragma once

#include "store/Store.h"
#include "task/Counters.h"
#include "task/ScanPlan.h"
#include "task/TaskControl.h"
#include "task/TaskEvents.h"

namespace agent {

/// What the parts of one scan share. The ScanTask owns all of it but the store.
struct ScanContext {
  const ScanPlan& plan;
  const CallerId& caller;
  Store& store;
  Counters& counters;
  TaskEvents& events;
  TaskControl& control;
};

}  // namespace agent
