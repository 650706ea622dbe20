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
  bool hurried() override { return hurried_; }
  void write(std::string_view bytes) override;
  void print(std::string_view text) override;
  void takeRaw() override;
  void restore() override;
  bool runClear() override;

 private:
  bool waitForInput(int waitMs, Input& other);
  void retakeRaw();
  void setRaw();

  termios saved_{};
  bool raw_ = false;
  bool inputEnded_ = false;
  std::chrono::steady_clock::time_point lastByteAt_{};
  bool hurried_ = false;
  std::atomic<bool> outputEnded_{false};  ///< notices are written on another thread
};

}  // namespace lineeditor
