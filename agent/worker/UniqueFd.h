#pragma once

#include "platform/Descriptor.h"

namespace agent {

using UniqueFd = platform::Descriptor;

}  // namespace agent
