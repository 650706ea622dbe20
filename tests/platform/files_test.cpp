#include "platform/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <tuple>
#include <utility>

#include "platform/Posix.h"
#include "support/FileCalls.h"
#include "support/TempDir.h"

namespace {
std::function<void(const std::string&)> gBeforeMkdir;  ///< the action of another user just before mkdir
}

/// Replaces the function of the C library.
extern "C" int mkdir(const char* path, mode_t mode) noexcept {
  if (const auto then = std::exchange(gBeforeMkdir, nullptr)) {
    then(path);
  }
  return static_cast<int>(syscall(SYS_mkdir, path, mode));
}

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testsupport::FileCalls;
using testsupport::readFile;
using testsupport::TempDir;

TEST(FileInfo, DistinguishesFilesFoldersAndNothing) {
  const TempDir dir;
  const std::string file = dir.write("f", "x");
  EXPECT_TRUE(CFileInfo(file).exists());
  EXPECT_TRUE(CFileInfo(file).isFile());
  EXPECT_FALSE(CFileInfo(file).isDir());
  EXPECT_TRUE(CFileInfo(dir.path()).isDir());
  EXPECT_FALSE(CFileInfo(dir.path()).isFile());
  EXPECT_FALSE(CFileInfo(dir.at("absent")).exists());
}

struct NameCase {
  const char* path;
  const char* name;
};
class FileName : public testing::TestWithParam<NameCase> {};
TEST_P(FileName, IsTheLastComponent) {
  EXPECT_EQ(CFileInfo(GetParam().path).fileName(), GetParam().name);
}
INSTANTIATE_TEST_SUITE_P(Paths, FileName,
                         testing::Values(NameCase{"/a/b.txt", "b.txt"}, NameCase{"b", "b"},
                                         NameCase{"/a/b/", "b"}, NameCase{"/", "/"}, NameCase{"", ""},
                                         NameCase{"/病毒.zip", "病毒.zip"}));

TEST(File, ReplacingPutsTheWholeContentInPlaceWithTheModeGiven) {
  const TempDir dir;
  const std::string path = dir.write("f", "old");
  const std::string content("new\0text", 8);
  EXPECT_EQ(CFile::replaceAtomically(path, content, 0600), 0);
  EXPECT_EQ(CFile::readAll(path), content);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(File, ReplacingSyncsTheContentBeforeTheNameAndTheFolderBehindIt) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("folder").c_str(), 0700), 0);
  const FileCalls calls;
  EXPECT_EQ(CFile::replaceAtomically(dir.at("folder/f"), "new", 0600), 0);
  EXPECT_THAT(calls.seen(),
              ElementsAre("write .tmp-ID", "sync .tmp-ID", "rename .tmp-ID to f", "sync folder"));
}

TEST(File, ReplacingGivesTheModeWhateverTheMask) {
  const TempDir dir;
  const mode_t before = umask(077);
  EXPECT_EQ(CFile::replaceAtomically(dir.at("f"), "new", 0644), 0);
  umask(before);
  struct stat st {};
  ASSERT_EQ(stat(dir.at("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(File, AFileThatIsNotWholeYetIsReadableForItsOwnerOnly) {
  const TempDir dir;
  const pid_t child = fork();
  if (child == 0) {
    umask(0);
    FileCalls calls;
    const rlimit none{0, 0};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &none);
    calls.fail("unlink .tmp-", "", EPERM);  // the temporary file stays for a look at its mode
    _exit(CFile::replaceAtomically(dir.at("f"), "new", 0644));
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), EFBIG);
  const auto left = *std::filesystem::directory_iterator(dir.path());
  EXPECT_EQ(left.status().permissions(), std::filesystem::perms(0600));
}

TEST(File, ASignalDuringAReadOrWriteCostsNothing) {
  const TempDir dir;
  FileCalls calls;
  calls.fail("write .tmp-", "", EINTR, 1);
  EXPECT_EQ(CFile::replaceAtomically(dir.at("f"), "new", 0600), 0);
  calls.fail("read f", "", EINTR, 1);
  EXPECT_EQ(CFile::readAll(dir.at("f")), "new");
  EXPECT_THAT(calls.seen(), Not(Contains(HasSubstr("open for children"))));
}

TEST(ReadFully, GoesOnBehindAReadThatGaveLess) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);  // a read gives one packet
  const platform::Descriptor out(ends[0]);
  const platform::Descriptor in(ends[1]);
  for (const char* packet : {"ab", "c", "def"}) {
    ASSERT_EQ(platform::writeAll(out.get(), packet), 0);
  }
  char bytes[6];
  EXPECT_EQ(platform::readFully(in.get(), bytes, sizeof bytes), 6);
  EXPECT_EQ(std::string(bytes, sizeof bytes), "abcdef");
}

