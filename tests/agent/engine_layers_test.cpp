// What the bytes of a layer say: the table of magic bytes and the checks of headers.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "EngineFixture.h"
#include "engine/ArchiveKinds.h"
#include "support/BombMaker.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using namespace std::string_literals;
using testing::describe;
using ::testing::HasSubstr;
using testsupport::archiveOf;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::makeTar;
using testsupport::makeTarMember;
using testsupport::makeZip;
using testsupport::makeZlib;
using testsupport::noise;
using testsupport::packedBy;

constexpr std::size_t kTarSum = 148;

struct Row {
  std::string what, content;
};

class EngineLayers : public testing::EngineFixture {
 protected:
  void expect(Outcome outcome, const Row& row, const std::string& reason = {}) {
    const Verdict verdict = scan(row.content);
    EXPECT_EQ(verdict.outcome, outcome) << row.what << ": " << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason)) << row.what;
  }
  void expectFound(const Row& row) { expect(Outcome::kInfected, row); }
  void expectClean(const Row& row) { expect(Outcome::kClean, row); }
  void expectError(const Row& row, const std::string& reason) { expect(Outcome::kError, row, reason); }
};

std::string repeated(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

// The header's sum is written anew, by the format.
std::string withSum(std::string tar, const char* format) {
  std::fill_n(tar.begin() + kTarSum, 8, ' ');
  unsigned sum = 0;
  for (std::size_t i = 0; i < 512; ++i) {
    sum += static_cast<unsigned char>(tar[i]);
  }
  std::array<char, 16> digits{};
  std::snprintf(digits.data(), digits.size(), format, sum);
  return tar.replace(kTarSum, 8, digits.data(), 8);
}

std::string oldTar() {
  return archiveOf({{"test.com", eicar()}}, "v7tar");
}

std::string number(std::size_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) {
    text += static_cast<char>(value >> (8 * i) & 0xFF);
  }
  return text;
}

std::string sumOfLzh(const std::string& content) {
  unsigned crc = 0;
  for (const char c : content) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1U) != 0 ? crc >> 1 ^ 0xA001U : crc >> 1;
    }
  }
  return number(crc, 2);
}

std::string beginningOfLzh(const std::string& content, const std::string& method) {
  return method + number(content.size(), 4) + number(content.size(), 4) + std::string(4, '\0') + " ";
}

// A header of level 0. The sum of the content is not tested by the unpackers' listing.
std::string makeLzh(const std::string& content, const std::string& method) {
  const std::string header = beginningOfLzh(content, method) + "\0\1a"s + sumOfLzh(content);
  unsigned sum = 0;
  for (const char c : header) {
    sum += static_cast<unsigned char>(c);
  }
  return number(header.size(), 1) + number(sum, 1) + header + content;
}

enum class LzhSum : std::uint8_t { kNone, kOfHeader };

// A header of level 2 or 3, and behind it those of its sum and of the name.
std::string makeNewLzh(const std::string& content, const std::string& method, char level,
                       LzhSum sum = LzhSum::kOfHeader) {
  const int bytes = level == 2 ? 2 : 4;  // of a size
  std::string behind;
  for (const std::string& header : {"\0\0\0"s, "\1a"s}) {
    if (sum == LzhSum::kOfHeader || header[0] != '\0') {
      behind += number(header.size() + static_cast<std::size_t>(bytes), bytes) + header;
    }
  }
  behind += number(0, bytes);
  const std::string fixed = beginningOfLzh(content, method) + level + sumOfLzh(content) + "U";
  const std::size_t size = 2 + fixed.size() + (level == 2 ? 0 : 4) + behind.size();
  std::string header =
      number(level == 2 ? size : 4, 2) + fixed + (level == 2 ? ""s : number(size, 4)) + behind;
  if (sum == LzhSum::kOfHeader) {
    header.replace(size - behind.size() + static_cast<std::size_t>(bytes) + 1, 2, sumOfLzh(header));
  }
  return header + content;
}

