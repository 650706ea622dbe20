#include <csignal>
#include <fstream>
#include <thread>

#include "QuarantineFixture.h"
#include "store/FolderWalk.h"
#include "store/Sqlite.h"
#include "support/Reason.h"

namespace agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// The files and links that a second user could plant between two steps.
class LinkTest : public QuarantineTest {
 protected:
  void SetUp() override {
    QuarantineTest::SetUp();
    victim_ = folder_.write("precious/a", "precious");
  }
  void replaceByLink(const std::string& folder) const {
    std::filesystem::rename(folder, folder + ".real");
    std::filesystem::create_symlink(folder_.at("precious"), folder);
  }
  void expectUntouched() const {
    EXPECT_EQ(testsupport::readFile(victim_), "precious");
    EXPECT_THAT(namesIn(folder_.at("precious")), ElementsAre("a"));
  }
  std::string victim_;
};

TEST(FolderWalk, APathThatIsNotAbsoluteLeadsNowhere) {
  for (const std::string path : {"", "relative", "relative/below", "./here"}) {
    EXPECT_EQ(testsupport::reasonOf(store::openFolder(path)),
              "'" + path + "' is not an absolute path without . and ..");
  }
}

TEST_F(LinkTest, AFolderThatBecameALinkBeforeTheFileIsOpenedLeadsToNoOtherFile) {
  const std::string path = write("sub/a", "detected");
  const QuarantineRequest request = requestFor(path);
  replaceByLink(at("sub"));
  const auto result = store().quarantine().add(request);
  EXPECT_FALSE(result);
  expectUntouched();
  EXPECT_EQ(testsupport::readFile(at("sub.real/a")), "detected");
}

class LinkWhileAddingTest : public LinkTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Steps, LinkWhileAddingTest,
                         testing::Values("opened", "copied", "recorded", "named", "moved", "set aside"));

TEST_P(LinkWhileAddingTest, AFolderThatBecomesALinkLosesNothingAndTouchesNothingElse) {
  const std::string path = write("sub/a", "detected");
  before(GetParam(), [&] { replaceByLink(at("sub")); });
  const auto result = add(path);
  EXPECT_TRUE(result) << lineOf(result);
  expectUntouched();
  EXPECT_THAT(namesIn(at("sub.real")), IsEmpty());
  EXPECT_EQ(items().size(), 1U);
  // The original folder is now behind a link: a restore there is refused, elsewhere possible.
  const std::string uuid = uuidOf(path);
  EXPECT_EQ(lineOf(restore(uuid)), "'" + at("sub") + "' is a symbolic link");
  EXPECT_TRUE(restore(uuid, root(), at("sub.real")));
  EXPECT_EQ(testsupport::readFile(at("sub.real/a")), "detected");
  expectUntouched();
}

TEST_F(LinkTest, AFileExchangedBetweenScanAndRemovalIsLeftAlone) {
  for (const char* step : {"opened", "copied", "recorded", "named"}) {
    const std::string path = write("a", "detected");
    before(step, [&] {
      std::filesystem::rename(path, at("moved"));
      write("a", "another file");
    });
    const auto result = add(path);
    EXPECT_FALSE(result) << step;
    EXPECT_EQ(lineOf(result), step == std::string("opened")
                                  ? "it was changed while it was copied"
                                  : "another file took its place while it was handled");
    EXPECT_EQ(testsupport::readFile(path), "another file") << step << ": " << lineOf(result);
    EXPECT_EQ(testsupport::readFile(at("moved")), "detected") << step;
    EXPECT_THAT(namesIn(at("")), ElementsAre("a", "moved")) << step;
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(vaultFiles(), IsEmpty());
  }
}

TEST_F(LinkTest, AFileExchangedForALinkIsLeftAloneAndSoIsWhereItLeads) {
  const std::string path = write("a", "detected");
  before("named", [&] {
    std::filesystem::remove(path);
    std::filesystem::create_symlink(victim_, path);
  });
  EXPECT_FALSE(add(path));
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  expectUntouched();
}

