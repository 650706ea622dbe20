#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Painter.h"
#include "Screen.h"

namespace lineeditor {

/// How a prompt is left.
enum class Ending {
  NewLine,
  Cancelled,  ///< marked ^C
  SameRow,    ///< the cursor stays behind the line
};

/// What of the terminal belongs to the prompt. One lock guards it and outputBuffer, so a notice can be
/// printed from any thread at any time: it takes the prompt away, prints, and puts the prompt back. All other
/// functions are the main thread's. Only leave() and notice() flush.
class Display {
 public:
  static Display& instance();

  /// Makes sure that the prompt starts on a row of its own, whatever a command has left on the last one.
  void freshRow();
  /// Shows the content in place of what is shown.
  void show(Content content);
  /// The content for the last time, with the cursor behind it. What comes next is ordinary output (in a
  /// transcript: the next thing shown).
  void leave(Content content, Ending ending);
  /// Takes what is shown away.
  void remove();
  /// What is shown is ordinary output from here on, the cursor where it is.
  void forget();
  /// Whole lines of a listing: straight to standard output, or into the transcript.
  void print(std::string_view lines);

  /// From here on what is printed belongs to the prompt: it stands above it and goes with dropTranscript().
  void beginTranscript();
  bool inTranscript();
  void endTranscript();   ///< still shown, no longer added to
  void dropTranscript();  ///< gone with the next show()

  void notice(const std::string& block);

  /// An end of input leaves the prompt standing with the cursor behind it.
  void leaveOpen();
  /// Ends the row of a prompt left open.
  void closeOpenRow();

 private:
  void showLocked();
  bool appendsOneCharacter(const Content& content) const;
  void addToTranscript(std::string_view lines);

  Painter painter_;
  Content content_;
  bool live_ = false;
  bool drawnWithTranscript_ = false;
  bool rowLeftOpen_ = false;
  bool transcriptOpen_ = false;
  std::vector<std::string> transcript_;
  std::vector<Row> transcriptRows_;  ///< laid out for transcriptCols_
  int transcriptCols_ = 0;
};

}  // namespace lineeditor
