#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "SocketFolder.h"
#include "lunet/BusConfig.h"
#include "support/Json.h"
#include "support/TempDir.h"

using lunet::checkFolder;
using lunet::prepareFolder;
using lunet::SocketFolder;

namespace {

constexpr gid_t kGroup = 100;

struct Status {
  uid_t uid;
  gid_t gid;
  unsigned mode;
};

/// The reason why a folder is refused; "" for one that is accepted.
std::string reasonOf(const lunet::Result<uid_t>& checked) {
  return checked ? "" : checked.error().reason;
}

lunet::Error errorOf(const lunet::Result<uid_t>& checked) {
  return checked ? lunet::kOk : checked.error().error;
}

Status statusOf(const std::string& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return {st.st_uid, st.st_gid, st.st_mode & 07777u};
}

}  // namespace

struct DirectoryRow {
  const char* name;
  const char* runtime;
  const char* config;
  const char* expected;
};

class SocketDirectoryTest : public testing::TestWithParam<DirectoryRow> {};

TEST_P(SocketDirectoryTest, IsAsConfigured) {
  EXPECT_EQ(lunet::socketDirectory(GetParam().runtime,
                                   testsupport::tryJson(GetParam().config).value_or(Json::Value())),
            GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SocketDirectoryTest,
    testing::Values(
        DirectoryRow{"ByDefaultBelowTheTree", "/opt/tree", "{}", "/opt/tree/run/lunet"},
        DirectoryRow{"WithoutATreeItIsNotAnAbsolutePath", "", "{}", "run/lunet"},
        DirectoryRow{"AnEmptyTextCountsAsNoSettings", "/opt/tree", "", "/opt/tree/run/lunet"},
        DirectoryRow{"AnUnreadableTextCountsAsNoSettings", "/opt/tree", "{", "/opt/tree/run/lunet"},
        DirectoryRow{"ATextThatIsNoObjectToo", "/opt/tree", "[1]", "/opt/tree/run/lunet"},
        DirectoryRow{"AnEmptyNameToo", "/opt/tree", R"({"socket_dir":""})", "/opt/tree/run/lunet"},
        DirectoryRow{"ARelativeNameLiesBelowTheTree", "/opt/tree/", R"({"socket_dir":"s"})", "/opt/tree/s"},
        DirectoryRow{"AnAbsoluteNameStandsAlone", "/opt/tree", R"({"socket_dir":"/run/x/"})", "/run/x"}),
    [](const auto& row) { return std::string(row.param.name); });

class SocketFolderTest : public testing::Test {
 protected:
  testsupport::TempDir dir;
};

TEST_F(SocketFolderTest, IsMadePrivateWithoutAGroupWhateverTheUmask) {
  const SocketFolder folder{dir.at("run/lunet"), std::nullopt};
  const mode_t before = umask(0);
  EXPECT_EQ(reasonOf(prepareFolder(folder)), "");
  umask(before);
  EXPECT_EQ(statusOf(dir.at("run")).mode, 0755u);
  EXPECT_EQ(statusOf(folder.path).mode, 0700u);
  EXPECT_EQ(statusOf(folder.path).uid, geteuid());
}

TEST_F(SocketFolderTest, IsMadeForItsGroupWithOne) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a group that is not its own";
  }
  const SocketFolder folder{dir.at("run/lunet"), kGroup};
  EXPECT_EQ(reasonOf(prepareFolder(folder)), "");
  EXPECT_EQ(statusOf(folder.path).mode, 03770u);
  EXPECT_EQ(statusOf(folder.path).gid, kGroup);
}

TEST_F(SocketFolderTest, ThatStandsOtherwiseIsSetRightByItsOwner) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a group that is not its own";
  }
  const SocketFolder shared{dir.at("lunet"), kGroup};
  ASSERT_EQ(errorOf(prepareFolder(shared)), lunet::kOk);
  const SocketFolder closed{dir.at("lunet"), std::nullopt};
  EXPECT_EQ(errorOf(checkFolder(closed)), lunet::kErrPath);
  EXPECT_EQ(errorOf(prepareFolder(closed)), lunet::kOk);
  EXPECT_EQ(statusOf(closed.path).mode, 0700u);
  EXPECT_EQ(statusOf(closed.path).gid, kGroup) << "a group matters to a shared folder only";
}

