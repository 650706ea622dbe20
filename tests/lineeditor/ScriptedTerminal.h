#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "TerminalIo.h"
#include "support/VTermScreen.h"

namespace lineeditor {

/// A terminal with a script at its keyboard. The script is a row of bytes, pauses and changes of the window's
/// size. At the end of the script, onIdle may type more; otherwise the input ends. The editor has drawn all
/// of its output when onIdle is called. The object replaces the real terminal during its life. Other threads
/// may write notices.
class ScriptedTerminal : public TerminalIo {
 public:
  ScriptedTerminal(int rows, int cols);
  ~ScriptedTerminal() override;

  void type(std::string_view bytes);
  void pause();  ///< long enough for every short wait to end
  void resizeTo(int rows, int cols);
  std::function<void()> onIdle;

  /// Calls look with the screen, under the lock of the screen.
  template <class Look>
  auto look(Look look) const {
    const std::lock_guard guard(mutex_);
    return look(screen_);
  }
  std::string text() const;
  std::string row(int index) const;
  int cursorRow() const;
  int cursorCol() const;
  std::string written() const;  ///< every byte so far
  void forgetWritten();

  int timesTaken = 0;  ///< calls of enterRawMode()
  int timesRestored = 0;
  int timesCleared = 0;
  bool isUsable = true;
  bool isTerminal = true;
  bool clearWorks = true;

  bool inputIsTerminal() const override { return isTerminal; }
  bool usable() const override { return isTerminal && isUsable; }
  TerminalSize size() const override;
  Input read(int waitMs) override;
  bool pending() override;
  void write(std::string_view bytes) override;
  void print(std::string_view text) override;
  void enterRawMode() override { ++timesTaken; }
  void leaveRawMode() override { ++timesRestored; }
  bool runClear() override;

 private:
  struct Step {
    enum { kByte, kPause, kResize } kind;
    unsigned char byte = 0;
    TerminalSize size{};
  };
  void put(std::string_view bytes);

  mutable std::mutex mutex_;
  testsupport::TerminalScreen screen_;
  std::string printed_;
  std::string written_;
  std::deque<Step> steps_;
};

}  // namespace lineeditor