// Every byte stands for itself.
std::string makeSzdd(const std::string& content) {
  std::string szdd = "SZDD\x88\xF0\x27\x33"s + "A\0"s + std::string(4, '\0');
  szdd[10] = static_cast<char>(content.size());
  for (std::size_t at = 0; at < content.size(); at += 8) {
    szdd += "\xFF" + content.substr(at, 8);
  }
  return szdd;
}

// libclamav matches no signature with files that begin with one of these.
TEST_F(EngineLayers, AFileThatLooksLikeASoundOrADatabaseIsScanned) {
  for (const std::string& magic :
       {"ID3"s, "OggS"s, ".RMF"s, "\xFF\xFB\x90"s, "SQLite format 3\0"s, "SIP-HIT (SIP/H"s, "SYMC\1\0"s,
        "\x37\x7F\x06\x82\0\x2D\xE2\x18"s, "\xD9\xD5\x05\xF9\x20\xA1\x63\xD7"s}) {
    expectFound({magic, magic + genericSample()});
    expectFound({magic, makeZip({{"inner", magic + " some text " + genericSample()}})});
    expectFound({magic, magic + magic + packedBy("gzip", magic + genericSample())});
    expectClean({magic, magic + " some text"});
  }
}

TEST_F(EngineLayers, AGzipWithTheMagicBytesOfOldVersionsIsUnpacked) {
  std::string old = packedBy("gzip", eicar());
  old[1] = '\x9E';
  expectFound({"first", old});
  expectFound({"second", packedBy("gzip", "some text") + old});
  expectFound({"two", old + old});
  expectError({"cut off", old.substr(0, old.size() - 20)}, "cut off");
}

TEST_F(EngineLayers, AZlibFileIsUnpacked) {
  for (const char level : {'\x01', '\x5E', '\x9C', '\xDA'}) {
    std::string found = makeZlib(makeTar({{"a", eicar()}})), harmless = makeZlib("some text");
    found[1] = harmless[1] = level;
    expectFound({std::to_string(level), found});
    expectClean({std::to_string(level), harmless});
  }
  expectFound({"large", makeZlib(noise(300000) + genericSample())});
  expectClean({"text", "x^2 + y^2 = z^2\n"});
  expectClean({"text", "HKEY_LOCAL_MACHINE\n"});
  expectClean({"text", "x^2 + y^2 = z^2\n" + repeated(20, "some text about the sum of two squares\n")});
}

TEST_F(EngineLayers, AZlibFileThatIsCutOffIsAnError) {
  for (const std::string& content : {noise(3000), repeated(200, "some text\n") + noise(500)}) {
    const std::string packed = makeZlib(content);
    expectError({"cut off", packed.substr(0, packed.size() - 10)}, "zz");
    expectError({"cut off", packed.substr(0, 100)}, "zz");
  }
}

TEST_F(EngineLayers, AnSzddFileInFrontDoesNotHideAnArchive) {
  expectClean({"szdd", makeSzdd("some harmless text")});
  expectFound({"szdd", makeSzdd(eicar())});
  expectFound({"tar", "SZDD" + std::string(508, '\0') + makeTar({{"a", eicar()}})});
  std::string szdd = makeSzdd("some harmless text");
  szdd.resize(512);
  expectFound({"tar behind a whole szdd", szdd + makeTar({{"a", eicar()}})});
  expectFound({"cpio", "SZDD junk" + archiveOf({{"a", eicar()}}, "newc")});
  expectError({"nothing", "SZDD junk"}, "szdd");
  std::string named = makeSzdd("some harmless text");
  named[9] = 'e';  // the last letter of the file's name; libclamav leaves such a file out
  expectError({"with a letter", named}, "szdd");
}

TEST_F(EngineLayers, ATarIsATarHoweverItsSumIsWritten) {
  expectFound({"plain", oldTar()});
  expectFound({"tab", withSum(oldTar(), "\t%06o")});
  expectFound({"spaces", withSum(oldTar(), "  %05o")});
  const std::string nul = withSum(oldTar(), "_%06o").replace(kTarSum, 1, 1, '\0');
  expectError({"nul", nul}, "tar");
}

