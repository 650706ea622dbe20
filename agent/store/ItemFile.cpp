#include "store/ItemFile.h"

#include <gcrypt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "engine/Digest.h"
#include "platform/Posix.h"
#include "store/Sqlite.h"

namespace agent::store {
namespace {

constexpr std::string_view kBegin = "TAVQITM1", kEnd = "TAVQEND1";
constexpr std::size_t kKeyBytes = 32, kCounterBytes = 16, kHashBytes = 32;
constexpr std::size_t kHeaderBytes = kBegin.size() + kKeyBytes + 2 * kCounterBytes;
constexpr std::size_t kFooterBytes = 8 + 8 + kHashBytes + kEnd.size();
constexpr std::uint64_t kMaxMetaBytes = 16 << 20;
constexpr std::size_t kBufferBytes = 1 << 16;

std::string littleEndian(std::uint64_t number) {
  std::string bytes;
  for (int i = 0; i < 8; ++i) {
    bytes += static_cast<char>(number >> (8 * i));
  }
  return bytes;
}

std::uint64_t fromLittleEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = 8; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return number;
}

std::string hashOf(const std::string& text) {
  return fromHex(sha256Of(text)).value_or("");
}

std::string readAt(int fd, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  if (::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    throw StoreError("is damaged: " + platform::errnoText(errno));
  }
  const std::int64_t n = platform::readFully(fd, bytes.data(), size);
  if (n < 0) {
    throw StoreError("is damaged: " + platform::errnoText(errno));
  }
  bytes.resize(static_cast<std::size_t>(n));
  return bytes;
}

/// The key and the first counters, as views into the header.
struct Keys {
  explicit Keys(std::string_view header)
      : key(header.substr(kBegin.size(), kKeyBytes)),
        content(header.substr(kBegin.size() + kKeyBytes, kCounterBytes)),
        meta(header.substr(kBegin.size() + kKeyBytes + kCounterBytes, kCounterBytes)) {}
  std::string_view key, content, meta;
};

}  // namespace

class Cipher {
 public:
  Cipher(std::string_view key, std::string_view counter);
  ~Cipher() { gcry_cipher_close(handle_); }
  Cipher(const Cipher&) = delete;
  Cipher& operator=(const Cipher&) = delete;
  void apply(void* bytes, std::size_t size);  ///< in place; enciphers and deciphers

 private:
  gcry_cipher_hd_t handle_ = nullptr;
};

Cipher::Cipher(std::string_view key, std::string_view counter) {
  prepareCrypto();
  gcry_error_t error = gcry_cipher_open(&handle_, GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_CTR, 0);
  if (error == 0) {
    error = gcry_cipher_setkey(handle_, key.data(), key.size());
  }
  if (error == 0) {
    error = gcry_cipher_setctr(handle_, counter.data(), counter.size());
  }
  if (error != 0) {
    gcry_cipher_close(handle_);
    throw StoreError(std::string("no cipher from the crypto library: ") + gcry_strerror(error));
  }
}

void Cipher::apply(void* bytes, std::size_t size) {
  if (size > 0 && gcry_cipher_encrypt(handle_, bytes, size, nullptr, 0) != 0) {
    throw StoreError("the crypto library failed");
  }
}

ItemWriter::ItemWriter(int fd, std::uint64_t maxBytes) : fd_(fd), maxBytes_(maxBytes), buffer_(kBufferBytes) {
  prepareCrypto();
  header_ = std::string(kBegin) + std::string(kHeaderBytes - kBegin.size(), '\0');
  gcry_randomize(header_.data() + kBegin.size(), kHeaderBytes - kBegin.size(), GCRY_STRONG_RANDOM);
  put(header_);
  cipher_ = std::make_unique<Cipher>(Keys(header_).key, Keys(header_).content);
  if (::deflateInit(&stream_, Z_BEST_SPEED) != Z_OK) {
    throw StoreError("no memory to compress with");
  }
}

ItemWriter::~ItemWriter() {
  ::deflateEnd(&stream_);
}

void ItemWriter::put(std::string_view bytes) {
  if (written_ + bytes.size() > maxBytes_) {
    throw StoreError("the quarantine is full: its limit would be passed");
  }
  const int error = platform::writeAll(fd_, bytes);
  if (error != 0) {
    throw StoreError("cannot write into the quarantine: " + platform::errnoText(error));
  }
  written_ += bytes.size();
}

void ItemWriter::deflateInto(int flush) {
  do {
    stream_.next_out = buffer_.data();
    stream_.avail_out = static_cast<uInt>(buffer_.size());
    ::deflate(&stream_, flush);
    const std::size_t made = buffer_.size() - stream_.avail_out;
    cipher_->apply(buffer_.data(), made);
    put({reinterpret_cast<const char*>(buffer_.data()), made});
  } while (stream_.avail_out == 0);
}

