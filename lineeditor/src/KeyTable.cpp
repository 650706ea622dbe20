#include "KeyTable.h"

#include <charconv>
#include <optional>

namespace lineeditor {

namespace {

struct LetterRow {
  char final;
  KeyCode code;
};

/// ESC [ letter, ESC [ 1 ; modifier letter, ESC O letter
const LetterRow kLetters[] = {
    {'A', KeyCode::Up},    {'B', KeyCode::Down}, {'C', KeyCode::Right}, {'D', KeyCode::Left},
    {'H', KeyCode::Home},  {'F', KeyCode::End},  {'P', KeyCode::F1},    {'Q', KeyCode::F2},
    {'R', KeyCode::F3},    {'S', KeyCode::F4},   {'a', KeyCode::Up},    {'b', KeyCode::Down},
    {'c', KeyCode::Right}, {'d', KeyCode::Left},
};

/// ESC [ [ letter
const LetterRow kConsoleLetters[] = {
    {'A', KeyCode::F1}, {'B', KeyCode::F2}, {'C', KeyCode::F3}, {'D', KeyCode::F4}};

struct NumberRow {
  int number;
  KeyCode code;
};

/// ESC [ number ~ (also ; modifier, and rxvt's finals ^ $ @)
const NumberRow kNumbers[] = {
    {1, KeyCode::Home},   {2, KeyCode::Insert},   {3, KeyCode::Delete}, {4, KeyCode::End},
    {5, KeyCode::PageUp}, {6, KeyCode::PageDown}, {7, KeyCode::Home},   {8, KeyCode::End},
    {11, KeyCode::F1},    {12, KeyCode::F2},      {13, KeyCode::F3},    {14, KeyCode::F4},
};

template <class Rows>
KeyCode letterCode(const Rows& rows, char final) {
  for (const LetterRow& row : rows) {
    if (row.final == final) {
      return row.code;
    }
  }
  return KeyCode::Unknown;
}

std::optional<int> number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) {
    return std::nullopt;
  }
  return value;
}

struct Parameters {
  std::optional<int> first;
  int modifier = 1;  ///< one more than the sum of 1 shift, 2 alt, 4 ctrl, 8 meta
  bool valid = true;
};

Parameters parse(std::string_view text) {
  Parameters out;
  if (text.empty()) {
    return out;
  }
  const std::size_t semicolon = text.find(';');
  out.first = number(text.substr(0, semicolon));
  out.valid = out.first.has_value();
  if (semicolon != std::string_view::npos) {
    const std::optional<int> modifier = number(text.substr(semicolon + 1));
    out.valid = out.valid && modifier && *modifier >= 1;
    out.modifier = modifier.value_or(1);
  }
  return out;
}

Key withModifier(KeyCode code, int modifier) {
  const int bits = modifier - 1;
  Key key{code};
  key.alt = (bits & (2 | 8)) != 0;
  key.ctrl = (bits & 4) != 0;
  return key;
}

}  // namespace

bool isNumber(std::string_view text) {
  return number(text).has_value();
}

Key controlSequenceKey(std::string_view parameters, char final) {
  if (parameters == "[") {
    return {letterCode(kConsoleLetters, final)};
  }
  const Parameters parsed = parse(parameters);
  if (!parsed.valid) {
    return {};
  }
  if (final == '~' || final == '^' || final == '$' || final == '@') {
    for (const NumberRow& row : kNumbers) {
      if (parsed.first == row.number) {
        Key key = withModifier(row.code, parsed.modifier);
        key.ctrl = key.ctrl || final == '^' || final == '@';
        return key;
      }
    }
    return {};
  }
  if (parsed.first && (*parsed.first != 1 || final == 'R')) {
    return {};  // with a parameter, R is the answer that tells the cursor's place
  }
  return withModifier(letterCode(kLetters, final), parsed.modifier);
}

Key singleShiftKey(std::string_view parameters, char final) {
  constexpr char kKeypadEnter = 'M';
  if (final == kKeypadEnter && parameters.empty()) {
    return {KeyCode::Control, '\r'};
  }
  const Parameters parsed = parse(parameters);
  if (!parsed.valid) {
    return {};
  }
  // Old terminals send the modifier alone.
  const int modifier = parsed.modifier == 1 && parsed.first ? *parsed.first : parsed.modifier;
  Key key = withModifier(letterCode(kLetters, final), modifier < 1 ? 1 : modifier);
  key.ctrl = key.ctrl || (final >= 'a' && final <= 'd');
  return key;
}

}  // namespace lineeditor
