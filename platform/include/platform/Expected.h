#pragma once

#include <string>
#include <tl/expected.hpp>
#include <utility>

namespace platform {

/// A value, or one line for people that says what failed on what and why. The line carries no line end;
/// names from outside stand in it as platform::visibleText. Expected<void> is a success without a value.
template <class T>
using Expected = tl::expected<T, std::string>;

inline tl::unexpected<std::string> failure(std::string reason) {
  return tl::unexpected<std::string>(std::move(reason));
}

}  // namespace platform
