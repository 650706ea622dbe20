#include "store/StepHook.h"

namespace agent::store {

std::function<void(const char*)> stepHook;

}  // namespace agent::store
