#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "EditorState.h"
#include "Key.h"
#include "Question.h"
#include "Screen.h"

namespace lineeditor {

/// Reads one line on a usable terminal. A table maps each key to the function that acts on the line. An
/// object reads one line. The loop is in KeyLoop.cpp, the table in KeyBindings.cpp. The functions of the keys
/// are in KeyEdits.cpp, KeyCompletion.cpp, KeyHistory.cpp and KeyLoop.cpp.
class KeyLoop {
 public:
  enum class Result { kRunning, kAccepted, kCancelled, kEndOfInput };

  explicit KeyLoop(const Question& question);
  Result run();
  const std::string& line() const { return state_.line(); }

 private:
  using Action = void (KeyLoop::*)();
  struct Binding {
    Key key;
    Action action;
    bool mainPromptOnly = false;
  };
  static const Binding kBindings[];
  static const Binding* bindingFor(const Key& key);

  Content content() const;
  void refresh();
  void handle(Key key);
  bool turnsListPage(const Key& key);
  void type(const std::string& text);
  void paste(const std::string& bytes);
  void beepUnless(bool changed);  ///< beeps when a key could not change the line
  void keepCut(std::string text);

  void accept();
  void cancel();
  void endOrEraseAt();

  /// The action of a key that calls a function of the line.
  template <auto function>
  void edit() {
    (state_.*function)();
  }

  void wordLeft();
  void wordRight();
  void lineStart();
  void lineEnd();
  bool moveRows(int rows);  ///< false when the line has no such row
  void rowUp();
  void rowDown();
  void upOrPrevious();
  void downOrNext();
  void clearWindow();

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
  void saveEditAndGoTo(std::size_t back);
  void search(const char* initial);
  void searchAll();
  void searchCurrent();
  void showHistory();
  void confirmClear();

  void showHelp();
  void debugKeys();

  Question question_;
  EditorState state_;
  Result result_ = Result::kRunning;
  std::shared_ptr<const CompletionState> list_;
  std::size_t listFrom_ = 0;
  std::size_t back_ = 0;  ///< the number of the entry shown, counted back from the newest; 0: the new line
  std::map<std::size_t, std::string> edits_;  ///< edited entries that are not shown now, by the same number
  bool escapeBefore_ = false;
  bool carriageReturnBefore_ = false;  ///< the last byte of a paste was a carriage return
};

}  // namespace lineeditor
