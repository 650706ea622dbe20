#include "support/LibarchiveMaker.h"

#include <archive.h>
#include <archive_entry.h>

#include <stdexcept>

namespace testsupport {
namespace {

la_ssize_t append(struct archive*, void* out, const void* bytes, size_t size) {
  static_cast<std::string*>(out)->append(static_cast<const char*>(bytes), size);
  return static_cast<la_ssize_t>(size);
}

void check(struct archive* archive, int result) {
  if (result < ARCHIVE_WARN) {
    const char* why = archive_error_string(archive);
    throw std::runtime_error(why == nullptr ? "libarchive" : why);
  }
}

void write(struct archive* archive, const std::string& name, const std::string& content) {
  archive_entry* entry = archive_entry_new();
  archive_entry_set_pathname(entry, name.c_str());
  archive_entry_set_filetype(entry, AE_IFREG);
  archive_entry_set_perm(entry, 0644);
  archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
  check(archive, archive_write_header(archive, entry));
  archive_entry_free(entry);
  if (archive_write_data(archive, content.data(), content.size()) !=
      static_cast<la_ssize_t>(content.size())) {
    throw std::runtime_error("libarchive writes no data");
  }
}

}  // namespace

std::string archiveOf(const Members& members, const std::string& format, const std::string& filter,
                      const std::string& options) {
  std::string out;
  struct archive* archive = archive_write_new();
  if (!filter.empty()) {
    check(archive, archive_write_add_filter_by_name(archive, filter.c_str()));
  }
  check(archive, archive_write_set_format_by_name(archive, format.c_str()));
  if (!options.empty()) {
    check(archive, archive_write_set_options(archive, options.c_str()));
    archive_write_set_passphrase(archive, "secret");
  }
  archive_write_set_bytes_in_last_block(archive, 1);
  check(archive, archive_write_open(archive, &out, nullptr, append, nullptr));
  for (const auto& [name, content] : members) {
    write(archive, name, content);
  }
  check(archive, archive_write_close(archive));
  archive_write_free(archive);
  return out;
}

std::string packedBy(const std::string& filter, const std::string& content) {
  return archiveOf({{"content", content}}, "raw", filter);
}

}  // namespace testsupport
