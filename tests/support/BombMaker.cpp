#include "support/BombMaker.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "support/LibarchiveMaker.h"
#include "support/Samples.h"

namespace testsupport {
namespace {

constexpr std::size_t kSector = 512;
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE, kTableSector = 0xFFFFFFFD, kNone = 0xFFFFFFFF;

void put(std::string& out, std::size_t at, std::uint64_t value, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) {
    out.at(at + i) = static_cast<char>(value >> (8 * i));
  }
}

std::size_t sectorsOf(std::size_t bytes) {
  return (bytes + kSector - 1) / kSector;
}

constexpr std::size_t kEntry = 128;

std::string entryOf(const std::string& name, unsigned char type) {
  std::string entry(kEntry, '\0');
  for (std::size_t i = 0; i < name.size(); ++i) {
    entry[2 * i] = name[i];
  }
  put(entry, 64, 2 * (name.size() + 1), 2);
  put(entry, 66, type, 1);
  put(entry, 67, 1, 1);
  for (const std::size_t link : {68, 72, 76}) {
    put(entry, link, kNone, 4);
  }
  return entry;
}

// Links the entries first to last below one another, as a balanced tree. Returns the top.
std::uint32_t linkTree(std::string& directory, std::uint32_t first, std::uint32_t end) {
  if (first >= end) {
    return kNone;
  }
  const std::uint32_t middle = first + (end - first) / 2;
  const std::uint32_t left = linkTree(directory, first, middle);
  const std::uint32_t right = linkTree(directory, middle + 1, end);
  put(directory, middle * kEntry + 68, left, 4);
  put(directory, middle * kEntry + 72, right, 4);
  return middle;
}

}  // namespace

std::string makeDocumentOfSharedStreams(unsigned streams, std::size_t bytes) {
  constexpr std::size_t kPerTable = kSector / 4, kTablesInHeader = 109;
  const std::size_t dataSectors = sectorsOf(bytes);
  std::string directory = entryOf("Root Entry", 5);
  for (unsigned i = 0; i < streams; ++i) {
    std::string entry = entryOf(i == 0 ? "_VBA_PROJECT" : "s" + std::to_string(100000 + i), 2);
    put(entry, 116, 0, 4);
    put(entry, 120, dataSectors * kSector, 4);
    directory += entry;
  }
  put(directory, 76, linkTree(directory, 1, streams + 1), 4);
  put(directory, 116, kEndOfChain, 4);
  const std::size_t directorySectors = sectorsOf(directory.size());
  directory.resize(directorySectors * kSector);
  std::size_t tables = 1;
  while (tables * kPerTable < dataSectors + directorySectors + tables) {
    ++tables;
  }
  if (tables > kTablesInHeader) {
    throw std::runtime_error("a document of too many sectors");
  }
  const auto directoryAt = static_cast<std::uint32_t>(dataSectors);
  const auto tableAt = static_cast<std::uint32_t>(dataSectors + directorySectors);

  std::string table(tables * kSector, '\xFF');
  const auto chain = [&table](std::uint32_t first, std::size_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      put(table, (first + i) * 4, i + 1 < count ? first + i + 1 : kEndOfChain, 4);
    }
  };
  chain(0, dataSectors);
  chain(directoryAt, directorySectors);
  for (std::uint32_t i = 0; i < tables; ++i) {
    put(table, (tableAt + i) * 4, kTableSector, 4);
  }

  std::string header("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
  header.resize(kSector, '\0');
  put(header, 24, 0x3E, 2);
  put(header, 26, 3, 2);
  put(header, 28, 0xFFFE, 2);
  put(header, 30, 9, 2);  // 512 bytes a sector
  put(header, 32, 6, 2);
  put(header, 44, tables, 4);
  put(header, 48, directoryAt, 4);
  put(header, 56, 4096, 4);
  put(header, 60, kEndOfChain, 4);
  put(header, 68, kEndOfChain, 4);
  for (std::uint32_t i = 0; i < kTablesInHeader; ++i) {
    put(header, 76 + 4 * i, i < tables ? tableAt + i : kNone, 4);
  }
  std::string data = noise(dataSectors * kSector);
  return header + data + directory + table;
}

std::string makeImageOfItself() {
  std::string image = archiveOf({{"SELF.ISO", "the image itself"}}, "iso9660", {}, "!joliet,!rockridge");
  const std::size_t name = image.find("SELF.ISO;1");
  if (name == std::string::npos) {
    throw std::runtime_error("the image has no entry of its file");
  }
  constexpr std::size_t kNameInEntry = 33, kPlace = 2, kSize = 10;
  const std::size_t entry = name - kNameInEntry;
  const auto putBoth = [&](std::size_t at, std::uint32_t value) {
    put(image, at, value, 4);
    for (unsigned i = 0; i < 4; ++i) {
      image.at(at + 4 + i) = static_cast<char>(value >> (24 - 8 * i));
    }
  };
  putBoth(entry + kPlace, 0);
  putBoth(entry + kSize, static_cast<std::uint32_t>(image.size()));
  return image;
}

std::string makeLzma(std::uint32_t dictionaryBytes) {
  std::string file = packedBy("lzma", std::string(100, 'x'));
  put(file, 1, dictionaryBytes, 4);
  return file;
}

}  // namespace testsupport