TEST_F(EngineLayers, AnOldTarBehindBlocksOfOtherBytesIsUnpacked) {
  expectFound({"noise", noise(512) + oldTar()});
  expectFound({"text", std::string(2048, 'x') + oldTar()});
  std::string many = noise(512);
  for (int i = 0; i < 40; ++i) {
    many += archiveOf({{"a", "some text " + std::to_string(i)}}, "v7tar").substr(0, 1024);
  }
  expectFound({"the last of many", many + oldTar()});
}

TEST_F(EngineLayers, ATarSizeThatOtherProgramsReadInAnotherWayIsAnError) {
  const std::string inner = makeTarMember(eicar(), ""), end(1024, '\0');
  const std::string reason = "read in several ways";
  expectError({"global", makeTarMember("g", "11 size=68\n", 'g') + makeTarMember("a", "") + inner + end},
              reason);
  expectError({"sparse", makeTarMember("g", "22 GNU.sparse.major=1\n", 'g') + inner + end}, reason);
  std::string base64 = makeTarMember("a", "");
  base64.replace(124, 12, "+AAAAAAAAABE");
  expectError({"number of another base", withSum(base64, "%06o") + inner + end}, reason);
  std::string nul = makeTarMember("a", "");
  nul.replace(124, 12, "\0"s + "00000000104");
  expectError({"nul", withSum(nul, "%06o") + inner + end}, reason);
  expectError({"behind text", "some text" + withSum(nul, "%06o") + inner + end}, reason);
  expectError({"behind a member", makeTarMember("b", "some text") + withSum(nul, "%06o") + inner + end},
              reason);
  expectClean(
      {"comment", makeTarMember("g", "19 comment=a text\n", 'g') + makeTarMember("a", "some text") + end});
}

TEST_F(EngineLayers, AnIsoWithATreeThatNobodyReadsIsSkipped) {
  std::string iso = archiveOf({{"a", "some text"}}, "iso9660");
  std::string udf = iso, hfs = iso;
  udf.replace(32768 + 4 * 2048 + 1, 5, "NSR02");
  expect(Outcome::kSkipped, {"udf", udf}, "(udf)");
  hfs.replace(1024, 2, "BD").replace(1024 + 18, 6, "\0\x10\0\0\2\0"s);
  expect(Outcome::kSkipped, {"hfs", hfs}, "(hfs)");
  expect(Outcome::kSkipped, {"udf behind a program", testsupport::readFile("/bin/true") + udf}, "(udf)");
}

// The first two sectors of the streams have changed places: the raw bytes do not hold the sample.
TEST_F(EngineLayers, ADocumentBehindATextOrAProgramIsUnpacked) {
  constexpr std::size_t kSector = 512, kSectors = 8, kEntry = 128, kStart = 116;
  std::string document = testsupport::makeDocumentOfSharedStreams(2, kSectors * kSector);
  const std::string content = std::string(500, 'x') + genericSample() + std::string(kSector, 'x');
  document.replace(kSector, kSector,
                   content.substr(kSector, kSector).append(kSector, 'x').substr(0, kSector));
  document.replace(2 * kSector, kSector, content.substr(0, kSector));
  const std::size_t directory = (1 + kSectors) * kSector, table = directory + kSector;
  document.replace(table, 8, number(2, 4) + number(0, 4));
  for (const std::size_t entry : {1, 2}) {
    document.replace(directory + entry * kEntry + kStart, 4, number(1, 4));
  }
  expectFound({"alone", document});
  expectFound({"behind text", "some text\n" + document});
  expectFound({"behind a program", testsupport::readFile("/bin/true") + document + "some text"});
  expectFound({"behind a broken one", "some text\n" + document.substr(0, 600) + document});
  expectClean({"only its magic bytes", "some text\n" + document.substr(0, 8) + "some text"});
}

TEST_F(EngineLayers, EachMemberOfAnLzhIsScannedOrAnError) {
  const std::string end(1, '\0'), harmless = makeLzh("some text", "-lh0-");
  expectClean({"harmless", harmless + end});
  expectFound({"stored", harmless + makeLzh(eicar(), "-lh0-") + end});
  for (const char* method : {"-pm2-", "-lh8-", "-lhx-"}) {
    expectError({method, harmless + makeLzh("packed by no one", method) + end}, "lzh");
  }
  expectError({"first unknown", makeLzh("packed by no one", "-pm1-") + end}, "lzh");
  expectError({"cut off", harmless + makeLzh(noise(1000), "-lh0-").substr(0, 500)}, "lzh");
  expectFound({"behind text", "some text\n" + makeLzh(eicar(), "-lh0-") + end});
}

