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

/// How the text around a key's effect looks, and in which window.
struct Surroundings {
  const char* name;
  const char* prefix;  ///< stands before what the test types
  const char* letter;  ///< stands for '~' in the test's text
  int cols;
};

const char kLong[] =
    "abcdefghij 扫描中文 0123456789 e\u0301a\u0300 the quick brown fox 跳过了懒惰的狗 and on it goes xyz ";
inline const Surroundings kSurroundings[] = {
    {"Ascii", "", "x", 80},           {"Chinese", "扫描中文", "中", 80}, {"WrappedAt20", kLong, "x", 20},
    {"WrappedAt40", kLong, "中", 40}, {"WrappedAt80", kLong, "x", 80},
};

/// '^' becomes the prefix, '~' the letter.
std::string surrounded(const Surroundings& surroundings, std::string_view text);

class EditorFixture : public ::testing::Test {
 protected:
  void open(int rows, int cols);
  ScriptedTerminal& terminal() { return *terminal_; }

  /// Reads one line of up to 4095 bytes at "TAV> ".
  std::optional<std::string> read();
  /// Types into the line being read; `then` looks at the screen when all of it has been drawn.
  void typeThen(std::string_view keys, std::function<void()> then);
  std::optional<std::string> readKeys(std::string_view keys);

  /// The rows that end with the cursor's show exactly this and nothing stands below them.
  ::testing::AssertionResult shows(const PlainModel& model, std::string_view prompt = "TAV> ");

  void SetUp() override;
  void TearDown() override;

  int readErrno = 0;

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
