#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "EngineFixture.h"
#include "engine/Digest.h"
#include "engine/SignatureFolder.h"
#include "json/CppJson.h"

#ifdef TAV_SANITIZED
// Of a packed database that is cut, libclamav keeps the memory of a digest.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libcrypto.so\n";
}
#endif

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;

class Signatures : public testing::EngineFixture {
 protected:
  std::string systemFolder() const { return dir().at("system"); }
  void writeSystem(const std::string& name, const std::string& content) {
    dir().write("system/" + name, content);
  }
  std::string copyFolder() const { return dir().at("copy"); }
  void writeCopy(const std::string& name, const std::string& content) {
    dir().write("copy/" + name, content);
  }
  /// Loads our own signatures, those of the system's folder, and copies.
  void loadAll(const std::function<void(const std::string&)>& beforeFile = {}, bool copyForMissing = true) {
    use({testing::kShippedSignatures, systemFolder(), smallLimits(), copyFolder(), copyForMissing,
         beforeFile});
  }
  bool finds(const std::string& content) { return scan(content).outcome == Outcome::kInfected; }
  static std::string hexOf(const std::string& text) { return toHex(text.data(), text.size()); }
  /// A packed database without a digital signature, main.cud.
  static std::string database(const std::string& lines) {
    std::string head = "ClamAV-VDB:22 Nov 2026 10-00 +0000:7:1:90:X:X:test:1795341600";
    const std::string info =
        head + "\nmain.ndb:" + std::to_string(lines.size()) + ":" + sha256Of(lines) + "\n";
    head.resize(512, ' ');
    return head + testsupport::makeGzip(testsupport::makeTar({{"main.info", info}, {"main.ndb", lines}}));
  }
};

TEST_F(Signatures, WithoutASystemFolderOurSignaturesAreLoaded) {
  load(smallLimits(), "/nonexistent");
  EXPECT_TRUE(state().loaded);
  EXPECT_GT(state().count, 0U);
  EXPECT_EQ(state().system, SystemDatabase::kNone);
  EXPECT_THAT(
      state().detail,
      HasSubstr("alone: the system's signatures are not in use: /nonexistent: No such file or directory"));
  EXPECT_EQ(scan(testsupport::eicar()).outcome, Outcome::kInfected);
}

TEST_F(Signatures, WithAnEmptySystemFolderOurSignaturesAreLoaded) {
  std::filesystem::create_directory(systemFolder());
  load(smallLimits(), systemFolder());
  EXPECT_TRUE(state().loaded);
  EXPECT_EQ(state().system, SystemDatabase::kNone);
  EXPECT_EQ(state().shortage,
            "the system's signatures are not in use: " + systemFolder() + ": no signature files");
}

TEST_F(Signatures, TheSystemsSignaturesAreLoadedWithOurs) {
  writeSystem("test.ndb",
              "Other.Trojan.Sample:0:*:"
              "6f6e65206f662074686520737973746d73\n");
  load(smallLimits(), systemFolder());
  EXPECT_EQ(state().system, SystemDatabase::kInForce);
  EXPECT_THAT(state().detail, ::testing::Not(HasSubstr("alone")));
  const Verdict verdict = scan("this is one of the systms");
  ASSERT_EQ(verdict.outcome, Outcome::kInfected) << describe(verdict);
  EXPECT_EQ(verdict.detections[0].engineCode, json::kEngineHc);
  EXPECT_EQ(scan(testsupport::eicar()).outcome, Outcome::kInfected);
}

TEST_F(Signatures, ASystemFolderThatDoesNotLoadIsNamedAndOurSignaturesAreLoaded) {
  writeSystem("broken.ndb", "this is no signature\n");
  load(smallLimits(), systemFolder());
  EXPECT_TRUE(state().loaded);
  EXPECT_EQ(state().system, SystemDatabase::kLeftOut);
  EXPECT_THAT(state().detail,
              HasSubstr("alone: the system's signatures are not in use: broken.ndb is left out"));
  EXPECT_EQ(scan(testsupport::eicar()).outcome, Outcome::kInfected);
}

