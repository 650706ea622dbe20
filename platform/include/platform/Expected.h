#pragma once

#include <string>
#include <tl/expected.hpp>
#include <utility>

namespace platform {

/// A value, or the reason of a failure: one line for people, without a line end, with names from outside as
/// platform::visibleText. Expected<void> is a success without a value.
template <class T>
using Expected = tl::expected<T, std::string>;

inline tl::unexpected<std::string> failure(std::string reason) {
  return tl::unexpected<std::string>(std::move(reason));
}

}  // namespace platform