TEST_F(LinkTest, AFileExchangedForALinkToItselfIsNotSaidToBeTaken) {
  const std::string path = write("a", "detected");
  before("named", [&] {
    std::filesystem::rename(path, at("moved"));
    std::filesystem::create_symlink(at("moved"), path);
  });
  EXPECT_FALSE(add(path));
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(testsupport::readFile(at("moved")), "detected");
  EXPECT_THAT(items(), IsEmpty());
}

TEST_F(LinkTest, AFileWrittenToAfterItWasCopiedIsPutBack) {
  for (const char* step : {"copied", "recorded", "named", "moved"}) {
    const std::string path = write("a", "detected");
    std::ofstream writer(path, std::ios::app);
    before(step, [&] { writer << "more" << std::flush; });
    EXPECT_FALSE(add(path)) << step;
    EXPECT_EQ(testsupport::readFile(path), "detectedmore") << step;
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(namesIn(at("")), ElementsAre("a"));
  }
}

TEST_F(LinkTest, AFileThatVanishesUnderItsPrivateNameIsSaidToBeGone) {
  const std::string path = write("victim");
  before("moved", [&] {
    for (const std::string& name : namesIn(at(""))) {
      std::filesystem::remove(at(name));
    }
  });
  EXPECT_EQ(lineOf(add(path)), "it is no longer there");
}

TEST_F(LinkTest, AFileThatTakesTheNameWhileTheOriginalIsRemovedStays) {
  const std::string path = write("a", "detected");
  before("moved", [&] { write("a", "another file"); });
  EXPECT_TRUE(add(path));
  EXPECT_EQ(testsupport::readFile(path), "another file");
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(LinkTest, AnotherFileThatCannotBePutBackIsSaidAndNotLost) {
  const std::string path = write("a", "detected");
  store::stepHook = [&](const char* step) {
    if (step == std::string("named")) {
      std::filesystem::rename(path, at("moved"));
      write("a", "second");
    } else if (step == std::string("moved")) {
      write("a", "third");
    }
  };
  const auto result = add(path);
  store::stepHook = nullptr;
  EXPECT_FALSE(result);
  EXPECT_THAT(lineOf(result), HasSubstr("it stands as '.tav-"));
  EXPECT_EQ(testsupport::readFile(path), "third");
  ASSERT_EQ(namesIn(at("")).size(), 3U);
  EXPECT_EQ(testsupport::readFile(at(namesIn(at(""))[0])), "second");
  EXPECT_EQ(testsupport::readFile(at("moved")), "detected");
}

TEST_F(LinkTest, AFolderThatBecameALinkIsNotRestoredThrough) {
  for (const CallerId& caller : {root(), other()}) {
    const std::string path = write("sub/a", "theirs");
    ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
    const std::string uuid = take(path);
    std::filesystem::remove(victim_);
    replaceByLink(at("sub"));
    EXPECT_EQ(lineOf(restore(uuid, caller)), "'" + at("sub") + "' is a symbolic link");
    EXPECT_EQ(lineOf(restore(uuid, caller, at("sub"))), "'" + at("sub") + "' is a symbolic link");
    EXPECT_THAT(namesIn(folder_.at("precious")), IsEmpty());
    std::filesystem::remove(at("sub"));
    std::filesystem::remove(at("sub.real"));
    victim_ = folder_.write("precious/a", "precious");
    std::filesystem::create_directory(at("sub"));
    EXPECT_TRUE(restore(uuid));
    std::filesystem::remove_all(at("sub"));
  }
}

class LinkWhileRestoringTest : public LinkTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Steps, LinkWhileRestoringTest, testing::Values("restore recorded", "content sent"));

TEST_P(LinkWhileRestoringTest, AFolderThatBecomesALinkIsNotWrittenThrough) {
  const std::string path = write("sub/b", "theirs");
  const std::string uuid = take(path);
  before(GetParam(), [&] { replaceByLink(at("sub")); });
  restore(uuid);
  store::stepHook = nullptr;
  expectUntouched();
  const bool landed = std::filesystem::exists(at("sub.real/b"));
  EXPECT_NE(landed, items().size() == 1U);
}