TEST_F(Signatures, TheReasonOfAFailedLoadComesFromThatLoad) {
  writeSystem("broken.ndb", "this is no signature\n");
  const auto detailNow = [&] {
    return newEngine(testing::kShippedSignatures, systemFolder())->signatures().detail;
  };
  const std::string first = detailNow();
  EXPECT_THAT(first, HasSubstr("(")) << "the library's message";
  load(smallLimits(), systemFolder());
  scan(testsupport::makeZip({{"test.com", testsupport::eicar()}}));
  EXPECT_EQ(detailNow(), first) << "also after a scan";
}

TEST_F(Signatures, AnUnreadableSystemFolderCountsAsLeftOut) {
  const std::string file = dir().write("no-folder", "x");
  load(smallLimits(), file);
  EXPECT_EQ(state().system, SystemDatabase::kLeftOut);
  EXPECT_THAT(state().detail, HasSubstr("alone: the system's signatures are not in use: " + file));
}

TEST_F(Signatures, OnlyFilesWithTheLibrarysEndingsAreSignatureFiles) {
  writeSystem("README.txt", "this is no signature\n");
  writeSystem("folder.ndb/file", "this is no signature\n");
  EXPECT_TRUE(SignatureFolder(systemFolder()).empty());
  EXPECT_FALSE(SignatureFolder(systemFolder()).present());
}

TEST_F(Signatures, EveryEndingThatTheLibraryLoadsIsASignatureFile) {
  std::size_t files = 0;
  for (const char* ending :
       {"cvd", "cld", "cud", "cdb", "db",  "ndb", "ndu", "ldb", "ldu",  "sdb",  "hdb",  "hdu", "hsb",
        "hsu", "mdb", "mdu", "msb", "msu", "fp",  "sfp", "ign", "ign2", "wdb",  "pdb",  "gdb", "zmd",
        "rmd", "idb", "cbc", "ftm", "cfg", "crb", "cat", "ioc", "yar",  "yara", "pwdb", "imp", "NDB"}) {
    writeSystem(std::string("a.") + ending, "");
    EXPECT_EQ(SignatureFolder(systemFolder()).names().size(), ++files) << ending;
  }
}

TEST_F(Signatures, FilesThatChangeTheLoadOfOthersAreLoadedFirst) {
  for (const char* name : {"a.ndb", "b.crb", "c.cfg", "daily.cld", "local.gdb", "main.cvd", "z.ign2"}) {
    writeSystem(name, "");
  }
  EXPECT_THAT(
      SignatureFolder(systemFolder()).names(),
      ::testing::ElementsAre("z.ign2", "daily.cld", "local.gdb", "c.cfg", "b.crb", "a.ndb", "main.cvd"));
}

TEST_F(Signatures, APackedDatabaseMayComparePictures) {
  for (const char* ending : {"cvd", "cld", "cud"}) {
    writeSystem(std::string("main.") + ending, "packed");
    EXPECT_TRUE(comparesPictures(systemFolder() + "/main." + ending)) << ending;
  }
}

TEST_F(Signatures, WithoutOurSignaturesNothingIsLoaded) {
  const auto loaded = Engine::load({dir().at("none"), systemFolder(), smallLimits()});
  ASSERT_FALSE(loaded);
  EXPECT_THAT(loaded.error(), HasSubstr(dir().at("none")));
  dir().write("none/README.txt", "this is no signature\n");
  const auto empty = Engine::load({dir().at("none"), systemFolder(), smallLimits()});
  ASSERT_FALSE(empty);
  EXPECT_THAT(empty.error(), HasSubstr("no signature files"));
}

