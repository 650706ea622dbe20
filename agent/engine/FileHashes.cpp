#include "engine/FileHashes.h"

#include <gcrypt.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <vector>

namespace agent {
namespace {

struct CloseDigest {
  void operator()(gcry_md_hd_t digest) const { gcry_md_close(digest); }
};
using Digest = std::unique_ptr<std::remove_pointer_t<gcry_md_hd_t>, CloseDigest>;

void initialiseOnce() {
  static const bool done = [] {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  static_cast<void>(done);
}

Digest openDigest(std::initializer_list<int> algorithms) {
  initialiseOnce();
  gcry_md_hd_t handle = nullptr;
  if (gcry_md_open(&handle, 0, 0) != 0) {
    return nullptr;
  }
  Digest digest(handle);
  for (const int algorithm : algorithms) {
    if (gcry_md_enable(handle, algorithm) != 0) {
      return nullptr;
    }
  }
  return digest;
}

std::string hexOf(const Digest& digest, int algorithm) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const unsigned char* bytes = gcry_md_read(digest.get(), algorithm);
  std::string text;
  for (unsigned i = 0; i < gcry_md_get_algo_dlen(algorithm); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  return text;
}

}  // namespace

bool fillHashes(int fd, Verdict& verdict) {
  const Digest digest = openDigest({GCRY_MD_MD5, GCRY_MD_SHA1, GCRY_MD_SHA256});
  if (!digest) {
    return false;
  }
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
    gcry_md_write(digest.get(), block.data(), static_cast<std::size_t>(got));
    offset += got;
  }
  verdict.md5 = hexOf(digest, GCRY_MD_MD5);
  verdict.sha1 = hexOf(digest, GCRY_MD_SHA1);
  verdict.sha256 = hexOf(digest, GCRY_MD_SHA256);
  return true;
}

std::string sha256Of(const std::string& text) {
  const Digest digest = openDigest({GCRY_MD_SHA256});
  if (!digest) {
    return {};
  }
  gcry_md_write(digest.get(), text.data(), text.size());
  return hexOf(digest, GCRY_MD_SHA256);
}

}  // namespace agent
