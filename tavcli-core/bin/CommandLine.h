#pragma once

#include <string>
#include <vector>

#include "platform/Expected.h"

namespace tavcli {

/// The options of an unattended run.
struct BatchOptions {
  std::string scanPath;
  std::string logPath;
  int timeoutSec = 86400;  ///< limits the wait for the mark, and once more the wait for the scan's end
};

/// Reads the words behind the program's name. The last of a repeated option counts. Unknown words, and an
/// option without a word behind it, are ignored.
BatchOptions parseCommandLine(const std::vector<std::string>& words);

/// Why an unattended run does not start; exit code 2.
struct Refusal {
  std::string out;  ///< line for standard output; may be empty
  std::string err;  ///< line for standard error; may be empty
};

/// Checks the options and the files that they name. The result holds an absolute scan path. A scan path that
/// does not exist, and a log path that exists, are refused first and without a line.
tl::expected<BatchOptions, Refusal> checkBatchOptions(BatchOptions options);

/// The console's command for the run, in full length.
std::string batchCommand(const BatchOptions& options);

/// The line buffer of both run modes, with the NUL behind the text.
inline constexpr std::size_t kLineBufferBytes = 4096;

}  // namespace tavcli