TEST_F(Signatures, TheVersionChangesWithTheContentOfAFileOnly) {
  const std::string line = "Other.Trojan.Sample:0:*:6f6e65206f66207468652073797374656d73\n";
  writeSystem("test.ndb", line);
  const auto versionNow = [&] {
    return newEngine(testing::kShippedSignatures, systemFolder())->signatures().version;
  };
  const std::string first = versionNow();
  EXPECT_FALSE(first.empty());
  writeSystem("test.ndb", line);  // the same content with another time
  EXPECT_EQ(versionNow(), first);
  writeSystem("test.ndb", line + "# more\n");
  const std::string second = versionNow();
  EXPECT_NE(second, first);
  writeSystem("more.hdb", "0123456789abcdef0123456789abcdef:68:Other.Hash\n");
  EXPECT_NE(versionNow(), second);
}

TEST_F(Signatures, PicturesAreComparedOnlyWhenASignatureComparesThem) {
  const SignatureFolder ours(testing::kShippedSignatures);
  for (const std::string& name : ours.names()) {
    EXPECT_FALSE(comparesPictures(testing::kShippedSignatures + "/" + name)) << name;
  }
  writeSystem("a.ldb", "Other.Picture;Engine:150-255,Target:0;0;fuzzy_img#af2ad01ed42993c7\n");
  EXPECT_TRUE(comparesPictures(systemFolder() + "/a.ldb"));
}

// Signatures of the text "one of the systems", and others.
const std::string kOne = "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n";
const std::string kTwo = "Other.Trojan.Two:0:*:74776f206f66207468652073797374656d73\n";
const std::string kThree = "Other.Trojan.Three:0:*:7468726565206f66207468652073797374656d73\n";
constexpr const char* kSampleOne = "this is one of the systems";
constexpr const char* kSampleTwo = "this is two of the systems";
constexpr const char* kSampleThree = "this is three of the systems";

TEST_F(Signatures, ABrokenFileOfTheSystemIsLeftOutByItsNameAlone) {
  writeSystem("a.ndb", kOne);
  writeSystem("b.ndb", "this is no signature\n");
  writeSystem("c.ndb", kTwo);
  loadAll();
  EXPECT_EQ(state().system, SystemDatabase::kPartly);
  EXPECT_THAT(state().shortage,
              ::testing::StartsWith("not all of the system's signatures are in use: b.ndb is left out: "));
  EXPECT_THAT(state().notInUse, ::testing::ElementsAre("b.ndb"));
  EXPECT_THAT(state().files, ::testing::SizeIs(2));
  EXPECT_TRUE(finds(kSampleOne));
  EXPECT_TRUE(finds(kSampleTwo));
}

TEST_F(Signatures, WhatWasReadOfABrokenFileIsNotInUse) {
  writeSystem("a.ndb", kOne);
  writeSystem("b.ndb", kTwo + "this is no signature\n" + kThree);
  writeSystem("b.fp", "");
  loadAll();
  EXPECT_EQ(state().system, SystemDatabase::kPartly);
  EXPECT_TRUE(finds(kSampleOne));
  EXPECT_FALSE(finds(kSampleTwo)) << "the line before the broken one";
  EXPECT_FALSE(finds(kSampleThree));
  const unsigned long count = state().count;
  std::filesystem::remove(systemFolder() + "/b.ndb");
  loadAll();
  EXPECT_EQ(state().count, count) << "as if the file were not there";
}

TEST_F(Signatures, ManyBrokenFilesAreAllLeftOutAndTheFirstAreNamed) {
  writeSystem("good.ndb", kOne);
  for (int i = 10; i < 40; ++i) {
    writeSystem("bad" + std::to_string(i) + ".ndb", "this is no signature\n");
  }
  int loads = 0;
  loadAll([&](const std::string& path) { loads += path.ends_with("good.ndb") ? 1 : 0; });
  EXPECT_EQ(loads, 2) << "alone, and with ours";
  EXPECT_THAT(state().shortage, HasSubstr("bad10.ndb is left out"));
  EXPECT_THAT(state().shortage, HasSubstr("bad17.ndb is left out"));
  EXPECT_THAT(state().shortage, ::testing::EndsWith("; and 22 more"));
  EXPECT_THAT(state().notInUse, ::testing::SizeIs(30));
  EXPECT_TRUE(finds(kSampleOne));
}