void ItemWriter::add(const void* bytes, std::size_t size) {
  stream_.next_in = static_cast<z_const Bytef*>(const_cast<void*>(bytes));
  stream_.avail_in = static_cast<uInt>(size);
  deflateInto(Z_NO_FLUSH);
}

void ItemWriter::finish(const ItemMeta& meta) {
  deflateInto(Z_FINISH);
  const std::uint64_t content = written_ - kHeaderBytes;
  std::string text = meta.toText();
  if (text.size() > kMaxMetaBytes) {
    throw StoreError("its attributes are too long for the quarantine");
  }
  const std::string footer =
      littleEndian(content) + littleEndian(text.size()) + hashOf(text) + std::string(kEnd);
  Cipher(Keys(header_).key, Keys(header_).meta).apply(text.data(), text.size());
  put(text);
  put(footer);
}

ItemReader::ItemReader(int fd) : fd_(fd), buffer_(kBufferBytes) {
  readFrame();
  if (::inflateInit(&stream_) != Z_OK) {
    throw StoreError("no memory to decompress with");
  }
}

ItemReader::~ItemReader() {
  ::inflateEnd(&stream_);
}

void ItemReader::readFrame() {
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  if (end < static_cast<off_t>(kHeaderBytes + kFooterBytes)) {
    throw StoreError("is damaged: its file is too short");
  }
  const auto size = static_cast<std::uint64_t>(end);
  const std::string footer = readAt(fd_, size - kFooterBytes, kFooterBytes);
  const std::string header = readAt(fd_, 0, kHeaderBytes);
  if (header.size() != kHeaderBytes || footer.size() != kFooterBytes || !header.starts_with(kBegin) ||
      !footer.ends_with(kEnd)) {
    throw StoreError("is damaged: its file does not begin or end as an item's does");
  }
  const std::uint64_t content = fromLittleEndian(footer), metaBytes = fromLittleEndian(footer.substr(8));
  if (metaBytes > kMaxMetaBytes || content > size ||
      kHeaderBytes + content + metaBytes + kFooterBytes != size) {
    throw StoreError("is damaged: its file is not as long as it says");
  }
  std::string text = readAt(fd_, kHeaderBytes + content, static_cast<std::size_t>(metaBytes));
  Cipher(Keys(header).key, Keys(header).meta).apply(text.data(), text.size());
  const auto meta = ItemMeta::fromText(text);
  if (hashOf(text) != footer.substr(16, kHashBytes) || !meta) {
    throw StoreError("is damaged: what it says of the file was changed");
  }
  meta_ = *meta;
  left_ = content;
  cipher_ = std::make_unique<Cipher>(Keys(header).key, Keys(header).content);
  ::lseek(fd_, static_cast<off_t>(kHeaderBytes), SEEK_SET);
}

bool ItemReader::refill() {
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left_, buffer_.size()));
  const std::int64_t n = platform::readFully(fd_, buffer_.data(), wanted);
  if (n != static_cast<std::int64_t>(wanted)) {
    throw StoreError("is damaged: its file cannot be read");
  }
  left_ -= wanted;
  cipher_->apply(buffer_.data(), wanted);
  stream_.next_in = buffer_.data();
  stream_.avail_in = static_cast<uInt>(wanted);
  return wanted > 0;
}

std::size_t ItemReader::read(void* buffer, std::size_t size) {
  stream_.next_out = static_cast<Bytef*>(buffer);
  stream_.avail_out = static_cast<uInt>(size);
  while (!ended_ && stream_.avail_out > 0) {
    if (stream_.avail_in == 0 && !refill()) {
      throw StoreError("is damaged: its content ends too early");
    }
    const int code = ::inflate(&stream_, Z_NO_FLUSH);
    if (code != Z_OK && code != Z_STREAM_END) {
      throw StoreError("is damaged: its content cannot be decompressed");
    }
    ended_ = code == Z_STREAM_END;
  }
  const std::size_t made = size - stream_.avail_out;
  given_ += made;
  if (given_ > meta_.size || (made < size && given_ != meta_.size)) {
    throw StoreError("is damaged: its content is not as long as the file was");
  }
  return made;
}

platform::Expected<void> checkItem(int fd) {
  try {
    ItemReader reader(fd);
    Digest digest(Digest::Kind::kSha256);
    std::string buffer(kBufferBytes, '\0');
    std::size_t n = 0;
    while ((n = reader.read(buffer.data(), buffer.size())) > 0) {
      digest.add(buffer.data(), n);
    }
    if (digest.hex() != reader.meta().sha256) {
      return platform::failure("is damaged: its content was changed");
    }
    return {};
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

}  // namespace agent::store
