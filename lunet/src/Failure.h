#pragma once

#include <string>
#include <tl/expected.hpp>
#include <utility>

#include "lunet/Lunet.h"

namespace lunet {

/// Why an operation of the library failed: the number for the caller, one line for the log.
struct Failure {
  Error error;
  std::string reason;
};

template <class T>
using Result = tl::expected<T, Failure>;

inline tl::unexpected<Failure> failed(Error error, std::string reason) {
  return tl::unexpected(Failure{error, std::move(reason)});
}

}  // namespace lunet