TEST(SplitPath, AndJoinPathUndoEachOther) {
  const std::tuple<const char*, const char*, const char*> rows[] = {{"/name", "/", "name"},
                                                                    {"/a/name", "/a", "name"},
                                                                    {"/a/b c/name", "/a/b c", "name"},
                                                                    {"/a/", "/a", ""}};
  for (const auto& [path, folder, name] : rows) {
    const platform::SplitPath split = platform::splitPath(path);
    EXPECT_EQ(split.folder, folder) << path;
    EXPECT_EQ(split.name, name) << path;
    EXPECT_EQ(platform::joinPath(folder, name), path);
  }
  EXPECT_EQ(platform::splitPath("name").folder, "");
  EXPECT_EQ(platform::splitPath("name").name, "name");
}

TEST(File, AReadThatFailsGivesTheReason) {
  const TempDir dir;
  const std::string path = dir.write("f", "content");
  FileCalls calls;
  calls.fail("read f", "", EIO);
  EXPECT_EQ(CFile::readAll(path), tl::unexpected(EIO));
}

struct FailingCall {
  const char* name;
  const char* begin;
  int error;
};
class FailedReplacing : public testing::TestWithParam<FailingCall> {};
TEST_P(FailedReplacing, LeavesTheOldFileAndNothingBesideAndGivesTheReason) {
  const TempDir dir;
  const std::string path = dir.write("f", "old");
  FileCalls calls;
  calls.fail(GetParam().begin, "", GetParam().error);
  EXPECT_EQ(CFile::replaceAtomically(path, "new", 0600), GetParam().error);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}
INSTANTIATE_TEST_SUITE_P(Calls, FailedReplacing,
                         testing::Values(FailingCall{"Write", "write .tmp-", ENOSPC},
                                         FailingCall{"Sync", "sync .tmp-", EIO},
                                         FailingCall{"Rename", "rename .tmp-", EXDEV}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(File, ReplacingALinkReplacesTheLinkAndNotItsTarget) {
  const TempDir dir;
  const std::string victim = dir.write("victim", "precious");
  ASSERT_EQ(symlink(victim.c_str(), dir.at("f").c_str()), 0);
  EXPECT_EQ(CFile::replaceAtomically(dir.at("f"), "new", 0600), 0);
  EXPECT_EQ(readFile(victim), "precious");
  EXPECT_EQ(readFile(dir.at("f")), "new");
}

TEST(File, AWriteThatFailsLeavesTheOldFileWholeAndNothingBeside) {
  const TempDir dir;
  const std::string path = dir.write("f", "old");
  const pid_t child = fork();
  if (child == 0) {  // like a full disk
    const rlimit limit{100, 100};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(CFile::replaceAtomically(path, std::string(1000, 'x'), 0600));
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), EFBIG);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(File, ReplacingInAMissingFolderFailsWithTheReason) {
  const TempDir dir;
  EXPECT_EQ(CFile::replaceAtomically(dir.at("absent/f"), "x", 0600), ENOENT);
  EXPECT_EQ(CFile::replaceAtomically(dir.path() + "/", "x", 0600), EISDIR);
  EXPECT_EQ(CFile::replaceAtomically("/proc/f", "x", 0600), ENOENT) << "nobody makes files there";
}

TEST(File, ReplacingInAFolderThatMayBeWrittenButNotReadPutsTheFileInPlace) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("drop").c_str(), 0700), 0);
  const pid_t child = fork();
  if (child == 0) {
    int error = chdir(dir.at("drop").c_str()) != 0 || chmod(".", 0300) != 0 ? errno : 0;
    if (error == 0 && geteuid() == 0 && (chown(".", 54321, 54321) != 0 || setuid(54321) != 0)) {
      error = errno;  // root reads every folder
    }
    _exit(error != 0 ? error : CFile::replaceAtomically("f", "new", 0600));
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << std::strerror(WEXITSTATUS(status));
  ASSERT_EQ(chmod(dir.at("drop").c_str(), 0700), 0);
  EXPECT_EQ(readFile(dir.at("drop/f")), "new");
}

