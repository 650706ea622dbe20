#include "engine/Unpacker.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/Posix.h"

namespace agent {
namespace {

constexpr std::size_t kBlock = 64 * 1024;
constexpr int kMostFailures = 1000;  // of headers in a row: the library goes on by a block of 512 bytes

// How libarchive is told to read a kind. filter: its number; the content is then one member without a format.
struct ReaderRow {
  Reader reader;
  int filter;
  int (*format)(struct archive*);
};
constexpr ReaderRow kReaders[] = {
    {Reader::kGzip, ARCHIVE_FILTER_GZIP, nullptr},
    {Reader::kBzip2, ARCHIVE_FILTER_BZIP2, nullptr},
    {Reader::kXz, ARCHIVE_FILTER_XZ, nullptr},
    {Reader::kLzma, ARCHIVE_FILTER_LZMA, nullptr},
    {Reader::kLzip, ARCHIVE_FILTER_LZIP, nullptr},
    {Reader::kZstd, ARCHIVE_FILTER_ZSTD, nullptr},
    {Reader::kLz4, ARCHIVE_FILTER_LZ4, nullptr},
    {Reader::kRpm, ARCHIVE_FILTER_RPM, nullptr},
    {Reader::kCompress, ARCHIVE_FILTER_COMPRESS, nullptr},
    {Reader::kUuencode, ARCHIVE_FILTER_UU, nullptr},
    {Reader::kTar, ARCHIVE_FILTER_NONE, archive_read_support_format_tar},
    {Reader::kZip, ARCHIVE_FILTER_NONE, archive_read_support_format_zip_seekable},
    {Reader::kZipStream, ARCHIVE_FILTER_NONE, archive_read_support_format_zip_streamable},
    {Reader::kSevenZip, ARCHIVE_FILTER_NONE, archive_read_support_format_7zip},
    {Reader::kCab, ARCHIVE_FILTER_NONE, archive_read_support_format_cab},
    {Reader::kCpio, ARCHIVE_FILTER_NONE, archive_read_support_format_cpio},
    {Reader::kIso, ARCHIVE_FILTER_NONE, archive_read_support_format_iso9660},
    {Reader::kLha, ARCHIVE_FILTER_NONE, archive_read_support_format_lha},
    {Reader::kXar, ARCHIVE_FILTER_NONE, archive_read_support_format_xar},
    {Reader::kWarc, ARCHIVE_FILTER_NONE, archive_read_support_format_warc},
    {Reader::kRar, ARCHIVE_FILTER_NONE,
     [](struct archive* a) {
       const int rar4 = archive_read_support_format_rar(a);
       return rar4 == ARCHIVE_OK ? archive_read_support_format_rar5(a) : rar4;
     }},
};

int prepare(struct archive* archive, Reader reader) {
  const auto* row = std::find_if(std::begin(kReaders), std::end(kReaders),
                                 [reader](const ReaderRow& r) { return r.reader == reader; });
  if (row == std::end(kReaders)) {
    return ARCHIVE_FATAL;
  }
  if (row->format != nullptr) {
    const int result = row->format(archive);
    // Other programs read the members behind an end mark, too. Other formats have no such option.
    archive_read_set_format_option(archive, "tar", "read_concatenated_archives", "1");
    archive_clear_error(archive);
    return result;
  }
  archive_read_support_format_raw(archive);
  archive_read_support_format_empty(archive);  // of empty content
  // A filter that is appended is applied once. The library cannot append the one of .Z files.
  return row->filter == ARCHIVE_FILTER_COMPRESS ? archive_read_support_filter_compress(archive)
                                                : archive_read_append_filter(archive, row->filter);
}

std::string nameOfEntry(archive_entry* entry) {
  const char* name = archive_entry_pathname(entry);
  if (name == nullptr) {
    name = archive_entry_pathname_utf8(entry);
  }
  return name == nullptr ? std::string{} : name;
}

// Of the kinds that store the target of a symbolic link as a member's content, or in place of it.
std::string linkOf(archive_entry* entry, Reader reader) {
  constexpr Reader kStoring[] = {Reader::kZip, Reader::kZipStream, Reader::kSevenZip, Reader::kRar,
                                 Reader::kCpio};
  const bool isContent = std::find(std::begin(kStoring), std::end(kStoring), reader) != std::end(kStoring);
  const char* link = isContent ? archive_entry_symlink(entry) : nullptr;
  return link == nullptr ? std::string{} : link;
}

}  // namespace

std::string unpackerVersion() {
  return archive_version_string();  // the one with details leaks memory
}

// The library's input: reads the range, and knows the position.
struct Unpacker::Input {
  FileRange range;
  std::uint64_t position = 0;
  std::array<char, kBlock> block;