TEST_F(SocketFolderTest, ThatHoldsFilesOfABusOnlyIsSetRight) {
  const std::string name = std::string("lunet/") + lunet::kAgentGuid;
  for (const char* ending : {".sock", ".lock", ".new", ".mark", ".someone.bad"}) {
    dir.write(name + ending, "");
  }
  ASSERT_EQ(chmod(dir.at("lunet").c_str(), 0755), 0);
  EXPECT_EQ(reasonOf(prepareFolder({dir.at("lunet"), std::nullopt})), "");
  EXPECT_EQ(statusOf(dir.at("lunet")).mode, 0700u);
}

TEST_F(SocketFolderTest, ThatHoldsOtherFilesIsLeftAsItIsAndRefused) {
  dir.write("lunet/passwd.lock", "");
  ASSERT_EQ(chmod(dir.at("lunet").c_str(), 0755), 0);
  const Status before = statusOf(dir.at("lunet"));
  for (const std::optional<gid_t> group : {std::optional<gid_t>(), std::optional<gid_t>(kGroup)}) {
    const lunet::Result<uid_t> check = prepareFolder({dir.at("lunet"), group});
    EXPECT_EQ(errorOf(check), lunet::kErrPath);
    EXPECT_NE(reasonOf(check).find("it holds other files"), std::string::npos) << reasonOf(check);
    EXPECT_EQ(statusOf(dir.at("lunet")).mode, before.mode);
    EXPECT_EQ(statusOf(dir.at("lunet")).gid, before.gid);
  }
}

TEST_F(SocketFolderTest, OfAFileThatOnlyLooksLikeOneOfABusIsLeftAsItIs) {
  const std::string guid = lunet::kAgentGuid;
  for (const std::string& name :
       {std::string("x.sock"), std::string("x.new"), std::string("x.mark"), std::string("notes.bad"),
        std::string(".bad"), std::string("README"), guid, guid + ".txt", guid + ".sock.txt"}) {
    testsupport::TempDir own;
    own.write("lunet/" + name, "");
    ASSERT_EQ(chmod(own.at("lunet").c_str(), 0755), 0);
    EXPECT_EQ(errorOf(prepareFolder({own.at("lunet"), std::nullopt})), lunet::kErrPath) << name;
    EXPECT_EQ(statusOf(own.at("lunet")).mode, 0755u) << name;
  }
}

TEST_F(SocketFolderTest, OfAnotherGroupThatHoldsOtherFilesIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a group that is not its own";
  }
  dir.write("lunet/other", "");
  ASSERT_EQ(chown(dir.at("lunet").c_str(), 0, kGroup + 1), 0);
  ASSERT_EQ(chmod(dir.at("lunet").c_str(), 03770), 0);
  const lunet::Result<uid_t> check = prepareFolder({dir.at("lunet"), kGroup});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("has group 101"), std::string::npos) << reasonOf(check);
  EXPECT_EQ(statusOf(dir.at("lunet")).gid, kGroup + 1);
}