/// The sync of the folder fails with the error.
class FolderSync : public testing::TestWithParam<int> {
 protected:
  FolderSync() { calls_.fail("sync tavtest-", "", GetParam()); }
  const TempDir dir_;
  FileCalls calls_;
};

class NoFolderSync : public FolderSync {};
TEST_P(NoFolderSync, OfTheFileSystemIsNoFailureToReplace) {
  EXPECT_EQ(CFile::replaceAtomically(dir_.at("f"), "new", 0600), 0);
  EXPECT_EQ(readFile(dir_.at("f")), "new");
}
INSTANTIATE_TEST_SUITE_P(Errors, NoFolderSync, testing::Values(EINVAL, ENOTSUP),
                         [](const auto& row) { return std::string(strerrorname_np(row.param)); });

class FailedFolderSync : public FolderSync {};
TEST_P(FailedFolderSync, IsReportedThoughTheFileIsInPlace) {
  EXPECT_EQ(CFile::replaceAtomically(dir_.at("f"), "new", 0600), GetParam());
  EXPECT_EQ(readFile(dir_.at("f")), "new");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}
INSTANTIATE_TEST_SUITE_P(Errors, FailedFolderSync, testing::Values(EIO, ENOSPC),
                         [](const auto& row) { return std::string(strerrorname_np(row.param)); });

TEST(File, LargerThanTheLimitIsNotRead) {
  const TempDir dir;
  const std::string path = dir.write("f", std::string(40000, 'x'));
  EXPECT_EQ(CFile::readAll(path, 40000).value_or("").size(), 40000U);
  EXPECT_EQ(CFile::readAll(path, 39999), tl::unexpected(EFBIG));
}

TEST(File, OfSixteenMebibytesIsReadAndOfMoreOnlyWhenAskedFor) {
  const TempDir dir;
  const std::string path = dir.write("f", "");
  ASSERT_EQ(truncate(path.c_str(), 16 << 20), 0);
  EXPECT_EQ(CFile::readAll(path).value_or("").size(), 16U << 20);
  ASSERT_EQ(truncate(path.c_str(), (16 << 20) + 1), 0);
  EXPECT_EQ(CFile::readAll(path), tl::unexpected(EFBIG));
  EXPECT_EQ(CFile::readAll(path, 17 << 20).value_or("").size(), (16U << 20) + 1);
}

TEST(File, WhatIsNoRegularFileIsNotRead) {
  const TempDir dir;
  ASSERT_EQ(symlink("/dev/zero", dir.at("endless").c_str()), 0);
  EXPECT_EQ(CFile::readAll(dir.at("endless")), tl::unexpected(EINVAL));
  ASSERT_EQ(mkfifo(dir.at("pipe").c_str(), 0600), 0);
  EXPECT_EQ(CFile::readAll(dir.at("pipe")), tl::unexpected(EINVAL));
  EXPECT_EQ(CFile::readAll(dir.path()), tl::unexpected(EISDIR));
}

TEST(File, AMissingFileGivesNothingAndTheReason) {
  EXPECT_EQ(CFile::readAll("/nonexistent/f"), tl::unexpected(ENOENT));
}

TEST(Dir, MakesParentsAndAcceptsWhatStands) {
  const TempDir dir;
  EXPECT_TRUE(CDir::make(dir.at("a/b/c"), 0700));
  EXPECT_TRUE(CDir::make(dir.at("a/b/c"), 0700));
  dir.write("file", "");
  EXPECT_FALSE(CDir::make(dir.at("file"), 0700));
  EXPECT_FALSE(CDir::make(dir.at("file/x"), 0700));
  EXPECT_FALSE(CDir::make(dir.at("file/x/below"), 0700));
}

TEST(Dir, ChangesToAFolder) {
  const TempDir dir;
  const std::optional<std::string> before = CDir::current();
  EXPECT_TRUE(CDir::setCurrent(dir.path()));
  EXPECT_EQ(CDir::current(), dir.path());
  EXPECT_FALSE(CDir::setCurrent(dir.at("absent")));
  EXPECT_TRUE(CDir::setCurrent(*before));
}

