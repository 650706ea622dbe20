#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tavcli {

/// The options of an unattended run.
struct BatchOptions {
  std::string scanPath;
  std::string logPath;
  int timeoutSec = 86400;  ///< bounds the wait for the mark, and again the wait for the scan's end
};

/// Reads the words behind the program's name. The last of a repeated option counts; unknown words, and an
/// option without a word behind it, are passed over.
BatchOptions parseCommandLine(const std::vector<std::string>& words);

/// What stops an unattended run before it starts; exit code 2.
struct Refusal {
  std::string out;  ///< line for standard output; may be empty
  std::string err;  ///< line for standard error; may be empty
};

/// Looks at the options and at what their paths name; existence first, which is refused without a line. A
/// relative scan path is made absolute.
std::optional<Refusal> checkBatchOptions(BatchOptions& options);

/// The console's command for the run, not cut.
std::string batchCommand(const BatchOptions& options);

/// The line buffer of both loops, the NUL behind the text included.
inline constexpr std::size_t kLineBufferBytes = 4096;

}  // namespace tavcli
