#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EditorState.h"
#include "Key.h"
#include "Screen.h"

namespace lineeditor {

/// What one line is read with.
struct Question {
  std::string prompt;
  std::size_t maxBytes = 0;
  std::string initial;         ///< stands in the line at the start
  std::string toPaste;         ///< what the paste keys give until something is cut here; empty: the last cut
  std::function<void()> help;  ///< what F1 shows; empty: the table of keys
  bool isMainPrompt = false;   ///< completion, the history keys F2 to F4 and the search work here only
};

/// Reads one line on the usable terminal: from keys to edits, one table row each. One object a line.
class KeyLoop {
 public:
  enum class Result { Running, Accepted, Cancelled, EndOfInput };

  explicit KeyLoop(const Question& question);
  Result run();
  const std::string& line() const { return state_.line(); }

 private:
  using Action = void (KeyLoop::*)();
  struct Binding {
    Key key;
    Action action;
  };
  static const Binding kBindings[];
  static Action actionFor(const Key& key);

  Content content() const;
  void refresh();
  void handle(Key key);
  bool turnsListPage(const Key& key);
  void type(const std::string& text);
  void paste(const std::string& bytes);
  void act(bool changed);
  void keepCut(std::string text);

  void accept();
  void cancel();
  void endOrEraseAt();

  void left();
  void right();
  void wordLeft();
  void wordRight();
  void lineStart();
  void lineEnd();
  void rowUp();
  void rowDown();
  void upOrPrevious();
  void downOrNext();
  void clearWindow();

  void eraseBefore();
  void eraseAt();
  void upperWord();
  void lowerWord();
  void capitalise();
  void eraseBlanksAround();
  void transpose();
  void emptyLine();

  void cutToEnd();
  void cutToStart();
  void cutAll();
  void cutWordBefore();
  void cutWordAfter();
  void pasteCut();

  void complete();
  void listExpected();
  CompletionState askHook();
  void insertCandidate(const CompletionState& found);
  void showList(CompletionState found);

  void previousEntry();
  void nextEntry();
  void firstEntry();
  void lastEntry();
  void browseTo(std::size_t back);
  void leaveLineFor(std::size_t back);
  void search(const char* initial);
  void searchAll();
  void searchCurrent();
  void showHistory();
  void confirmClear();

  void showHelp();
  void debugKeys();

  Question question_;
  EditorState state_;
  Result result_ = Result::Running;
  std::shared_ptr<const CompletionState> list_;
  std::size_t listFrom_ = 0;
  std::size_t back_ = 0;  ///< history entries back from the new line; 0: the new line itself
  std::map<std::size_t, std::string> edits_;  ///< lines that were left, by how far back they stand
  bool escapeBefore_ = false;
  bool carriageReturnBefore_ = false;  ///< the paste's last byte
};

/// Asks a question of the editor's own: nothing when it was cancelled. Reads plainly where the terminal is
/// not usable.
std::optional<std::string> ask(const Question& question);

}  // namespace lineeditor
