#pragma once

#include <gcrypt.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace agent {

/// Prepares the crypto library. Any number of calls, any thread.
void prepareCrypto();

/// A running MD5, SHA-1 or SHA-256.
class Digest {
 public:
  enum class Kind { kMd5 = GCRY_MD_MD5, kSha1 = GCRY_MD_SHA1, kSha256 = GCRY_MD_SHA256 };
  explicit Digest(Kind kind);  ///< throws std::runtime_error when the library has no such digest
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(const void* bytes, std::size_t size);
  std::string hex();  ///< lower-case; ends the digest

 private:
  Kind kind_;
  gcry_md_hd_t handle_ = nullptr;
};

std::string toHex(const void* bytes, std::size_t size);
/// Nothing for an odd length or another character.
std::optional<std::string> fromHex(const std::string& hex);
/// The SHA-256 of a text, as Digest::hex.
std::string sha256Of(std::string_view text);
/// The digest of an open file, from its position to its end. Nothing when reading fails.
std::optional<std::string> digestOfFile(int fd, Digest::Kind kind);

}  // namespace agent
