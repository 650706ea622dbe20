#include "engine/Digest.h"

#include <mutex>
#include <stdexcept>
#include <string_view>

#include "platform/Posix.h"

namespace agent {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

}  // namespace

void prepareCrypto() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Another part of the process may have prepared the library.
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) == 0) {
      gcry_check_version(nullptr);
      gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
      gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    }
  });
}

Digest::Digest(Kind kind) : kind_(kind) {
  prepareCrypto();
  const gcry_error_t error = gcry_md_open(&handle_, static_cast<int>(kind), 0);
  if (error != 0) {
    throw std::runtime_error(std::string("no digest from the crypto library: ") + gcry_strerror(error));
  }
}

Digest::~Digest() {
  gcry_md_close(handle_);
}

void Digest::add(const void* bytes, std::size_t size) {
  gcry_md_write(handle_, bytes, size);
}

std::string Digest::hex() {
  const int algorithm = static_cast<int>(kind_);
  return toHex(gcry_md_read(handle_, algorithm), gcry_md_get_algo_dlen(algorithm));
}

std::string toHex(const void* bytes, std::size_t size) {
  std::string hex;
  hex.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<const unsigned char*>(bytes)[i];
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

std::optional<std::string> fromHex(const std::string& hex) {
  if (hex.size() % 2 != 0) {
    return std::nullopt;
  }
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const std::size_t high = kDigits.find(hex[i]), low = kDigits.find(hex[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) {
      return std::nullopt;
    }
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

std::string sha256Of(std::string_view text) {
  Digest digest(Digest::Kind::kSha256);
  digest.add(text.data(), text.size());
  return digest.hex();
}

std::optional<std::string> digestOfFile(int fd, Digest::Kind kind) {
  Digest digest(kind);
  std::string buffer(1 << 16, '\0');
  std::int64_t n = 0;
  while ((n = platform::readFully(fd, buffer.data(), buffer.size())) > 0) {
    digest.add(buffer.data(), static_cast<std::size_t>(n));
  }
  return n == 0 ? std::optional(digest.hex()) : std::nullopt;
}

}  // namespace agent
