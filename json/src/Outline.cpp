#include "json/Outline.h"

#include <algorithm>

namespace json {
namespace {

/// The text between quotes that begins at `begin`; without its end the whole rest.
std::string_view textAt(std::string_view text, std::size_t begin) {
  std::size_t end = begin;
  while (end < text.size() && text[end] != '"') {
    end += text[end] == '\\' ? 2 : 1;
  }
  return text.substr(begin, std::min(end, text.size()) - begin);
}

/// Remembers the outermost member "method".
class MethodWatch {
 public:
  void onText(std::string_view text) {
    if (behindColon_) {
      value_ = text;
    } else {
      key_ = text;
      value_ = {};
    }
  }
  void onColon() { behindColon_ = true; }
  /// The end of a member. Returns true when the member was "method".
  bool onMemberEnd() {
    const bool found = behindColon_ && key_ == "method";
    behindColon_ = false;
    return found;
  }
  std::string_view value() const { return value_; }

 private:
  std::string_view key_;
  std::string_view value_;
  bool behindColon_ = false;
};

}  // namespace

Outline outlineOf(std::string_view text, std::size_t maxDepth, std::size_t maxValues) {
  Outline outline;
  outline.values = 1;
  MethodWatch watch;
  std::size_t depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char byte = text[at];
    if (depth == 1 && (byte == ',' || byte == '}') && watch.onMemberEnd()) {
      outline.method = watch.value();
    }
    if (byte == '"') {
      const std::string_view inside = textAt(text, at + 1);
      at += inside.size() + 1;
      if (depth == 1) {
        watch.onText(inside);
      }
    } else if (byte == '[' || byte == '{') {
      outline.list = outline.list || (outline.depth == 0 && byte == '[');
      outline.depth = std::max(outline.depth, ++depth);
      ++outline.values;
    } else if (byte == ']' || byte == '}') {
      depth -= depth > 0 ? 1 : 0;
    } else if (byte == ',') {
      ++outline.values;
    } else if (byte == ':' && depth == 1) {
      watch.onColon();
    }
    outline.comment = byte == '/';
    if (outline.comment || outline.depth > maxDepth || outline.values > maxValues) {
      break;
    }
  }
  return outline;
}

}  // namespace json
