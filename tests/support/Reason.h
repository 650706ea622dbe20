#pragma once

#include <string>

#include "platform/Expected.h"

namespace testsupport {

/// The reason of a failure, "" for a success: one text to compare, which a failing test prints.
template <class T>
std::string reasonOf(const platform::Expected<T>& result) {
  return result ? "" : result.error();
}

}  // namespace testsupport
