#pragma once

#include <gcrypt.h>

#include <cstddef>
#include <string>

namespace agent::store {

/// Makes the crypto library ready; may be called any number of times, from any thread.
void prepareCrypto();

/// Running MD5, SHA-1 or SHA-256.
class Digest {
 public:
  enum class Kind { kMd5 = GCRY_MD_MD5, kSha1 = GCRY_MD_SHA1, kSha256 = GCRY_MD_SHA256 };
  explicit Digest(Kind kind);  ///< throws std::runtime_error when the library has no such digest
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(const void* bytes, std::size_t size);
  std::string hex();  ///< lower-case; nothing may be added behind it

 private:
  Kind kind_;
  gcry_md_hd_t handle_ = nullptr;
};

std::string toHex(const void* bytes, std::size_t size);
/// False for an odd length or another character.
bool fromHex(const std::string& hex, std::string* bytes);

}  // namespace agent::store
