#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "EditorSettings.h"
#include "lineeditor/History.h"
#include "lineeditor/LineEditor.h"
#include "lineeditor/PlainModel.h"
#include "lineeditor/ScriptedTerminal.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

/// The text around the effect of a key, and the width of the window.
struct Surroundings {
  const char* name;
  const char* prefix;  ///< the text of '^'
  const char* letter;  ///< the text of '~'
  int cols;
};

const char kLong[] =
    "abcdefghij 扫描中文 0123456789 e\u0301a\u0300 the quick brown fox 跳过了懒惰的狗 and on it goes xyz ";
inline const Surroundings kSurroundings[] = {
    {"Ascii", "", "x", 80},           {"Chinese", "扫描中文", "中", 80}, {"WrappedAt20", kLong, "x", 20},
    {"WrappedAt40", kLong, "中", 40}, {"WrappedAt80", kLong, "x", 80},
};

/// The text with the prefix for each '^' and the letter for each '~'.
std::string surrounded(const Surroundings& surroundings, std::string_view text);

/// One offer of a completion hook. help may be empty.
struct Offer {
  std::string name;
  std::string help;
};

/// The keys that type the line of the model and move the cursor to its place.
std::string keysFor(const PlainModel& model);

/// Stores "line 1" to "line <count>" in the history.
void storeLines(int count);

/// The editor on a scripted terminal, with an empty history and default settings.
class EditorFixture : public ::testing::Test {
 protected:
  void open(int rows, int cols);
  ScriptedTerminal& terminal() { return *terminal_; }

  /// Reads one line of up to 4095 bytes at "TAV> ".
  std::optional<std::string> read();
  /// Types the keys into the line being read. `then` is called when the editor has drawn the result.
  void typeThen(std::string_view keys, std::function<void()> then);
  std::optional<std::string> readKeys(std::string_view keys);

  /// Installs a completion hook that offers the names that begin with the last word.
  void offer(std::vector<Offer> offers);

  /// True when the screen shows exactly this line at the cursor, with nothing below the line.
  ::testing::AssertionResult shows(const PlainModel& model, std::string_view prompt = "TAV> ");

  void SetUp() override;
  void TearDown() override;

  int readErrno = 0;
  std::optional<std::string> asked;  ///< the text of the last call of the hook

 private:
  struct Turn {
    std::string keys;
    std::function<void()> then;
  };
  void nextTurn();

  std::unique_ptr<ScriptedTerminal> terminal_;
  std::deque<Turn> turns_;
  std::function<void()> check_;
};

}  // namespace lineeditor