TEST_F(Signatures, WhatIsNoFileIsLeftOutByItsName) {
  writeSystem("a.ndb", kOne);
  std::filesystem::create_symlink("nowhere", systemFolder() + "/dangling.ndb");
  ASSERT_EQ(mkfifo((systemFolder() + "/pipe.ndb").c_str(), 0644), 0);
  loadAll();
  EXPECT_THAT(state().shortage, HasSubstr("dangling.ndb is left out: No such file or directory"));
  EXPECT_THAT(state().shortage, HasSubstr("pipe.ndb is left out: not a regular file"));
  EXPECT_TRUE(finds(kSampleOne));
}

TEST_F(Signatures, ANameWithALineEndIsVisibleInTheState) {
  writeSystem("a\nb.ndb", "this is no signature\n");
  loadAll();
  EXPECT_THAT(state().shortage, HasSubstr("a\\nb.ndb is left out"));
  EXPECT_THAT(state().detail, ::testing::Not(HasSubstr("\n")));
}

TEST_F(Signatures, TheLastGoodCopyServesForABrokenFile) {
  writeSystem("a.ndb", kOne);
  writeSystem("b.ndb", kThree + "this is no signature\n");
  writeCopy("a.ndb", kThree);
  writeCopy("b.ndb", kTwo);
  loadAll();
  EXPECT_EQ(state().system, SystemDatabase::kPartly);
  EXPECT_THAT(state().shortage, ::testing::EndsWith(", and the last good copy is in use"));
  EXPECT_THAT(state().copies, ::testing::ElementsAre("b.ndb"));
  EXPECT_TRUE(finds(kSampleOne));
  EXPECT_TRUE(finds(kSampleTwo));
  EXPECT_FALSE(finds(kSampleThree)) << "neither of the broken file nor of the other's copy";
}

TEST_F(Signatures, TheLastGoodCopyServesForAMissingFile) {
  writeSystem("a.ndb", kOne);
  writeCopy("b.ndb", kTwo);
  loadAll();
  EXPECT_EQ(
      state().shortage,
      "not all of the system's signatures are in use: b.ndb is missing, and the last good copy is in use");
  EXPECT_TRUE(finds(kSampleTwo));
  loadAll({}, false);
  EXPECT_EQ(state().shortage, "");
  EXPECT_FALSE(finds(kSampleTwo)) << "a file that was removed on purpose";
}

TEST_F(Signatures, TheLastGoodCopyServesForAMissingFolder) {
  writeCopy("a.ndb", kOne);
  loadAll();
  EXPECT_EQ(state().system, SystemDatabase::kPartly);
  EXPECT_THAT(state().shortage, HasSubstr(systemFolder() + ": No such file or directory; a.ndb is missing"));
  EXPECT_TRUE(finds(kSampleOne));
}

TEST_F(Signatures, ABrokenCopyIsLeftOutToo) {
  writeSystem("a.ndb", "this is no signature\n");
  writeSystem("b.ndb", kTwo);
  writeCopy("a.ndb", "neither is this\n");
  loadAll();
  EXPECT_THAT(state().shortage, HasSubstr("; the copy of a.ndb is left out: "));
  EXPECT_THAT(state().copies, ::testing::IsEmpty());
  EXPECT_TRUE(finds(kSampleTwo));
}

// libclamav loads the lines that are there, and of the last line what is left of the pattern.
TEST_F(Signatures, AFileThatIsCutOffWithinALineIsLeftOutWhereItsCopyTells) {
  writeSystem("a.ndb", (kOne + kTwo).substr(0, kOne.size() + kTwo.find(":*:") + 3 + 8));
  loadAll();
  ASSERT_EQ(state().shortage, "") << "nothing tells";
  writeCopy("a.ndb", kOne + kTwo);
  loadAll();
  EXPECT_THAT(state().shortage,
              HasSubstr("a.ndb is left out: the file is cut off, and the last good copy is in use"));
  EXPECT_TRUE(finds(kSampleTwo));
  writeSystem("a.ndb", kOne);
  loadAll();
  EXPECT_EQ(state().shortage, "") << "lines that were taken away";
}