TEST_F(SocketFolderTest, ThatCannotBeMadeIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become a second user";
  }
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const auto refused = [this] {
    const bool other = setresuid(12345, 12345, 12345) == 0;
    return other && errorOf(prepareFolder({dir.at("lunet"), std::nullopt})) == lunet::kErrPath;
  };
  EXPECT_EXIT(_exit(refused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(SocketAddressTest, HoldsTheSystemsLimitAndNotMore) {
  ASSERT_TRUE(lunet::socketAddress(std::string(107, 'a')));
  EXPECT_EQ(std::string(lunet::socketAddress(std::string(107, 'a'))->sun_path), std::string(107, 'a'));
  EXPECT_FALSE(lunet::socketAddress(std::string(108, 'a')));
}

TEST_F(SocketFolderTest, ThatHoldsOtherFilesIsUsedWhenItIsAsItMustBe) {
  dir.write("lunet/other", "");
  ASSERT_EQ(chmod(dir.at("lunet").c_str(), 0700), 0);
  EXPECT_EQ(reasonOf(prepareFolder({dir.at("lunet"), std::nullopt})), "");
}

TEST_F(SocketFolderTest, OfAnotherUserIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a second user";
  }
  std::filesystem::create_directory(dir.at("lunet"));
  ASSERT_EQ(chown(dir.at("lunet").c_str(), 12345, 12345), 0);
  const lunet::Result<uid_t> check = prepareFolder({dir.at("lunet"), std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("belongs to user 12345"), std::string::npos) << reasonOf(check);
}

TEST_F(SocketFolderTest, BelowAFolderThatOthersCanWriteIsRefused) {
  std::filesystem::create_directory(dir.at("open"));
  ASSERT_EQ(chmod(dir.at("open").c_str(), 0777), 0);
  const lunet::Result<uid_t> check = prepareFolder({dir.at("open/lunet"), std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("can be written by others"), std::string::npos) << reasonOf(check);
}

TEST_F(SocketFolderTest, BelowAnotherUsersLinkIsNeitherMadeNorUsed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  std::filesystem::create_directory(dir.at("real"));
  std::filesystem::create_symlink("real", dir.at("run"));
  ASSERT_EQ(lchown(dir.at("run").c_str(), 12345, 12345), 0);
  lunet::Result<uid_t> check = prepareFolder({dir.at("run/lunet"), std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("run belongs to user 12345"), std::string::npos) << reasonOf(check);
  EXPECT_TRUE(std::filesystem::is_empty(dir.at("real")));
  ASSERT_EQ(reasonOf(prepareFolder({dir.at("real/lunet"), std::nullopt})), "");
  check = checkFolder({dir.at("run/lunet"), std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
}

TEST_F(SocketFolderTest, BelowALinkOfItsUsersIsUsed) {
  std::filesystem::create_directory(dir.at("real"));
  std::filesystem::create_symlink("real", dir.at("run"));
  EXPECT_EQ(reasonOf(prepareFolder({dir.at("run/lunet"), std::nullopt})), "");
  EXPECT_TRUE(std::filesystem::exists(dir.at("real/lunet")));
}

TEST_F(SocketFolderTest, ThatIsALinkIsRefused) {
  std::filesystem::create_directory(dir.at("real"));
  ASSERT_EQ(chmod(dir.at("real").c_str(), 0700), 0);  // the right mode
  std::filesystem::create_symlink(dir.at("real"), dir.at("lunet"));
  EXPECT_EQ(errorOf(checkFolder({dir.at("lunet"), std::nullopt})), lunet::kErrPath);
  EXPECT_EQ(errorOf(prepareFolder({dir.at("lunet"), std::nullopt})), lunet::kErrPath);
}

TEST_F(SocketFolderTest, ThatIsAFileIsRefused) {
  dir.write("lunet", "x");
  EXPECT_EQ(errorOf(prepareFolder({dir.at("lunet"), std::nullopt})), lunet::kErrPath);
  const lunet::Result<uid_t> check = checkFolder({dir.at("lunet"), std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("Not a directory"), std::string::npos) << reasonOf(check);
}

TEST_F(SocketFolderTest, ThatDoesNotExistMeansThatNobodyIsThere) {
  EXPECT_EQ(errorOf(checkFolder({dir.at("lunet"), std::nullopt})), lunet::kErrNoTarget);
}

TEST_F(SocketFolderTest, WhosePathsWouldPassTheLimitIsRefusedWithBothNumbers) {
  const std::size_t most = 107 - (1 + 36 + 5);  // "/<GUID>.sock"
  std::string path = dir.path() + "/" + std::string(most - dir.path().size() - 1, 'a');
  EXPECT_EQ(reasonOf(prepareFolder({path, std::nullopt})), "");
  path += 'a';
  const lunet::Result<uid_t> check = prepareFolder({path, std::nullopt});
  EXPECT_EQ(errorOf(check), lunet::kErrPath);
  EXPECT_NE(reasonOf(check).find("108 bytes"), std::string::npos) << reasonOf(check);
  EXPECT_NE(reasonOf(check).find("107"), std::string::npos) << reasonOf(check);
  EXPECT_NE(reasonOf(check).find("socket_dir"), std::string::npos) << reasonOf(check);
}
