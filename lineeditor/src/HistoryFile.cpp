#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>

#include "HistoryRing.h"
#include "Utf8.h"
#include "lineeditor/History.h"
#include "platform/Files.h"
#include "platform/Posix.h"

namespace lineeditor {

namespace {

constexpr std::uint32_t kFileMode = 0600;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Opens regular files only. Reading from a pipe could block the console.
File openForReading(const char* path) {
  platform::Descriptor file = platform::openQuietly(AT_FDCWD, path, 0);
  struct stat status {};
  const bool regular = file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
  return File(regular ? fdopen(file.release(), "r") : nullptr);
}

void storePiece(std::string_view piece) {
  piece = piece.substr(0, piece.find('\0'));
  while (!piece.empty() && (piece.back() == '\r' || piece.back() == '\n')) {
    piece.remove_suffix(1);
  }
  if (!piece.empty()) {
    historyStore(piece);
  }
}

/// Stores a line longer than a slot in pieces, cut between characters. ended: the line is complete, so the
/// rest is stored too.
void storeLine(std::string& line, bool ended) {
  constexpr std::size_t kSlotText = kHistorySlotBytes - 1;
  constexpr std::size_t kRestOfACharacter = 64;
  while (line.size() > kSlotText + (ended ? 0 : kRestOfACharacter)) {
    const std::size_t fitting = cutAtCharacter(line, kSlotText).size();
    const std::size_t taken = fitting == 0 ? kSlotText : fitting;
    storePiece(std::string_view(line).substr(0, taken));
    line.erase(0, taken);
  }
  if (ended) {
    storePiece(line);
    line.clear();
  }
}

}  // namespace

int historyLoad(const char* path) {
  const File file = path == nullptr ? nullptr : openForReading(path);
  if (file == nullptr) {
    return -1;
  }
  std::string line;
  for (int c = std::getc(file.get()); c != EOF; c = std::getc(file.get())) {
    if (c != '\n') {
      line += static_cast<char>(c);
    }
    storeLine(line, c == '\n');
  }
  storeLine(line, true);
  return 0;
}

int historySave(const char* path) {
  if (path == nullptr) {
    return -1;
  }
  std::string content;
  for (const std::size_t slot : historySlots()) {
    content += historyRing[slot];
    content += '\n';
  }
  return CFile::replaceAtomically(path, content, kFileMode) == 0 ? 0 : -1;
}

}  // namespace lineeditor
