#pragma once

#include <termios.h>

#include <atomic>
#include <chrono>

#include "TerminalIo.h"

namespace lineeditor {

/// Standard input and standard output of the process.
class RealTerminal : public TerminalIo {
 public:
  bool inputIsTerminal() const override;
  bool usable() const override;
  TerminalSize size() const override;
  Input read(int waitMs) override;
  bool pending() override;
  bool inBurst() override { return inBurst_; }
  void write(std::string_view bytes) override;
  void print(std::string_view text) override;
  void enterRawMode() override;
  void leaveRawMode() override;
  bool runClear() override;

 private:
  bool waitForInput(int waitMs, Input& other);
  void reenterRawMode();
  void setRaw();

  termios saved_{};
  bool raw_ = false;
  bool inputEnded_ = false;
  std::chrono::steady_clock::time_point lastByteAt_{};
  bool inBurst_ = false;
  std::atomic<bool> outputEnded_{false};  ///< other threads write notices
};

}  // namespace lineeditor
