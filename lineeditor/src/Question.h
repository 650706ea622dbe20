#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace lineeditor {

/// The terms on which one line is read.
struct Question {
  std::string prompt;
  std::size_t maxBytes = 0;
  std::string initial;         ///< the text of the line at the start
  std::string toPaste;         ///< the paste keys insert this text until the first cut; empty: the last cut
  std::function<void()> help;  ///< F1 calls this function; empty: F1 shows the table of keys
  bool isMainPrompt = false;   ///< completion, F2 to F4 and the search work at the main prompt only
};

/// Asks one of the editor's own questions. Returns nothing when the user cancels the question.
std::optional<std::string> ask(const Question& question);

/// Reads a line without editing, like fgets: up to a line end, and at most maxBytes. A character that does
/// not fit whole is left for the next line, unless maxBytes is too small for any such character. Returns
/// nothing at end of input, and after a signal that ends the console.
std::optional<std::string> readPlainly(std::size_t maxBytes);

}  // namespace lineeditor