TEST(NearestExisting, IsThePathItselfOrTheFirstFolderAboveItThatStands) {
  const TempDir dir;
  EXPECT_EQ(CDir::nearestExisting(dir.path()), dir.path());
  EXPECT_EQ(CDir::nearestExisting(dir.at("a/b/c")), dir.path());
  EXPECT_EQ(CDir::nearestExisting("/no-such-folder/below"), "/");
  EXPECT_EQ(CDir::nearestExisting("no-such-folder/below"), "");
}

TEST(NearestExisting, CountsALinkThatLeadsNowhere) {
  const TempDir dir;
  std::filesystem::create_symlink(dir.at("nowhere"), dir.at("link"));
  EXPECT_EQ(CDir::nearestExisting(dir.at("link/below")), dir.at("link"));
}

/// The reason of a failure; empty for a success.
std::string reasonOf(const platform::Expected<std::string>& result) {
  return result ? "" : result.error();
}

TEST(ResolveSafe, AFileOfTheCallersBelowAStickyFolderIsSafe) {
  const TempDir dir;  // below /tmp, a sticky folder that every user can write
  EXPECT_EQ(reasonOf(CDir::resolveSafe(dir.write("lib/x.so", ""))), "");
}

TEST(ResolveSafe, AFileThatOthersCanWriteIsNamed) {
  const TempDir dir;
  const std::string path = dir.write("x.so", "");
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  EXPECT_THAT(reasonOf(CDir::resolveSafe(path)), HasSubstr("x.so can be written by others"));
}

TEST(ResolveSafe, AFileThatTheGroupOrOthersCanWriteIsNamedThoughItIsSticky) {
  const TempDir dir;
  const std::string path = dir.write("x.so", "");
  for (const mode_t mode : {0620U, 0602U, 01666U}) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_THAT(reasonOf(CDir::resolveSafe(path)), HasSubstr("x.so can be written by others")) << mode;
  }
}

/// The answer of `asked` in a process of its own. There `asked` may take another user or another root.
std::string saidBy(const std::function<std::string()>& asked) {
  int ends[2];
  if (pipe(ends) != 0) {
    return "no pipe";
  }
  const pid_t child = fork();
  if (child == 0) {
    const std::string said = asked();
    _exit(write(ends[1], said.data(), said.size()) == static_cast<ssize_t>(said.size()) ? 0 : 1);
  }
  close(ends[1]);
  char text[4096];
  const ssize_t count = read(ends[0], text, sizeof text);
  close(ends[0]);
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0 && count >= 0 ? std::string(text, static_cast<std::size_t>(count)) : "no answer";
}

TEST(ResolveSafe, ForAnOrdinaryUserItsOwnAndRootsFilesAreSafe) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become a second user";
  }
  const TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string own = dir.write("own", ""), theirs = dir.write("theirs", "");
  ASSERT_EQ(chown(own.c_str(), 54321, 54321), 0);
  ASSERT_EQ(chown(theirs.c_str(), 54322, 54322), 0);
  const auto asUser = [](const std::string& path) {
    return saidBy([&] { return setuid(54321) == 0 ? reasonOf(CDir::resolveSafe(path)) : "no other user"; });
  };
  EXPECT_EQ(asUser(own), "");
  EXPECT_EQ(asUser(dir.path()), "");
  EXPECT_THAT(asUser(theirs), HasSubstr("belongs to user 54322"));
}

TEST(ResolveSafe, ARootFolderThatOthersCanWriteIsNamed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can change the root folder";
  }
  const TempDir dir;
  dir.write("x.so", "");
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  EXPECT_EQ(saidBy([&] {
              return chroot(dir.path().c_str()) == 0 ? reasonOf(CDir::resolveSafe("/x.so")) : "no chroot";
            }),
            "/ can be written by others than its owner");
}

TEST(ResolveSafe, AFolderOnTheWayThatTheGroupCanWriteIsNamed) {
  const TempDir dir;
  const std::string path = dir.write("lib/x.so", "");
  ASSERT_EQ(chmod(dir.at("lib").c_str(), 0775), 0);
  EXPECT_THAT(reasonOf(CDir::resolveSafe(path)), HasSubstr("lib can be written by others"));
}