TEST_F(LinkTest, ALinkAnywhereInThePathIsFoundAndNamed) {
  std::filesystem::create_directories(at("x/y/z"));
  std::filesystem::create_symlink(at("x/y"), at("x/link"));
  const auto folder = store::openFolder(at("x/link/z"));
  ASSERT_FALSE(folder);
  EXPECT_EQ(folder.error(), "'" + at("x/link") + "' is a symbolic link");
  EXPECT_TRUE(store::openFolder(at("x//y/z/")));
}

TEST_F(LinkTest, AFileInThePathIsNoFolderAndNotCalledALink) {
  const std::string file = write("file", "");
  for (const std::string& path : {file, file + "/below"}) {
    EXPECT_EQ(testsupport::reasonOf(store::openFolder(path)), "'" + file + "': Not a directory");
  }
}

TEST_F(LinkTest, WalkLeavesOneDescriptorOpen) {
  const auto open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  std::filesystem::create_directories(at("x/y/z"));
  const auto before = open();
  const auto folder = store::openFolder(at("x/y/z"));
  EXPECT_EQ(open(), before + 1);
  EXPECT_FALSE(store::openFolder(at("x/y/absent")));
  EXPECT_EQ(open(), before + 1);
}

TEST_F(LinkTest, WalkTakesANameAsLongAsNamesMayBe) {
  std::filesystem::create_directory(at(std::string(255, 'x')));
  EXPECT_TRUE(store::openFolder(at(std::string(255, 'x'))));
}

struct Split {
  const char* path;
  const char* folder;
  const char* name;
};
class SplitPathTest : public testing::TestWithParam<Split> {};
INSTANTIATE_TEST_SUITE_P(Paths, SplitPathTest,
                         testing::Values(Split{"/a/b/c", "/a/b", "c"}, Split{"/a", "/", "a"},
                                         Split{"a", "", "a"}));
TEST_P(SplitPathTest, GivesFolderAndName) {
  EXPECT_EQ(platform::splitPath(GetParam().path).folder, GetParam().folder);
  EXPECT_EQ(platform::splitPath(GetParam().path).name, GetParam().name);
}

TEST_F(LinkTest, WalkRefusesDotsRelativePathsFilesAndEndlessNames) {
  folder_.write("file", "");
  std::filesystem::create_directory(at("x"));
  for (const std::string& path : {std::string("relative"), std::string(""), at("../files"), at("./x"),
                                  folder_.at("file"), at(std::string(300, 'x'))}) {
    EXPECT_FALSE(store::openFolder(path)) << path;
  }
  EXPECT_TRUE(store::openFolder("/"));
}

TEST_F(LinkTest, ASecondUserWhoExchangesFilesAllTheTimeLosesOwnFilesOnly) {
  // The user keeps moving two folders and a link to the precious folder during quarantine and restore.
  std::filesystem::create_directories(at("theirs/one"));
  write("theirs/one/a", "detected");
  const pid_t attacker = ::fork();
  if (attacker == 0) {
    ::alarm(60);
    const std::string one = at("theirs/one"), parked = at("theirs/parked"), link = at("theirs/link");
    std::filesystem::create_symlink(folder_.at("precious"), link);
    for (;;) {
      ::rename(one.c_str(), parked.c_str());
      ::rename(link.c_str(), one.c_str());
      ::rename(one.c_str(), link.c_str());
      ::rename(parked.c_str(), one.c_str());
    }
  }
  struct stat precious {};
  ASSERT_EQ(::lstat(victim_.c_str(), &precious), 0);
  for (int i = 0; i < 100; ++i) {
    struct stat st {};
    if (::lstat(at("theirs/one/a").c_str(), &st) == 0 && st.st_ino != precious.st_ino) {
      QuarantineRequest request;
      request.path = at("theirs/one/a");
      request.identity = FileIdentity::of(st);
      store().quarantine().add(request);
    }
    store().quarantine().restore({}, true, false, "", root());
  }
  ::kill(attacker, SIGKILL);
  ::waitpid(attacker, nullptr, 0);
  expectUntouched();
  std::size_t copies = items().size();
  for (const auto& entry : std::filesystem::recursive_directory_iterator(at("theirs"))) {
    copies += entry.is_regular_file() && testsupport::readFile(entry.path()) == "detected" ? 1 : 0;
  }
  EXPECT_EQ(copies, 1U);
}

}  // namespace
}  // namespace agent
