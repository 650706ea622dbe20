#include "lineeditor/PlainModel.h"

namespace lineeditor {

namespace {

bool startsWithCombining(std::string_view text) {  // U+0300 to U+036F
  return text.size() >= 2 && (text[0] == '\xCC' || (text[0] == '\xCD' && text[1] < '\xB0'));
}

std::size_t codePointLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  return lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

}  // namespace

int plainWidth(std::string_view character) {
  return codePointLength(character) >= 3 ? 2 : 1;
}

PlainModel modelOf(std::string_view text, bool marked) {
  PlainModel model;
  bool seen = false;
  while (!text.empty()) {
    if (marked && !seen && text[0] == '|') {
      model.cursor = model.characters.size();
      seen = true;
      text.remove_prefix(1);
      continue;
    }
    const std::string point(text.substr(0, codePointLength(text)));
    if (startsWithCombining(text) && !model.characters.empty()) {
      model.characters.back() += point;
    } else {
      model.characters.push_back(point);
    }
    text.remove_prefix(point.size());
  }
  if (!seen) {
    model.cursor = model.characters.size();
  }
  return model;
}

std::string PlainModel::text() const {
  std::string out;
  for (const std::string& character : characters) {
    out += character;
  }
  return out;
}

PlainModel::Screen PlainModel::screen(std::string_view prompt, int cols) const {
  Screen out{{std::string(prompt)}, 0, 0};
  int col = static_cast<int>(prompt.size());
  for (std::size_t i = 0; i <= characters.size(); ++i) {
    const int width = i < characters.size() ? plainWidth(characters[i]) : 1;
    if (col + width > cols) {
      out.rows.emplace_back();
      col = 0;
    }
    if (i == cursor) {
      out.cursorRow = static_cast<int>(out.rows.size()) - 1;
      out.cursorCol = col;
    }
    if (i < characters.size()) {
      out.rows.back() += characters[i];
      col += width;
    }
  }
  for (std::string& row : out.rows) {
    row.erase(row.find_last_not_of(' ') + 1);
  }
  return out;
}

}  // namespace lineeditor
