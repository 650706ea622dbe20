#pragma once

#include <zlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Expected.h"
#include "store/ItemMeta.h"

/// The file of a quarantined item: the compressed and enciphered content, then the enciphered meta data. The
/// key stands in the file, so the cipher keeps nothing secret. The cipher keeps other scanners from detecting
/// the content, and users from running it by mistake.
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

class Cipher;

/// Writes one item to an empty file, in one pass. Throws StoreError.
class ItemWriter {
 public:
  /// maxBytes: a longer item is a StoreError.
  ItemWriter(int fd, std::uint64_t maxBytes);
  ~ItemWriter();
  ItemWriter(const ItemWriter&) = delete;
  ItemWriter& operator=(const ItemWriter&) = delete;
  void add(const void* bytes, std::size_t size);
  void finish(const ItemMeta& meta);  ///< makes the file whole; does not sync
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

/// Reads one item. Throws a StoreError that begins with "is damaged" for a file that was changed.
class ItemReader {
 public:
  explicit ItemReader(int fd);  ///< reads and checks all but the content
  ~ItemReader();
  ItemReader(const ItemReader&) = delete;
  ItemReader& operator=(const ItemReader&) = delete;
  const ItemMeta& meta() const { return meta_; }
  /// Reads the next bytes of the content; 0 at the end. Content of another length than the file had throws.
  std::size_t read(void* buffer, std::size_t size);

 private:
  void readFrame();
  bool refill();

  int fd_;
  ItemMeta meta_;
  std::uint64_t left_ = 0;   ///< enciphered bytes still to read
  std::uint64_t given_ = 0;  ///< plain bytes returned so far
  std::unique_ptr<Cipher> cipher_;
  z_stream stream_{};
  bool ended_ = false;
  std::vector<unsigned char> buffer_;
};

/// Reads the whole item and compares the content with its SHA-256.
platform::Expected<void> checkItem(int fd);

}  // namespace agent::store