// Stored and not packed, the test file would be found in the raw bytes.
TEST_F(EngineLayers, AnLzhBehindAnArchiveOfAnotherKindIsFound) {
  const testsupport::SevenZipMember harmless{"a.txt", std::string(1, '\0'), "some text", 9};
  const Row fronts[] = {{"7z", testsupport::makeSevenZip({harmless})},
                        {"zip", makeZip({{"a.txt", "some text"}})},
                        {"iso", archiveOf({{"a", "some text"}}, "iso9660")},
                        {"rar", testsupport::makeRar("a.txt", "some text")}};
  const std::string end(1, '\0'), first = makeLzh("some text", "-lh0-"), packed = packedBy("gzip", eicar()),
                                  second = makeLzh(packed, "-lh0-");
  for (const auto& [what, front] : fronts) {
    expectFound({what, front + second + end});
    expectFound({what, front + first + second + end});
    expectFound({what, front + first + "some text" + second + end});
    expectFound({what, front + makeNewLzh(packed, "-lh0-", 2) + end});
    expectFound({what, front + makeNewLzh(packed, "-lh0-", 3) + end});
    expect(Outcome::kSkipped, {what, front + makeLzh("packed by no one", "-lh1-") + end}, "(lzh)");
  }
}

// libarchive does not know the method, or wants a sum of the header that other programs do without.
TEST_F(EngineLayers, AnLzhThatLibarchiveRefusesBehindAnythingIsSkipped) {
  const std::string end(1, '\0'), content = "packed by no one";
  for (const std::string& front : {"some text\n"s, "%PDF-1.4\n"s, testsupport::readFile("/bin/true")}) {
    for (const char* method : {"-lh1-", "-lzs-", "-pm2-"}) {
      for (const std::string& lzh :
           {makeLzh(content, method), makeNewLzh(content, method, 2), makeNewLzh(content, method, 3),
            makeNewLzh(content, "-lh0-", 2, LzhSum::kNone), makeNewLzh(content, "-lh0-", 3, LzhSum::kNone)}) {
        expect(Outcome::kSkipped, {method, front + lzh + end}, "(lzh)");
        expect(Outcome::kSkipped, {method, front + makeLzh("some text", "-lh0-") + lzh + end}, "(lzh)");
        expectClean({"cut off", front + lzh.substr(0, 20)});
      }
    }
  }
  std::string noSum = makeLzh(content, "-lh1-");
  ++noSum[1];
  expectClean({"a wrong sum", "some text\n" + noSum + end});
  expectClean(
      {"a table of methods", "some text\n-lh0-\0-lh1-\0-lh2-\0-lh3-\0-lh4-\0-lhd-\0-lzs-\0-pm2-"s + end});
}

TEST_F(EngineLayers, HeadersThatOtherProgramsAcceptAreFollowedBehindText) {
  const std::string text = "some text\n", rar = testsupport::makeRar("test.com", eicar());
  expectFound({"a comment first", text + rar.substr(0, 7) + "\x65\x0E\x75\0\0\7\0"s + rar.substr(7)});
  std::string lzma = packedBy("lzma", eicar());
  lzma.replace(1, 4, "\1\0\x80\0"s);
  expectFound({"a dictionary of an odd size", lzma});
  // A cab: its size, the place of the first file's entry, one folder, one file. No block of data fits.
  std::string cab =
      "MSCF\1\0\0\0"s + "\x80\0\0\0"s + "\0\0\0\0"s + "\x2C\0\0\0"s + "\0\0\0\0"s + "\3\1"s + "\1\0\1\0"s;
  cab.resize(0x80);
  expectError({"cab", text + cab}, "cab");
}

