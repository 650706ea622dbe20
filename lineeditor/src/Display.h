#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Painter.h"
#include "Screen.h"

namespace lineeditor {

/// The text behind the line when its prompt is left.
enum class Ending {
  kNewLine,    ///< a line end
  kCancelled,  ///< "^C" and a line end
  kSameRow,    ///< no text; the cursor stays behind the line
};

/// The rows of the terminal that belong to the prompt. outputMutex() guards these rows and outputBuffer. Any
/// thread may call notice(): the call erases the prompt, prints the block and draws the prompt again. Only
/// the main thread calls the other functions. Only leave() and notice() flush the output.
class Display {
 public:
  static Display& instance();

  /// Starts a new row for the prompt, unless the cursor stands on an empty row.
  void freshRow();
  /// Draws the content in place of the content drawn before.
  void show(Content content);
  /// Draws the content for the last time, with the cursor behind the line. Later output is ordinary output.
  /// In a transcript, the content becomes a line of the transcript.
  void leave(Content content, Ending ending);
  /// Erases the prompt.
  void remove();
  /// Turns the rows drawn into ordinary output; the cursor stays where it is.
  void forget();
  /// Prints whole lines of a listing to standard output, or adds the lines to the open transcript.
  void print(std::string_view lines);

  /// Opens a transcript: rows above the prompt that are redrawn with the prompt. A search prints into its
  /// transcript.
  void beginTranscript();
  bool inTranscript();
  void endTranscript();   ///< the rows stay; later output is not added
  void dropTranscript();  ///< the next show() erases the rows

  void notice(const std::string& block);  ///< see printNotice()

  /// Leaves the prompt as it stands at end of input, with the cursor behind the line. Not in a transcript.
  void leaveOpen();
  /// Ends the row of a prompt that leaveOpen() has left.
  void closeOpenRow();

 private:
  void showLocked();
  bool appendsOneCharacter(const Content& content) const;
  void addToTranscript(std::string_view lines);
  void clearTranscript();

  Painter painter_;
  Content content_;
  bool promptShown_ = false;
  bool drawnWithTranscript_ = false;
  bool rowLeftOpen_ = false;
  bool transcriptOpen_ = false;
  std::vector<std::string> transcript_;
  std::vector<Row> transcriptRows_;  ///< transcript_, laid out in transcriptCols_ columns
  int transcriptCols_ = 0;
};

}  // namespace lineeditor
