#pragma once

#include <gcrypt.h>
#include <zlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/ItemMeta.h"

/// The file of a quarantined item: the content compressed and enciphered, behind it what is known of the
/// file, enciphered too. The key stands in the file: nobody is kept from reading it by this; it keeps other
/// scanners from finding a live detection in the store, and everybody from running one by mistake.
///
///   8 bytes   "TAVQITM1"
///   32 bytes  key, random
///   16 bytes  first counter of the content, random
///   16 bytes  first counter of the meta data, random
///   n bytes   content: zlib stream, AES-256-CTR
///   m bytes   meta data: ItemMeta::toText(), AES-256-CTR
///   8 bytes   n, little-endian
///   8 bytes   m, little-endian
///   32 bytes  SHA-256 of the plain meta data
///   8 bytes   "TAVQEND1"
namespace agent::store {

class Cipher {
 public:
  Cipher(std::string_view key, std::string_view counter);
  ~Cipher() { gcry_cipher_close(handle_); }
  Cipher(const Cipher&) = delete;
  Cipher& operator=(const Cipher&) = delete;
  void apply(void* bytes, std::size_t size);  ///< in place; the same both ways

 private:
  gcry_cipher_hd_t handle_ = nullptr;
};

/// Writes one item to an empty file, in one pass. Throws StoreError.
class ItemWriter {
 public:
  /// maxBytes: more than that is refused with StoreError.
  ItemWriter(int fd, std::uint64_t maxBytes);
  ~ItemWriter();
  ItemWriter(const ItemWriter&) = delete;
  ItemWriter& operator=(const ItemWriter&) = delete;
  void add(const void* bytes, std::size_t size);
  void finish(const ItemMeta& meta);  ///< the file is whole behind it, not synced
  std::uint64_t written() const { return written_; }

 private:
  void deflateInto(int flush);
  void put(std::string_view bytes);

  int fd_;
  std::uint64_t maxBytes_, written_ = 0;
  std::string header_;
  std::unique_ptr<Cipher> cipher_;
  z_stream stream_{};
  std::vector<unsigned char> buffer_;
};

/// Reads one item. Throws StoreError that begins with "is damaged" when the file is not as it was written.
class ItemReader {
 public:
  explicit ItemReader(int fd);  ///< reads and checks all but the content
  ~ItemReader();
  ItemReader(const ItemReader&) = delete;
  ItemReader& operator=(const ItemReader&) = delete;
  const ItemMeta& meta() const { return meta_; }
  /// The next bytes of the content, 0 at its end. The end comes only behind as many bytes as the file had.
  std::size_t read(void* buffer, std::size_t size);

 private:
  void readFrame();
  bool refill();

  int fd_;
  ItemMeta meta_;
  std::uint64_t left_ = 0;   ///< enciphered bytes not read yet
  std::uint64_t given_ = 0;  ///< plain bytes handed out
  std::unique_ptr<Cipher> cipher_;
  z_stream stream_{};
  bool ended_ = false;
  std::vector<unsigned char> buffer_;
};

/// Reads the whole item and compares its content with its SHA-256. Empty, or why it is no good.
std::string whyDamaged(int fd);

}  // namespace agent::store