TEST_F(EngineLayers, JunkInFrontDoesNotHideACpioOrACompressedFile) {
  const std::string cpio = archiveOf({{"test.com", eicar()}}, "bin");
  expectFound({"bin", "junk\n" + cpio});
  expectFound({"behind an empty stream", packedBy("gzip", "") + "x" + cpio});
  std::string swapped = cpio;
  for (std::size_t i = 0; i < 26; i += 2) {
    std::swap(swapped[i], swapped[i + 1]);
  }
  const Verdict verdict = scan("junk\n" + swapped.substr(0, 26 + 10 + eicar().size()));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  std::string early = archiveOf({{"a", "some text"}}, "newc");
  early.append((512 - early.size() % 512) % 512 + 512, '\0');
  expectFound({"lzma behind a cpio", early + packedBy("lzma", makeTar({{"a", eicar()}}))});
  expectClean({"zeros", early + std::string(70000, '\0')});
}

TEST_F(EngineLayers, BytesThatAreNoArchiveAreClean) {
  for (const std::string& front :
       {"\xC7\x71"s, "\x71\xC7"s, "BZh is a kind of file\n"s, "\x1F\x8B text"s, "StuffIt is a program\n"s,
        "LRZI is a text\n"s, "zPQ is a text\n"s, "vhdxfile is a text\n"s, "hsqs is a text\n"s,
        "ISc is a text"s, "bvx2 is a text\n"s, "AA01 is a text\n"s, "pbzx is a text\n"s, "RE~ is a text"s,
        "ls -lh is a text"s, std::string(512 - 4, 'x') + "koly"s}) {
    expectClean({front, front + repeated(100, "some text ")});
  }
  const std::string table = "7z\xBC\xAF\x27\x1C"s + std::string(40, '\0');
  expectClean({"the magic bytes in a program", std::string(1001, 'x') + table + std::string(1000, 'x')});
}

TEST_F(EngineLayers, ADatabaseOfManyCompressedRecordsIsClean) {
  EngineLimits limits = smallLimits();
  limits.maxFiles = 100000;
  load(limits);
  std::string records;
  for (int i = 0; i < 1500; ++i) {
    records += "record " + packedBy("gzip", std::to_string(i));
  }
  expectClean({"gz", records});
}

TEST_F(EngineLayers, AnArjThatIsCutOffOrPackedByAnUnknownMethodIsAnError) {
  const std::string arj = testsupport::makeArj("a", "some harmless text", false);
  expectClean({"whole", arj});
  for (const std::size_t cut : {4U, 10U, 20U, 40U}) {
    expectError({"cut off", arj.substr(0, arj.size() - cut)}, "arj");
  }
  const std::size_t member = arj.rfind("\x60\xEA", arj.size() - 5);
  std::string unknown = arj;
  unknown[member + 4 + 5] = '\7';
  expectError({"method", unknown}, "arj");
}

// Headers of an ar: the name, four numbers, the size.
std::string arMember(const std::string& name, const std::string& content, bool padded = true) {
  std::array<char, 61> header{};
  std::snprintf(header.data(), header.size(), "%-16s%-12d%-6d%-6d%-8d%-10zu`\n", name.c_str(), 0, 0, 0, 644,
                content.size());
  return header.data() + content + (padded && content.size() % 2 != 0 ? "\n" : "");
}

TEST_F(EngineLayers, AnArIsReadWhateverItsTableOfNames) {
  const std::string ar = "!<arch>\n", windows = arMember("//", "a_long_name_of_an_object.obj\0second.obj\0"s);
  const std::string table = ar + arMember("/", "\0\0\0\0"s) + windows;
  expectClean({"harmless", table + arMember("/0", "some text")});
  expectFound({"after a table", table + arMember("/0", eicar())});
  expectFound({"the odd byte is missing", ar + arMember("a/", "odd", false) + arMember("b/", eicar())});
  expectFound({"a name in front", ar + arMember("#1/4", "name" + eicar())});
  expectFound(
      {"cut off behind", table + arMember("/0", eicar()) + arMember("b/", noise(500)).substr(0, 300)});
  expectError({"cut off", ar + arMember("b/", noise(500)).substr(0, 300)}, "cut off");
  expectError({"no member", ar + arMember("a/", "some text") + repeated(20, "some text ")}, "no member");
}

