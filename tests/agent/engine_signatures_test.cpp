#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "EngineFixture.h"
#include "engine/SignatureFolder.h"
#include "json/CppJson.h"

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
};

TEST_F(Signatures, WithoutASystemFolderOurSignaturesAreLoaded) {
  load(smallLimits(), "/nonexistent");
  EXPECT_TRUE(state().loaded);
  EXPECT_GT(state().count, 0U);
  EXPECT_EQ(state().system, SystemDatabase::kNone);
  EXPECT_THAT(state().detail, HasSubstr("alone: /nonexistent: No such file or directory"));
  EXPECT_EQ(scan(testsupport::eicar()).outcome, Outcome::kInfected);
}

TEST_F(Signatures, WithAnEmptySystemFolderOurSignaturesAreLoaded) {
  std::filesystem::create_directory(systemFolder());
  load(smallLimits(), systemFolder());
  EXPECT_TRUE(state().loaded);
  EXPECT_EQ(state().system, SystemDatabase::kNone);
  EXPECT_THAT(state().detail, HasSubstr("no signature files"));
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
  EXPECT_THAT(state().detail, HasSubstr("alone: " + systemFolder()));
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
  EXPECT_THAT(state().detail, HasSubstr("alone: " + file));
}

TEST_F(Signatures, OnlyFilesWithTheLibrarysEndingsAreSignatureFiles) {
  writeSystem("README.txt", "this is no signature\n");
  writeSystem("folder.ndb/file", "this is no signature\n");
  EXPECT_TRUE(SignatureFolder(systemFolder()).empty());
  EXPECT_FALSE(SignatureFolder(systemFolder()).present());
}

TEST_F(Signatures, EveryEndingThatTheLibraryLoadsIsInTheKeyOfAFolder) {
  for (const char* ending :
       {"cvd", "cld", "cud", "cdb", "db",  "ndb", "ndu", "ldb", "ldu", "sdb",  "hdb", "hdu",
        "hsb", "hsu", "mdb", "mdu", "msb", "msu", "fp",  "sfp", "ign", "ign2", "wdb", "pdb",
        "gdb", "zmd", "rmd", "idb", "cbc", "ftm", "cfg", "crb", "cat", "ioc",  "yar", "yara"}) {
    const std::string folder = dir().at(std::string("of ") + ending);
    dir().write(std::string("of ") + ending + "/a." + ending, "");
    EXPECT_THAT(SignatureFolder(folder).contentKey(), HasSubstr(std::string("a.") + ending + " ")) << ending;
  }
}

TEST_F(Signatures, TheKeyOfAFolderNamesItsFilesInOrder) {
  std::vector<std::string> names;
  for (char name = 'a'; name <= 'p'; ++name) {
    names.push_back(systemFolder() + "/" + name + ".hdb ");
    writeSystem(std::string(1, static_cast<char>('a' + 'p' - name)) + ".hdb", "");
  }
  std::istringstream lines(SignatureFolder(systemFolder()).contentKey());
  std::string line;
  for (const std::string& name : names) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, ::testing::StartsWith(name));
  }
  EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(Signatures, APackedDatabaseMayComparePictures) {
  EXPECT_FALSE(SignatureFolder(systemFolder()).comparesPictures());
  for (const char* ending : {"cvd", "cld", "cud"}) {
    dir().write(std::string(ending) + "/main." + ending, "packed");
    EXPECT_TRUE(SignatureFolder(dir().at(ending)).comparesPictures()) << ending;
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
  writeSystem("more.hdb", "");
  EXPECT_NE(versionNow(), second);
}

TEST_F(Signatures, PicturesAreComparedOnlyWhenASignatureComparesThem) {
  EXPECT_FALSE(SignatureFolder(testing::kShippedSignatures).comparesPictures());
  writeSystem("a.ldb", "Other.Picture;Engine:150-255,Target:0;0;fuzzy_img#af2ad01ed42993c7\n");
  EXPECT_TRUE(SignatureFolder(systemFolder()).comparesPictures());
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
