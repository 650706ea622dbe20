#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace testsupport {

/// A compound document with many streams. All streams are the same bytes of the file, so that the unpacked
/// content is `streams` times as large. One stream has a name of macros: libclamav unpacks all before a scan.
/// bytes: of the content, at most 7,000,000.
std::string makeDocumentOfSharedStreams(unsigned streams, std::size_t bytes);
/// An ISO 9660 image whose one file is the whole image.
std::string makeImageOfItself();
/// A .lzma file of no content whose header asks for a dictionary of that size.
std::string makeLzma(std::uint32_t dictionaryBytes);

}  // namespace testsupport
