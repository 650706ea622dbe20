#pragma once

#include <string_view>

/// All access of the editor to its terminal: input, output, the window's size and the terminal's settings.
/// RealTerminal uses standard input and output. Tests use a scripted terminal instead.
namespace lineeditor {

struct TerminalSize {
  int rows = 24;
  int cols = 80;
  bool operator==(const TerminalSize&) const = default;
};

enum class InputKind {
  kByte,
  kTimeout,  ///< no byte came in the time given
  kEnd,      ///< a hang-up, a signal that ends the console, or a failed read; final
  kResized,  ///< the window has a new size, or the process was continued after a stop
};

struct Input {
  InputKind kind;
  unsigned char byte = 0;
};

constexpr int kForever = -1;

class TerminalIo {
 public:
  virtual ~TerminalIo() = default;
  virtual bool inputIsTerminal() const = 0;
  virtual bool usable() const = 0;
  virtual TerminalSize size() const = 0;  ///< any thread
  /// Reads one byte. waitMs: milliseconds, kForever, or 0 for a byte that has already arrived.
  virtual Input read(int waitMs) = 0;
  virtual bool pending() = 0;  ///< a byte has already arrived
  /// True when the last byte came faster than a user types.
  virtual bool inBurst() { return true; }
  /// Writes the bytes, after all text printed before, without delay. Any thread.
  virtual void write(std::string_view bytes) = 0;
  /// Adds the text to the buffer of standard output. Any thread.
  virtual void print(std::string_view text) = 0;
  virtual void enterRawMode() = 0;
  virtual void leaveRawMode() = 0;
  virtual bool runClear() = 0;  ///< runs the shell command "clear"; false when the command failed
};

TerminalIo& terminal();
/// For tests. Null means the real terminal. Call only while no other thread prints.
void useTerminal(TerminalIo* replacement);

}  // namespace lineeditor
