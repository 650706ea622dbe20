#include "support/ArchiveMaker.h"

#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

std::uint32_t crcOf(std::string_view text) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size())));
}

void put16(std::string& out, std::uint64_t value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>((value >> 8) & 0xFF);
}

void put32(std::string& out, std::uint64_t value) {
  put16(out, value & 0xFFFF);
  put16(out, value >> 16 & 0xFFFF);
}

void put64(std::string& out, std::uint64_t value) {
  put32(out, value & 0xFFFFFFFF);
  put32(out, value >> 32);
}

// windowBits: -15 a bare deflate stream, 31 with a gzip header.
std::string deflated(std::string_view content, int windowBits) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::string out(deflateBound(&stream, content.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
  stream.avail_in = static_cast<uInt>(content.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) {
    throw std::runtime_error("deflate");
  }
  return out;
}

struct Packed {
  std::string data;
  std::uint64_t bytes;
  std::uint32_t crc;
  std::uint16_t method;
};

Packed pack(const ZipMember& member) {
  Packed packed{member.deflate ? deflated(member.content, -15) : member.content, member.content.size(),
                crcOf(member.content), static_cast<std::uint16_t>(member.deflate ? 8 : 0)};
  if (!member.packed.empty()) {
    packed.data = member.packed;
  }
  if (member.encryptedFlag) {
    packed.data.insert(0, 12, '\x5A');  // where the cipher's header stands
  }
  if (member.declaredBytes >= 0) {
    packed.bytes = static_cast<std::uint64_t>(member.declaredBytes);
  }
  if (member.method >= 0) {
    packed.method = static_cast<std::uint16_t>(member.method);
  }
  return packed;
}

// The data of a header about a member's content.
struct Described {
  std::uint64_t crc, packedBytes, bytes;
  std::int32_t method;
};

Described inDirectory(const ZipMember& member, const Packed& packed) {
  constexpr std::uint64_t kElsewhere = 0xFFFFFFFF;
  return {packed.crc, member.sizes64 ? kElsewhere : packed.data.size(),
          member.sizes64 ? kElsewhere : packed.bytes, packed.method};
}

Described inLocalHeader(const ZipMember& member, const Packed& packed) {
  Described local = inDirectory(member, packed);
  if (member.streamed) {
    local.crc = local.packedBytes = local.bytes = 0;
  }
  const auto orElse = [](std::int64_t wanted, std::uint64_t otherwise) {
    return wanted >= 0 ? static_cast<std::uint64_t>(wanted) : otherwise;
  };
  local.packedBytes = orElse(member.localPackedBytes, local.packedBytes);
  local.bytes = orElse(member.localBytes, local.bytes);
  local.method = member.localMethod >= 0 ? member.localMethod : local.method;
  return local;
}

// The common part of a local header and a directory entry.
void putCommon(std::string& out, const ZipMember& member, const Described& described) {
  put16(out, member.sizes64 ? 45 : 20);
  put16(out, (member.encryptedFlag ? 1U : 0U) | (member.streamed ? 8U : 0U));
  put16(out, static_cast<std::uint64_t>(described.method));
  put32(out, 0x5A210000);  // a fixed time
  put32(out, described.crc);
  put32(out, described.packedBytes);
  put32(out, described.bytes);
  put16(out, member.name.size());
  put16(out, member.sizes64 ? 20 : 0);
}

void putExtra(std::string& out, const ZipMember& member, const Packed& packed) {
  if (member.sizes64) {
    put16(out, 1);
    put16(out, 16);
    put64(out, packed.bytes);
    put64(out, packed.data.size());
  }
}

void putEnd64(std::string& out, std::size_t members, std::size_t directoryBytes, std::size_t start) {
  const std::size_t record = out.size();
  put32(out, 0x06064B50);
  put64(out, 44);
  put16(out, 45);
  put16(out, 45);
  put64(out, 0);  // disks
  put64(out, members);
  put64(out, members);
  put64(out, directoryBytes);
  put64(out, start);
  put32(out, 0x07064B50);
  put32(out, 0);
  put64(out, record);
  put32(out, 1);
}

}  // namespace

std::string makeZip(const std::vector<ZipMember>& members, bool end64) {
  std::string out;
  std::string directory;
  for (const auto& member : members) {
    const Packed packed = pack(member);
    const std::size_t offset = out.size();
    put32(out, 0x04034B50);
    putCommon(out, member, inLocalHeader(member, packed));
    out += member.name;
    putExtra(out, member, packed);
    out += packed.data;
    if (member.streamed) {
      put32(out, 0x08074B50);
      put32(out, packed.crc);
      put32(out, packed.data.size());
      put32(out, packed.bytes);
    }
    put32(directory, 0x02014B50);
    put16(directory, 20);
    putCommon(directory, member, inDirectory(member, packed));
    directory.append(10, '\0');  // comment, disk and attributes
    put32(directory, offset);
    directory += member.name;
    putExtra(directory, member, packed);
  }
  const std::size_t start = out.size();
  out += directory;
  if (end64) {
    putEnd64(out, members.size(), directory.size(), start);
  }
  const std::uint64_t count = end64 && members.size() > 0xFFFF ? 0xFFFF : members.size() & 0xFFFF;
  put32(out, 0x06054B50);
  put32(out, 0);
  put16(out, count);
  put16(out, count);
  put32(out, directory.size());
  put32(out, start);
  put16(out, 0);
  return out;
}

std::string makeZlib(std::string_view content) {
  return deflated(content, 15);
}

std::string makeGzip(std::string_view content) {
  return deflated(content, 31);
}