TEST(ResolveSafe, AnotherUsersFileIsNamed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file to a second user";
  }
  const TempDir dir;
  const std::string path = dir.write("x.so", "");
  ASSERT_EQ(chown(path.c_str(), 54321, 0), 0);
  EXPECT_THAT(reasonOf(CDir::resolveSafe(path)), HasSubstr("belongs to user 54321"));
}

TEST(ResolveSafe, ALinkIsJudgedByWhereItLeads) {
  const TempDir dir;
  const std::string target = dir.write("open/x.so", "");
  ASSERT_EQ(chmod(dir.at("open").c_str(), 0777), 0);
  ASSERT_EQ(symlink(target.c_str(), dir.at("x.so").c_str()), 0);
  EXPECT_THAT(reasonOf(CDir::resolveSafe(dir.at("x.so"))), HasSubstr("can be written by others"));
}

TEST(ResolveSafe, AMissingFileIsNotSafe) {
  EXPECT_THAT(reasonOf(CDir::resolveSafe("/nonexistent/x.so")), HasSubstr("cannot resolve"));
}

TEST(ResolveSafe, LeadsToTheFolderItself) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("real").c_str(), 0700), 0);
  ASSERT_EQ(symlink("real", dir.at("link").c_str()), 0);
  EXPECT_EQ(CDir::resolveSafe(dir.at("link")), dir.at("real"));
}

/// A folder "real" with a file "f", and links to the folder. Some links belong to another user.
class LinksOnTheWay : public testing::Test {
 protected:
  LinksOnTheWay() {
    dir_.write("real/f", "");
    link("real", "own");
  }
  void link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(symlink(target.c_str(), dir_.at(name).c_str()), 0);
  }
  void giveAway(const std::string& name) const { ASSERT_EQ(lchown(dir_.at(name).c_str(), 54321, 54321), 0); }
  const TempDir dir_;
};

TEST_F(LinksOnTheWay, OfTheCallersOwnAreFollowed) {
  link("own/f", "file");
  for (const char* path : {"own/f", "file", "real/../own/./f", "own//f"}) {
    EXPECT_EQ(CDir::resolveSafe(dir_.at(path)), dir_.at("real/f")) << path;
  }
  EXPECT_EQ(CDir::resolveSafe("/../.."), "/");
}

TEST_F(LinksOnTheWay, AreWalkedAsTheKernelDoes) {
  std::filesystem::create_directories(dir_.at("a/b"));
  link("a/b", "deep");
  EXPECT_EQ(CDir::resolveSafe(dir_.at("deep/..")), dir_.at("a")) << "not by text";
}

TEST_F(LinksOnTheWay, MayBeRelativeToTheCurrentFolder) {
  const std::optional<std::string> before = CDir::current();
  ASSERT_TRUE(CDir::setCurrent(dir_.path()));
  EXPECT_EQ(CDir::resolveSafe("own/f"), dir_.at("real/f"));
  EXPECT_FALSE(CDir::resolveSafe(""));
  EXPECT_TRUE(CDir::setCurrent(*before));
}

