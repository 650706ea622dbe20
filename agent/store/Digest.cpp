#include "store/Digest.h"

#include <mutex>
#include <stdexcept>
#include <string_view>

namespace agent::store {

void prepareCrypto() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Another part of the process may have made the library ready before us.
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
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<const unsigned char*>(bytes)[i];
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

bool fromHex(const std::string& hex, std::string* bytes) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  bytes->clear();
  if (hex.size() % 2 != 0) {
    return false;
  }
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const std::size_t high = kDigits.find(hex[i]), low = kDigits.find(hex[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) {
      return false;
    }
    *bytes += static_cast<char>(high * 16 + low);
  }
  return true;
}

}  // namespace agent::store
