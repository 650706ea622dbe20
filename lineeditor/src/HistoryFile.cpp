#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "HistoryRing.h"
#include "Utf8.h"
#include "lineeditor/History.h"
#include "platform/Files.h"

namespace lineeditor {

namespace {

constexpr std::uint32_t kFileMode = 0600;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// A regular file only: a pipe in its place must not hold the console up.
File openForReading(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    return nullptr;
  }
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(descriptor);
    return nullptr;
  }
  return File(fdopen(descriptor, "r"));
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

}  // namespace

int historyLoad(const char* path) {
  const File file = path == nullptr ? nullptr : openForReading(path);
  if (file == nullptr) {
    return -1;
  }
  std::string piece;
  for (int c = std::getc(file.get()); c != EOF; c = std::getc(file.get())) {
    piece += static_cast<char>(c);
    if (c == '\n') {
      storePiece(piece);
      piece.clear();
    } else if (piece.size() ==
               kHistorySlotBytes) {  // one byte more than fits: cut before it, between characters
      const std::string_view kept = cutAtCharacter(piece, kHistorySlotBytes - 1);
      const std::size_t taken = kept.empty() ? kHistorySlotBytes - 1 : kept.size();
      storePiece(kept);
      piece.erase(0, taken);
    }
  }
  storePiece(piece);
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