/// In a child: the other tests need their current folder.
TEST(ResolveSafe, ARelativePathLeadsNowhereFromAFolderThatIsGone) {
  const TempDir dir;
  const auto leadsNowhere = [&dir] {
    const std::string folder = dir.at("gone");
    const bool gone =
        mkdir(folder.c_str(), 0700) == 0 && CDir::setCurrent(folder) && rmdir(folder.c_str()) == 0;
    return gone && !CDir::current() &&
           reasonOf(CDir::resolveSafe("tmp")) == "cannot resolve tmp: No such file or directory";
  };
  EXPECT_EXIT(_exit(leadsNowhere() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(LinksOnTheWay, InACircleAreRefused) {
  link("two", "one");
  link("one", "two");
  EXPECT_THAT(reasonOf(CDir::resolveSafe(dir_.at("one/f"))), HasSubstr(std::strerror(ELOOP)));
}

TEST_F(LinksOnTheWay, AreFollowedAsManyTimesAsTheKernelFollowsThem) {
  link("real", "link1");
  for (int i = 2; i <= 41; ++i) {
    link("link" + std::to_string(i - 1), "link" + std::to_string(i));
  }
  EXPECT_TRUE(std::filesystem::exists(dir_.at("link40/f")));
  EXPECT_EQ(CDir::resolveSafe(dir_.at("link40/f")), dir_.at("real/f"));
  EXPECT_THAT(reasonOf(CDir::resolveSafe(dir_.at("link41/f"))), HasSubstr(std::strerror(ELOOP)));
}

TEST_F(LinksOnTheWay, InAFolderThatOthersMayWriteAreRefusedWhereverTheyLead) {
  std::filesystem::create_directory(dir_.at("open"));
  link("../real", "open/link");
  ASSERT_EQ(chmod(dir_.at("open").c_str(), 0775), 0);
  EXPECT_THAT(reasonOf(CDir::resolveSafe(dir_.at("open/link/f"))),
              HasSubstr("open can be written by others"));
}

TEST_F(LinksOnTheWay, OfAnotherUserAreRefusedWhereverTheyLead) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  link("real", "theirs");
  link("theirs", "through-theirs");
  giveAway("theirs");
  for (const char* path : {"theirs/f", "theirs", "through-theirs/f", "theirs/../real/f"}) {
    EXPECT_THAT(reasonOf(CDir::resolveSafe(dir_.at(path))), HasSubstr("theirs belongs to user 54321"))
        << path;
    EXPECT_FALSE(CDir::resolveForMaking(dir_.at(path) + "/new")) << path;
  }
}

TEST_F(LinksOnTheWay, InAFolderOfAnotherUserAreRefusedWhereverTheyLead) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a second user";
  }
  std::filesystem::create_directory(dir_.at("home"));
  link(dir_.at("real"), "home/lib");
  giveAway("home");
  EXPECT_THAT(reasonOf(CDir::resolveSafe(dir_.at("home/lib/f"))), HasSubstr("home belongs to user 54321"));
}

TEST_F(LinksOnTheWay, OfTheSystemAreFollowed) {
  EXPECT_EQ(reasonOf(CDir::resolveSafe("/proc/self/cwd/")), reasonOf(CDir::resolveSafe(*CDir::current())));
}

TEST_F(LinksOnTheWay, ToWhatIsMissingAreNoPlaceToMakeIt) {
  link("nowhere", "dangling");
  EXPECT_THAT(reasonOf(CDir::resolveForMaking(dir_.at("dangling"))), HasSubstr("cannot resolve"));
  EXPECT_FALSE(CDir::makeSafe(dir_.at("dangling/below"), 0700));
  EXPECT_FALSE(std::filesystem::exists(dir_.at("nowhere")));
}

TEST_F(LinksOnTheWay, AreResolvedBeforeWhatIsToBeMade) {
  EXPECT_EQ(CDir::resolveForMaking(dir_.at("own/x/y")), dir_.at("real/x/y"));
  EXPECT_FALSE(CDir::resolveForMaking(dir_.at("own/x/../y"))) << "'..' behind a missing folder leads nowhere";
  EXPECT_FALSE(std::filesystem::exists(dir_.at("real/x")));
}

TEST_F(LinksOnTheWay, OfTheCallersOwnLeadToWhatIsMade) {
  EXPECT_EQ(CDir::makeSafe(dir_.at("own/x/y"), 0700), dir_.at("real/x/y"));
  EXPECT_TRUE(std::filesystem::is_directory(dir_.at("real/x/y")));
}

TEST_F(LinksOnTheWay, OfAnotherUserLetNothingBeMade) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  link("real", "theirs");
  giveAway("theirs");
  EXPECT_THAT(reasonOf(CDir::makeForFiles(dir_.at("theirs/x"), 0700)),
              HasSubstr("theirs belongs to user 54321"));
  EXPECT_FALSE(std::filesystem::exists(dir_.at("real/x")));
}

TEST(MakeSafe, WhereAFileStandsFailsWithTheReason) {
  const TempDir dir;
  dir.write("file", "");
  EXPECT_THAT(reasonOf(CDir::makeSafe(dir.at("file/below"), 0700)), HasSubstr("cannot make the folder"));
}

/// Another user makes the folder between the check and mkdir.
class PlantedMeanwhile : public testing::Test {
 protected:
  PlantedMeanwhile() { dir_.write("real/f", ""); }
  ~PlantedMeanwhile() override { gBeforeMkdir = nullptr; }
  std::string why() const { return reasonOf(CDir::makeSafe(dir_.at("new/below"), 0700)); }
  const TempDir dir_;
};