// libclamav unpacks some methods of an alz and of an egg, and says nothing of the others.
TEST_F(EngineLayers, AnAlzThatYieldsAMemberIsSkippedAndNeverClean) {
  const auto alz = [](const std::string& content) {
    const std::string size(1, static_cast<char>(content.size()));
    return "ALZ\1\x0A\0\0\0"s + "BLZ\1\1\0\x20\0\0\0\0\x10\0"s + "\0\0"s + std::string(4, '\0') + size +
           size + "a" + content + "CLZ\1"s + std::string(12, '\0') + "CLZ\2"s;
  };
  expect(Outcome::kSkipped, {"harmless", alz("some text")}, "(alz)");
  expectFound({"found", alz(eicar())});
  expectError({"no member", "ALZ\1"s + noise(500)}, "alz");
  expectError({"no member", "EGGA" + noise(500)}, "egg");
}

TEST_F(EngineLayers, AnEndingInTheTableIsLowerCase) {
  EXPECT_TRUE(isEndingAmong("z", {}));
  EXPECT_TRUE(isEndingAmong("z", {"gz"}));
}

struct Place {
  std::size_t offset;
  std::string bytes;
};
struct Kind {
  std::string name;
  std::vector<Place> places;
  std::size_t size = 5000;
};

class KindThatNobodyUnpacks : public EngineLayers, public ::testing::WithParamInterface<Kind> {};

TEST_P(KindThatNobodyUnpacks, IsSkipped) {
  const Kind& kind = GetParam();
  std::string content(kind.size, '\0');
  for (const auto& place : kind.places) {
    content.replace(place.offset, place.bytes.size(), place.bytes);
  }
  const std::string reason = "an archive of a kind that cannot be unpacked (" + kind.name + ")";
  expect(Outcome::kSkipped, {kind.name, content}, reason);
  expect(Outcome::kSkipped, {kind.name, makeZip({{"inner", content}})}, reason);
}

// The size of a sector, of a cluster, the number of reserved sectors, of tables; the medium; the volume's
// sectors.
const Place kFatTable{11, "\0\2\4\1\0\2\0\2\0\x20\xF8"s};