TEST_F(Signatures, AFileThatIsCutToNothingIsLeftOut) {
  writeSystem("a.ndb", "");
  writeSystem("b.ndb", kTwo);
  loadAll();
  EXPECT_THAT(state().shortage, HasSubstr("a.ndb is left out: "));
  EXPECT_TRUE(finds(kSampleTwo));
}

TEST_F(Signatures, ACutPackedDatabaseIsLeftOut) {
  std::string lines;
  for (int i = 0; i < 2000; ++i) {
    lines +=
        "Other.Trojan.N" + std::to_string(i) + ":0:*:" + hexOf("number " + std::to_string(i * 7919)) + "\n";
  }
  const std::string whole = database(kOne + lines);
  writeSystem("main.cud", whole);
  loadAll();
  ASSERT_EQ(state().shortage, "");
  ASSERT_TRUE(finds(kSampleOne));
  writeSystem("a.ndb", kTwo);
  for (const std::size_t size : {whole.size() - 100, whole.size() / 2, std::size_t{600}, std::size_t{100}}) {
    writeSystem("main.cud", whole.substr(0, size));
    loadAll();
    EXPECT_THAT(state().shortage, HasSubstr("main.cud is left out: ")) << size;
    EXPECT_FALSE(finds(kSampleOne)) << size;
    EXPECT_TRUE(finds(kSampleTwo)) << size;
  }
}

TEST_F(Signatures, AFileThatChangesDuringTheLoadIsLoadedAgain) {
  writeSystem("a.ndb", kOne);
  writeSystem("b.ndb", kTwo + "half a fi");
  int changes = 0;
  loadAll([&](const std::string& path) {
    if (path == systemFolder() + "/b.ndb" && changes++ == 0) {
      dir().write("new", kThree);
    } else if (changes == 1) {
      std::filesystem::rename(dir().at("new"), systemFolder() + "/b.ndb");
      ++changes;
    }
  });
  EXPECT_EQ(state().shortage, "");
  EXPECT_TRUE(finds(kSampleThree)) << "the file that was renamed into place";
  EXPECT_FALSE(finds(kSampleTwo));
}

TEST_F(Signatures, AFolderThatChangesDuringEveryLoadIsSaid) {
  writeSystem("a.ndb", kOne);
  int changes = 0;
  loadAll([&](const std::string& path) {
    if (path == systemFolder() + "/a.ndb") {
      writeSystem("a.ndb", kOne + "# " + std::to_string(++changes) + "\n");
    }
  });
  EXPECT_EQ(changes, 3);
  EXPECT_EQ(state().shortage, "the signature files changed during each of 3 loads");
  EXPECT_THAT(state().files, ::testing::IsEmpty()) << "no copy is made of them";
  EXPECT_TRUE(finds(kSampleOne));
}

TEST_F(Signatures, TheVersionChangesWithALimit) {
  EngineLimits limits = smallLimits();
  const std::string first =
      newEngine(testing::kShippedSignatures, "/nonexistent", limits)->signatures().version;
  limits.maxRecursion += 1;
  const auto other = newEngine(testing::kShippedSignatures, "/nonexistent", limits);
  EXPECT_NE(other->signatures().version, first);
  EXPECT_THAT(other->signatures().rules, HasSubstr("libclamav "));
  EXPECT_THAT(other->signatures().limits, HasSubstr("depth 13"));
}

TEST_F(Signatures, NoFileOfOurSignaturesIsATestFile) {
  for (const auto& entry : std::filesystem::directory_iterator(testing::kShippedSignatures)) {
    const Verdict verdict = scanPath(entry.path().string());
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << entry.path() << describe(verdict);
  }
  const Verdict program = scanPath("/proc/self/exe");
  EXPECT_NE(program.outcome, Outcome::kInfected) << describe(program);
}

}  // namespace
}  // namespace agent
