#include "engine/FileHashes.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "engine/Digest.h"

namespace agent {

bool fillHashes(int fd, Verdict& verdict) {
  Digest md5(Digest::Kind::kMd5), sha1(Digest::Kind::kSha1), sha256(Digest::Kind::kSha256);
  std::vector<char> block(256 * 1024);
  off_t offset = 0;
  for (;;) {
    const ssize_t got = pread(fd, block.data(), block.size(), offset);
    if (got == 0) {
      break;
    }
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    for (Digest* digest : {&md5, &sha1, &sha256}) {
      digest->add(block.data(), static_cast<std::size_t>(got));
    }
    offset += got;
  }
  verdict.md5 = md5.hex();
  verdict.sha1 = sha1.hex();
  verdict.sha256 = sha256.hex();
  return true;
}

}  // namespace agent
