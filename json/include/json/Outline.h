#pragma once

#include <cstddef>
#include <string_view>

namespace json {

/// What a JSON text would become, counted from its bytes. Nothing is allocated.
struct Outline {
  bool list = false;      ///< the outermost value is a list
  std::size_t depth = 0;  ///< of lists and objects in each other
  /// At least the number of values: an empty list or object counts twice.
  std::size_t values = 0;
  /// JsonCpp reads comments. A comment hides quotes and brackets from the count, and is no JSON.
  bool comment = false;
  /// The raw text of the last outermost member "method" that is a text. Empty without such a member, and for
  /// a key written with escapes.
  std::string_view method;
};

/// Reads each byte once, and ends early at a comment, and where depth or values exceed the given limits. The
/// text need not be valid.
Outline outlineOf(std::string_view text, std::size_t maxDepth, std::size_t maxValues);

}  // namespace json