  static la_ssize_t read(struct archive* archive, void* self, const void** buffer) {
    auto& input = *static_cast<Input*>(self);
    *buffer = input.block.data();
    const std::uint64_t left = input.range.size - input.position;
    for (;;) {
      const ssize_t got = pread(input.range.fd, input.block.data(), std::min<std::uint64_t>(left, kBlock),
                                static_cast<off_t>(input.range.offset + input.position));
      if (got >= 0) {
        input.position += static_cast<std::uint64_t>(got);
        return got;
      }
      if (errno != EINTR) {
        archive_set_error(archive, errno, "cannot be read: %s", platform::errnoText(errno).c_str());
        return ARCHIVE_FATAL;
      }
    }
  }

  static la_int64_t skip(struct archive*, void* self, la_int64_t bytes) {
    auto& input = *static_cast<Input*>(self);
    const std::uint64_t left = input.range.size - input.position;
    const std::uint64_t skipped = std::min(static_cast<std::uint64_t>(std::max<la_int64_t>(bytes, 0)), left);
    input.position += skipped;
    return static_cast<la_int64_t>(skipped);
  }

  static la_int64_t seek(struct archive*, void* self, la_int64_t offset, int whence) {
    auto& input = *static_cast<Input*>(self);
    const auto size = static_cast<la_int64_t>(input.range.size);
    const auto base = whence == SEEK_SET   ? la_int64_t{0}
                      : whence == SEEK_CUR ? static_cast<la_int64_t>(input.position)
                                           : size;
    // The sum cannot overflow: each part is at most the size of a file.
    const la_int64_t wanted = std::clamp(offset, -size, size) + base;
    input.position = static_cast<std::uint64_t>(std::clamp<la_int64_t>(wanted, 0, size));
    return static_cast<la_int64_t>(input.position);
  }
};

Unpacker::Unpacker(const FileRange& range, Reader reader)
    : input_(new Input{range, 0, {}}), reader_(reader), archive_(archive_read_new()) {
  if (reader == Reader::kInflate) {
    inflater_ = std::make_unique<Inflater>(range);
    open_ = true;
    return;
  }
  if (reader == Reader::kAr) {
    ar_ = std::make_unique<ArReader>(range);
    return;
  }
  if (archive_ == nullptr) {
    problem_ = "no memory for the unpacker";
    return;
  }
  if (prepare(archive_, reader) < ARCHIVE_WARN) {
    fail();
    return;
  }
  archive_read_set_read_callback(archive_, Input::read);
  archive_read_set_skip_callback(archive_, Input::skip);
  archive_read_set_seek_callback(archive_, Input::seek);
  archive_read_set_callback_data(archive_, input_.get());
  open_ = archive_read_open1(archive_) == ARCHIVE_OK;
  // The library takes a compressed file for empty when its first bytes cannot be unpacked.
  if (!open_ || archive_errno(archive_) != 0) {
    fail();
  }
  constexpr int kFilterAndFile = 2;
  if (open_ && archive_filter_count(archive_) > kFilterAndFile) {
    // Only where the filter could not be appended. The layers in between would not be scanned.
    problem_ = "more than one layer of the same kind";
    yielded_ = true;
    open_ = false;
  }
}

Unpacker::~Unpacker() {
  archive_read_free(archive_);
}

void Unpacker::fail() {
  if (problem_.empty()) {
    const char* text = archive_errno(archive_) == ENOMEM ? "it needs more memory than a scan may use"
                                                         : archive_error_string(archive_);
    problem_ = text == nullptr || *text == '\0' ? "damaged" : text;
  }
}

// headerBytes: how much of the range the library took for the member's header.
bool Unpacker::isCut(std::uint64_t headerBytes) const {
  constexpr std::uint64_t kPlainHeader = 512;  // and the padding around it
  if (link_.empty()) {
    return false;
  }
  if (reader_ == Reader::kCpio) {
    return headerBytes > kPlainHeader + name_.size() + link_.size();
  }
  return archive_format(archive_) != ARCHIVE_FORMAT_RAR_V5;  // its header has the target
}

bool Unpacker::next() {
  if (inflater_) {
    return std::exchange(open_, false);
  }
  if (ar_) {
    const bool any = ar_->next();
    name_ = ar_->name();
    problem_ = ar_->problem();
    return any;
  }
  for (int failures = 0; open_ && failures < kMostFailures; ++failures) {
    archive_entry* entry = nullptr;
    const std::uint64_t before = bytesRead();
    const int result = archive_read_next_header(archive_, &entry);
    if (result == ARCHIVE_EOF) {
      break;
    }
    if (result == ARCHIVE_RETRY || result == ARCHIVE_FAILED || result == ARCHIVE_FATAL) {
      fail();
    }
    if (result == ARCHIVE_FATAL) {
      break;
    }
    if (result == ARCHIVE_OK || result == ARCHIVE_WARN) {
      name_ = nameOfEntry(entry);
      encrypted_ = archive_entry_is_encrypted(entry) != 0;
      link_ = linkOf(entry, reader_);
      cutLink_ = isCut(bytesRead() - before);
      return true;
    }
  }
  open_ = false;
  return false;
}

std::uint64_t Unpacker::bytesRead() const {
  if (inflater_) {
    return inflater_->bytesRead();
  }
  if (ar_) {
    return ar_->position();
  }
  return static_cast<std::uint64_t>(std::max<la_int64_t>(archive_filter_bytes(archive_, -1), 0));
}

bool Unpacker::isCutZlib() const {
  constexpr std::uint64_t kSure = 64;
  return inflater_ != nullptr && inflater_->isCutOff() && inflater_->bytesRead() >= kSure;
}

// The library counts the offsets of a xar's members on from one member to the next. archive_read_data() would
// put zeros in front of the second member.
std::int64_t Unpacker::readBlock(char* buffer, std::size_t size) {
  const void* block = nullptr;
  std::size_t bytes = 0;
  la_int64_t offset = 0;
  const int result = archive_read_data_block(archive_, &block, &bytes, &offset);
  if (result == ARCHIVE_EOF) {
    return 0;
  }
  if (result != ARCHIVE_OK || bytes > size) {
    return ARCHIVE_FATAL;
  }
  std::copy_n(static_cast<const char*>(block), bytes, buffer);
  return static_cast<std::int64_t>(bytes);
}

std::size_t Unpacker::readOwn(char* buffer, std::size_t size) {
  const std::size_t got = ar_ ? ar_->read(buffer, size) : inflater_->read(buffer, size);
  yielded_ = yielded_ || got > 0;
  if (ar_) {
    problem_ = ar_->problem();
  } else if (got == 0 && !inflater_->isWhole()) {
    problem_ = "damaged or cut off";
  }
  return got;
}

std::size_t Unpacker::read(char* buffer, std::size_t size) {
  if (inflater_ || ar_) {
    return readOwn(buffer, size);
  }
  if (!link_.empty()) {
    const std::size_t got = std::min(size, link_.size());
    std::copy_n(link_.begin(), got, buffer);
    link_.erase(0, got);
    yielded_ = true;
    return got;
  }
  const std::int64_t got =
      reader_ == Reader::kXar ? readBlock(buffer, size) : archive_read_data(archive_, buffer, size);
  if (got > 0) {
    yielded_ = true;
    return static_cast<std::size_t>(got);
  }
  if (got < 0) {
    fail();
  }
  return 0;
}

}  // namespace agent