TEST_F(PlantedMeanwhile, ALinkIsNotFollowed) {
  gBeforeMkdir = [this](const std::string&) {
    std::filesystem::create_symlink(dir_.at("real"), dir_.at("new"));
  };
  EXPECT_THAT(why(), HasSubstr("new: " + std::string(std::strerror(ENOTDIR))));
  EXPECT_FALSE(std::filesystem::exists(dir_.at("real/below")));
}

TEST_F(PlantedMeanwhile, AnotherUsersFolderIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a second user";
  }
  gBeforeMkdir = [this](const std::string&) {
    ASSERT_TRUE(std::filesystem::create_directory(dir_.at("new")));
    ASSERT_EQ(chown(dir_.at("new").c_str(), 54321, 54321), 0);
  };
  EXPECT_THAT(why(), HasSubstr("new belongs to user 54321"));
  EXPECT_TRUE(std::filesystem::is_empty(dir_.at("new")));
}

TEST(ResolveForFiles, RefusesAFileAndWhatGroupOrOthersMayWriteThoughItIsSticky) {
  const TempDir dir;
  EXPECT_THAT(reasonOf(CDir::resolveForFiles(dir.write("f", ""))), HasSubstr("f is no folder"));
  EXPECT_THAT(reasonOf(CDir::resolveForFiles(dir.at("absent"))), EndsWith("No such file or directory"));
  ASSERT_EQ(mkdir(dir.at("folder").c_str(), 0700), 0);
  EXPECT_EQ(CDir::resolveForFiles(dir.at("folder")), dir.at("folder"));
  for (const mode_t mode : {01770U, 01707U}) {
    ASSERT_EQ(chmod(dir.at("folder").c_str(), mode), 0);
    EXPECT_FALSE(CDir::resolveForFiles(dir.at("folder"))) << mode;
  }
}

TEST(MakeSafe, BelowAFolderThatOthersMayWriteMakesNothing) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("open").c_str(), 0700), 0);
  ASSERT_EQ(chmod(dir.at("open").c_str(), 0777), 0);
  EXPECT_FALSE(CDir::makeSafe(dir.at("open/below"), 0700));
  EXPECT_TRUE(std::filesystem::is_empty(dir.at("open")));
}

TEST(MakeForFiles, LeadsToTheFolderItself) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("real").c_str(), 0700), 0);
  ASSERT_EQ(symlink("real", dir.at("link").c_str()), 0);
  EXPECT_EQ(CDir::makeForFiles(dir.at("link"), 0700), dir.at("real"));
  EXPECT_EQ(CDir::makeForFiles(dir.at("link/new/below"), 0700), dir.at("real/new/below"));
}

TEST(MakeForFiles, RefusesAStickyFolderOfAllAndAFile) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.at("sticky").c_str(), 0700), 0);
  ASSERT_EQ(chmod(dir.at("sticky").c_str(), 01777), 0);
  EXPECT_THAT(reasonOf(CDir::makeForFiles(dir.at("sticky"), 0700)),
              HasSubstr("sticky can be written by others"));
  EXPECT_FALSE(CDir::makeForFiles(dir.write("f", ""), 0700));
}

TEST(ResolveSafe, AMissingFolderIsNone) {
  const TempDir dir;
  EXPECT_FALSE(CDir::resolveSafe(dir.at("absent")));
}

struct FormatCase {
  const char* path;
  const char* dir;
  const char* file;
};
class Format : public testing::TestWithParam<FormatCase> {};
TEST_P(Format, NormalisesByText) {
  EXPECT_EQ(utils::FormatDir(GetParam().path, true), GetParam().dir);
  EXPECT_EQ(utils::FormatFilePath(GetParam().path), GetParam().file);
}
INSTANTIATE_TEST_SUITE_P(Paths, Format,
                         testing::Values(FormatCase{"/opt/x/bin/../", "/opt/x/", "/opt/x"},
                                         FormatCase{"/opt//x/./log/", "/opt/x/log/", "/opt/x/log"},
                                         FormatCase{"/", "/", "/"}, FormatCase{"/../..", "/", "/"},
                                         FormatCase{"", "./", ""}, FormatCase{"a/../../b", "../b/", "../b"},
                                         FormatCase{"../../b", "../../b/", "../../b"}));

TEST(Format, ADirectoryWithoutSeparatorEndsInNone) {
  EXPECT_EQ(utils::FormatDir("/a/b//", false), "/a/b");
}

}  // namespace
