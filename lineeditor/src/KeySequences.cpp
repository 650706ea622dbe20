#include "KeySequences.h"

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
    {'A', KeyCode::kUp},    {'B', KeyCode::kDown}, {'C', KeyCode::kRight}, {'D', KeyCode::kLeft},
    {'H', KeyCode::kHome},  {'F', KeyCode::kEnd},  {'P', KeyCode::kF1},    {'Q', KeyCode::kF2},
    {'R', KeyCode::kF3},    {'S', KeyCode::kF4},   {'a', KeyCode::kUp},    {'b', KeyCode::kDown},
    {'c', KeyCode::kRight}, {'d', KeyCode::kLeft},
};

/// ESC [ [ letter
const LetterRow kConsoleLetters[] = {
    {'A', KeyCode::kF1}, {'B', KeyCode::kF2}, {'C', KeyCode::kF3}, {'D', KeyCode::kF4}};

struct NumberRow {
  int number;
  KeyCode code;
};

/// ESC [ number ~ (also ; modifier, and rxvt's finals ^ $ @)
const NumberRow kNumbers[] = {
    {1, KeyCode::kHome},   {2, KeyCode::kInsert},   {3, KeyCode::kDelete}, {4, KeyCode::kEnd},
    {5, KeyCode::kPageUp}, {6, KeyCode::kPageDown}, {7, KeyCode::kHome},   {8, KeyCode::kEnd},
    {11, KeyCode::kF1},    {12, KeyCode::kF2},      {13, KeyCode::kF3},    {14, KeyCode::kF4},
};

template <class Rows>
KeyCode letterCode(const Rows& rows, char final) {
  for (const LetterRow& row : rows) {
    if (row.final == final) {
      return row.code;
    }
  }
  return KeyCode::kUnknown;
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
  int modifier = 1;  ///< 1 + the sum of 1 (Shift), 2 (Alt), 4 (Ctrl) and 8 (Meta)
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
    return {};  // with a parameter, R ends a cursor report
  }
  return withModifier(letterCode(kLetters, final), parsed.modifier);
}

Key singleShiftKey(std::string_view parameters, char final) {
  constexpr char kKeypadEnter = 'M';
  if (final == kKeypadEnter && parameters.empty()) {
    return {KeyCode::kControl, '\r'};
  }
  const Parameters parsed = parse(parameters);
  if (!parsed.valid) {
    return {};
  }
  // Old terminals send the modifier as the only parameter.
  const int modifier = parsed.modifier == 1 && parsed.first ? *parsed.first : parsed.modifier;
  Key key = withModifier(letterCode(kLetters, final), modifier < 1 ? 1 : modifier);
  key.ctrl = key.ctrl || (final >= 'a' && final <= 'd');
  return key;
}

}  // namespace lineeditor
