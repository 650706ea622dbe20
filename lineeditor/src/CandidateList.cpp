#include "CandidateList.h"

#include <algorithm>

#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {

constexpr int kNameGap = 2;    ///< between a name and its help
constexpr int kColumnGap = 3;  ///< between two columns

struct Columns {
  int nameWidth = 0;
  int helpWidth = 0;
  int count = 1;

  int width() const { return nameWidth + (helpWidth > 0 ? kNameGap + helpWidth : 0); }
};

Columns measure(const std::vector<Candidate>& candidates, int cols) {
  Columns columns;
  for (const Candidate& candidate : candidates) {
    columns.nameWidth = std::max(columns.nameWidth, displayWidth(candidate.name));
    columns.helpWidth = std::max(columns.helpWidth, displayWidth(candidate.help));
  }
  columns.count = std::max(1, (cols + kColumnGap) / (columns.width() + kColumnGap));
  return columns;
}

/// Puts as much of the text on the row as fits into maxWidth columns.
void putCut(RowBuilder& row, std::string_view text, std::uint32_t attribute, int maxWidth) {
  for (Glyph& glyph : glyphs(text)) {
    if (glyph.width > maxWidth) {
      return;
    }
    maxWidth -= glyph.width;
    row.put(std::move(glyph), attribute);
  }
}

void padTo(RowBuilder& row, int column, int cols) {
  while (row.place().col < std::min(column, cols)) {
    row.put(Glyph{" ", 1}, 0);
  }
}

Row candidateRow(const std::vector<Candidate>& candidates, std::size_t first, std::size_t step,
                 const Columns& columns, int cols) {
  RowBuilder row(cols);
  int left = 0;
  for (std::size_t i = first; i < candidates.size(); i += step) {
    padTo(row, left, cols);
    putCut(row, candidates[i].name, candidates[i].nameColour, cols - left);
    if (!candidates[i].help.empty()) {
      const int helpAt = left + columns.nameWidth + kNameGap;
      padTo(row, helpAt, cols);
      putCut(row, candidates[i].help, candidates[i].helpColour, cols - helpAt);
    }
    left += columns.width() + kColumnGap;
  }
  return std::move(row.rows().front());
}

}  // namespace

std::vector<Row> listRows(const CompletionState& list, int cols) {
  std::vector<Row> rows;
  const Columns columns = measure(list.candidates, cols);
  const auto count = static_cast<std::size_t>(columns.count);
  const std::size_t height = (list.candidates.size() + count - 1) / count;
  for (std::size_t i = 0; i < height; ++i) {
    rows.push_back(candidateRow(list.candidates, i, height, columns, cols));
  }
  if (!list.hint.empty()) {
    for (Row& row : textRows(list.hint, list.hintColour, cols)) {
      rows.push_back(std::move(row));
    }
  }
  return rows;
}

}  // namespace lineeditor