const Kind kKinds[] = {
    {"squashfs", {{0, "hsqs"}, {12, "\0\0\2\0"s}, {22, "\x11\0\0\0\0\0\4\0"s}}},
    {"squashfs", {{0, "sqsh"}, {12, "\0\2\0\0"s}, {22, "\0\x11\0\0\0\0\0\4"s}}},
    {"squashfs", {{0, "shsq"}, {12, "\0\0\2\0"s}, {22, "\x11\0\0\0\0\0\4\0"s}}},
    {"squashfs", {{0, "qshs"}, {28, "\0\3"s}, {34, "\0\x10"s}}},
    {"wim", {{0, "MSWIM\0\0\0\xD0\0\0\0"s}}},
    {"wim", {{0, "WLPWM\0\0\0\xD0\0\0\0"s}}},
    {"cramfs", {{0, "\x45\x3D\xCD\x28"}}},
    {"cramfs", {{0, "\x28\xCD\x3D\x45"}}},
    {"cramfs", {{16, "Compressed ROMFS"}}},
    {"romfs", {{0, "-rom1fs-"}}},
    {"erofs", {{1024, "\xE2\xE1\xF5\xE0"}}},
    {"ext4", {{1024, "\x10"}, {1080, "\x53\xEF"}}},
    {"xfs", {{0, "XFSB"}}},
    {"btrfs", {{0x10040, "_BHRfS_M"}}, 70000},
    {"fat", {{54, "FAT12   "}}},
    {"fat", {{54, "FAT16   "}}},
    {"fat", {{82, "FAT32   "}}},
    {"fat", {{0, "\xEB\x3C\x90"}, kFatTable, {510, "\x55\xAA"}}},
    {"exfat", {{3, "EXFAT   "}}},
    {"ntfs", {{3, "NTFS    "}}},
    {"hfs", {{1024, "BD"}, {1024 + 18, "\0\x10\0\0\2\0"s}}},
    {"hfs+", {{1024, "H+\0\4"s}, {1024 + 40, "\0\0\x10\0"s}}},
    {"hfs+", {{1024, "HX\0\5"s}, {1024 + 40, "\0\0\x10\0"s}}},
    {"apfs", {{32, "NXSB"}}},
    {"f2fs", {{1024, "\x10\x20\xF5\xF2"}}},
    {"jfs", {{0x8000, "JFS1"}}, 40000},
    {"reiserfs", {{0x10034, "ReIsEr2Fs"}}, 70000},
    {"minix", {{1024, "\x40\0\x40\0\1\0\1\0\6\0\0\0"s}, {1040, "\x7F\x13"}}},
    {"minix", {{1024, "\x40\0\x40\0\1\0\1\0\6\0\0\0"s}, {1040, "\x8F\x13"}}},
    {"minix", {{1024, "\x40\0\x40\0\1\0\1\0\6\0\0\0"s}, {1040, "\x68\x24"}}},
    {"minix", {{1024, "\x40\0\x40\0\1\0\1\0\6\0\0\0"s}, {1040, "\x78\x24"}}},
    {"minix", {{1024, "\x40\0\0\0\0\0\1\0\1\0\6\0\0\0"s}, {1048, "\x5A\x4D"}}},
    {"ubifs", {{0, "\x31\x18\x10\x06"}}},
    {"ubi", {{0, "UBI#\1"}}},
    {"lvm", {{512, "LABELONE"}}},
    {"udf", {{32769, "BEA01"}, {34817, "NSR02"}}, 60000},
    {"udf", {{32769, "BEA01"}, {34817, "NSR03"}}, 60000},
    {"luks", {{0, "LUKS\xBA\xBE"}}},
    {"qcow2", {{0, "QFI\xFB"}}},
    {"vmdk", {{0, "KDMV"}}},
    {"vmdk", {{0, "COWD\1"}}},
    {"vdi", {{0x40, "\x7F\x10\xDA\xBE"}}},
    {"vhd", {{0, "conectix"}}},
    {"vhd", {{5000 - 512, "conectix"}}},
    {"vhdx", {{0, "vhdxfileM\0i\0"s}}},
    {"dmg", {{5000 - 512, "koly"}}},
    {"lzo", {{0, "\x89LZO\0\r\n\x1A\n"s}}},
    {"lrz", {{0, "LRZI\0\6"s}}},
    {"rz", {{0, "RZIP\2"}}},
    {"zpaq", {{0, "7kSt\xA0\x31\x83\xD3"}}},
    {"zpaq", {{0, "zPQ\1"}}},
    {"zpaq", {{0, "zPQ\2"}}},
    {"zoo", {{20, "\xDC\xA7\xC4\xFD"}}},
    {"ace", {{7, "**ACE**"}}},
    {"sit", {{0, "StuffIt (c)1997-2002"}}},
    {"sit", {{10, "rLau"}}},
    {"sz", {{0, "\xFF\6\0\0sNaPpY"s}}},
    {"sz", {{0, "SZ \x88\xF0\x27\x33\xD1"}}},
    {"pack", {{0, "\x1F\x1E\0\0\0\x40\5"s}}},
    {"sco-lzh", {{0, "\x1F\xA0"}}},
    {"rar", {{0, "RE~^\7\0"s}}},
    {"arc", {{0, "\x1A\x08"s + "a.txt"}}},
    {"dar", {{0, "\0\0\0\x7Blabel_labeTS"s}}},
    {"kwaj", {{0, "KWAJ\x88\xF0\x27\xD1"}}},
    {"installshield", {{0, "ISc("}}},
    {"pmd", {{0, "\x8F\xAF\xAC\x84"}}},
    {"aar", {{0, "AA01\x20\0TYP1"s}}},
    {"aar", {{0, "YAA1\x20\0TYP1"s}}},
    {"pbz", {{0, "pbzx\0\0\0\0\1\0\0\0"s}}},
    {"lzfse", {{0, "bvx2\0\1\0\0"s}}},
};

INSTANTIATE_TEST_SUITE_P(All, KindThatNobodyUnpacks, ::testing::ValuesIn(kKinds),
                         [](const auto& row) { return "Row" + std::to_string(row.index); });

}  // namespace
}  // namespace agent