std::string makeTarMember(const std::string& name, std::string_view content, char type, TarSize size) {
  std::array<char, 512> header{};
  std::snprintf(header.data(), 100, "%s", name.c_str());
  std::snprintf(header.data() + 100, 8, "0000644");
  std::snprintf(header.data() + 108, 8, "0000000");
  std::snprintf(header.data() + 116, 8, "0000000");
  std::snprintf(header.data() + 124, 12, "%011zo", size == TarSize::kOctal ? content.size() : 0U);
  if (size == TarSize::kBase256) {
    std::memset(header.data() + 124, 0, 12);
    header[124] = '\x80';
    for (std::size_t i = 0; i < 8; ++i) {
      header[135 - i] = static_cast<char>(content.size() >> (8 * i) & 0xFF);
    }
  }
  std::snprintf(header.data() + 136, 12, "00000000000");
  std::memset(header.data() + 148, ' ', 8);
  header[156] = type;
  std::memcpy(header.data() + 257,
              "ustar\0"
              "00",
              8);
  unsigned sum = 0;
  for (const char c : header) {
    sum += static_cast<unsigned char>(c);
  }
  std::snprintf(header.data() + 148, 8, "%06o", sum);
  std::string out(header.data(), header.size());
  out += content;
  out.append((512 - content.size() % 512) % 512, '\0');
  return out;
}

std::string makeTar(const std::vector<std::pair<std::string, std::string>>& members) {
  std::string out;
  for (const auto& [name, content] : members) {
    out += makeTarMember(name, content);
  }
  out.append(1024, '\0');
  return out;
}

std::string makeRar(const std::string& name, std::string_view content) {
  const auto block = [](char type, std::uint16_t flags, const std::string& body) {
    std::string rest(1, type);
    put16(rest, flags);
    put16(rest, 7 + body.size());
    rest += body;
    std::string out;
    put16(out, crcOf(rest) & 0xFFFF);
    return out + rest;
  };
  std::string file;
  put32(file, content.size());
  put32(file, content.size());
  file += '\3';
  put32(file, crcOf(content));
  put32(file, 0);
  file += '\x14';
  file += '\x30';
  put16(file, name.size());
  put32(file, 0x20);
  file += name;
  return std::string("Rar!\x1A\x07\0", 7) + block('\x73', 0, std::string(6, '\0')) +
         block('\x74', 0x8000, file) + std::string(content) + block('\x7B', 0x4000, {});
}

std::string makeArj(const std::string& name, std::string_view content, bool encrypted) {
  const auto header = [](const std::string& title, int kind, int flags, std::string_view data) {
    std::string rest{30, 11, 1, 2, static_cast<char>(flags), 0, static_cast<char>(kind), 0};
    put32(rest, 0);  // the time
    put32(rest, data.size());
    put32(rest, data.size());
    put32(rest, crcOf(data));
    put16(rest, 0);
    put32(rest, 0);
    rest += title;
    rest.append(2, '\0');  // the title's end and an empty comment
    std::string out("\x60\xEA", 2);
    put16(out, rest.size());
    out += rest;
    put32(out, crcOf(rest));
    put16(out, 0);  // no further header
    return out;
  };
  constexpr int kArchive = 2;
  constexpr int kMember = 0;
  return header("x.arj", kArchive, 0, {}) + header(name, kMember, encrypted ? 1 : 0, content) +
         std::string(content) + std::string("\x60\xEA\0\0", 4);
}

std::string makeDeflate(std::string_view content) {
  return deflated(content, -15);
}

std::string makeSevenZip(const std::vector<SevenZipMember>& members) {
  // Numbers below 128 are one byte of the format. Larger ones are not written here.
  const auto number = [](std::size_t value) {
    if (value >= 128) {
      throw std::runtime_error("too large for this writer of 7z files");
    }
    return std::string(1, static_cast<char>(value));
  };
  std::string data, sizes, folders, unpacked, names;
  for (const auto& member : members) {
    data += member.packed;
    sizes += number(member.packed.size());
    folders += number(1) + number(member.coder.size()) + member.coder;
    unpacked += number(member.bytes);
    for (const char c : member.name) {
      names += {c, '\0'};
    }
    names += {'\0', '\0'};
  }
  const std::string count = number(members.size()), end(1, '\0'), external(1, '\0');
  const std::string packInfo = "\x06" + number(0) + count + "\x09" + sizes + end;
  const std::string unpackInfo = "\x07\x0B" + count + external + folders + "\x0C" + unpacked + end;
  const std::string files = "\x05" + count + "\x11" + number(names.size() + 1) + external + names + end;
  const std::string header = "\x01\x04" + packInfo + unpackInfo + "\x08" + end + end + files + end;
  std::string start;
  put64(start, data.size());
  put64(start, header.size());
  put32(start, crcOf(header));
  std::string out("7z\xBC\xAF\x27\x1C\0\4", 8);
  put32(out, crcOf(start));
  return out + start + data + header;
}

std::string makeRpm(std::string_view packedCpio) {
  std::string lead("\xED\xAB\xEE\xDB\3\0\0\0", 8);
  lead.resize(96, '\0');
  std::string header("\x8E\xAD\xE8\1", 4);
  header.resize(16, '\0');
  return lead + header + std::string(packedCpio);
}

std::string makeNestedZip(int layers, const std::string& name, const std::string& content) {
  std::string inner = content;
  std::string innerName = name;
  for (int i = 0; i < layers; ++i) {
    inner = makeZip({{innerName, inner}});
    innerName = "layer" + std::to_string(i) + ".zip";
  }
  return inner;
}

}  // namespace testsupport
