#pragma once

#include <string_view>

/// The one place where the editor meets the world: bytes in, bytes out, the window's size, the terminal's
/// settings. The real one is standard input and output; tests put a scripted one in its place.
namespace lineeditor {

struct TerminalSize {
  int rows = 24;
  int cols = 80;
  bool operator==(const TerminalSize&) const = default;
};

enum class InputKind {
  Byte,
  Timeout,  ///< nothing came in the time given
  End,      ///< hang-up, a signal that ends the console, or a failed read: stays so
  Resized,  ///< the window changed, or the program was continued after a stop
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
  /// One byte. waitMs: milliseconds, kForever, or 0 for what lies there already.
  virtual Input read(int waitMs) = 0;
  virtual bool pending() = 0;  ///< a byte lies there
  /// The last byte came faster than fingers type.
  virtual bool hurried() { return true; }
  virtual void write(
      std::string_view bytes) = 0;  ///< what was printed before, then these, at once; any thread
  virtual void print(std::string_view text) = 0;  ///< to standard output with its own buffering; any thread
  virtual void takeRaw() = 0;
  virtual void restore() = 0;
  virtual bool runClear() = 0;  ///< the shell command "clear"; false when it failed
};

TerminalIo& terminal();
/// Null: the real one again. Only while no other thread prints.
void useTerminal(TerminalIo* replacement);

}  // namespace lineeditor
