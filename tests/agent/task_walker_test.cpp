#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "OwnMounts.h"
#include "WalkerTest.h"
#include "platform/Posix.h"
#include "task/CallerRights.h"
#include "task/FileSystems.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

TEST_F(WalkerTest, EveryFileOfATreeIsEncounteredOnceAndOpen) {
  dir.write("a", "one");
  dir.write("b/c", "two");
  dir.write("b/d/e/f", "three");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("a"), dir.at("b/c"), dir.at("b/d/e/f")));
  EXPECT_EQ("three", sink.contents[dir.at("b/d/e/f")]);
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, ASingleFileIsEncounteredUnderTheNameThatWasGiven) {
  const std::string path = dir.write("one", "content");
  EXPECT_EQ("", walk(path));
  EXPECT_THAT(sink.files, UnorderedElementsAre(path));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, ALinkThatWasNamedIsResolved) {
  dir.write("real/file", "x");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  EXPECT_EQ("", walk(dir.at("link")));
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("link/file")));
}

TEST_F(WalkerTest, WhatALinkLedToIsEncounteredWithThePathWhereItIs) {
  dir.write("real/a/file", "x");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  ASSERT_EQ(0, symlink("real/a/file", dir.at("name").c_str()));
  EXPECT_EQ("", walk(dir.at("link")));
  EXPECT_EQ("", walk(dir.at("name")));
  EXPECT_EQ("", walk(dir.at("real/../link/a/")));
  EXPECT_EQ(dir.at("real/a/file"), sink.resolved[dir.at("link/a/file")]);
  EXPECT_EQ(dir.at("real/a/file"), sink.resolved[dir.at("name")]);
  EXPECT_EQ(dir.at("real/a/file"), sink.resolved[dir.at("real/../link/a/file")]);
}

TEST_F(WalkerTest, WhatWasEncounteredWithoutALinkIsWhereItsPathSays) {
  const std::string path = dir.write("a/file", "x");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ("", walk(path));
  EXPECT_THAT(sink.files, ElementsAre(path, path));
  EXPECT_EQ("", sink.resolved[path]);
}

TEST_F(WalkerTest, ALinkToTheRootGivesPathsBelowIt) {
  ASSERT_EQ(0, symlink("/", dir.at("root").c_str()));
  sink.allowed = 2000;
  EXPECT_EQ("", walk(dir.at("root")));
  for (const auto& [path, resolved] : sink.resolved) {
    EXPECT_EQ(path, dir.at("root") + resolved);
  }
  EXPECT_FALSE(sink.resolved.empty());
}

TEST_F(WalkerTest, WhetherANamedFilesFolderIsWritableIsAskedOfTheFolderThatHoldsIt) {
  dir.write("real/file", "x");
  ASSERT_EQ(0, mkdir(dir.at("own").c_str(), 0777));
  ASSERT_EQ(0, symlink("../real/file", dir.at("own/link").c_str()));
  for (const char* folder : {"", "own", "real"}) {
    ASSERT_EQ(0, chmod(dir.at(folder).c_str(), folder == std::string("own") ? 0777 : 0755));
  }
  EXPECT_EQ("", walk(dir.at("real/file")));
  EXPECT_TRUE(sink.writable[dir.at("real/file")]);
  std::thread([&] {
    const auto rights = CallerRights::take(CallerId{60123, 60124, {}, getpid()});
    EXPECT_EQ("", walk(dir.at("own/link")));
  }).join();
  ASSERT_EQ(1U, sink.writable.count(dir.at("own/link")));
  EXPECT_FALSE(sink.writable[dir.at("own/link")]);
}

TEST_F(WalkerTest, AFileIsEncounteredWithTheTimeJustBeforeItsStatusWasRead) {
  const std::string path = dir.write("folder/file", "x");
  const std::int64_t before = platform::nowNs();
  std::int64_t after = 0;
  sink.onFile = [&](const std::string&) { after = platform::nowNs(); };
  for (const std::string& named : {path, dir.at("folder")}) {
    EXPECT_EQ("", walk(named));
    EXPECT_LE(before, sink.statusNs[path]);
    EXPECT_GE(after, sink.statusNs[path]);
    sink.statusNs.clear();
  }
}

TEST_F(WalkerTest, AFolderOrFileOnANetworkFileSystemIsSkippedUnlessItWasAskedFor) {
  dir.write("home/file", "x");
  for (const std::string& path : {dir.at("home"), dir.at("home/file")}) {
    Walker::Options options;
    options.networkFileSystems = false;
    options.fileSystem = [](int) { return FileSystem{FileSystemKind::kNetwork, "nfs"}; };
    EXPECT_EQ("", walk(path, options));
    EXPECT_TRUE(sink.files.empty());
    EXPECT_EQ("network file system nfs", sink.skips[path]);

    Walker walker(options, sink);
    walker.walk(Walker::open(path).value(), 1.0, NamedBy::kCaller);
    EXPECT_THAT(sink.files, ElementsAre(dir.at("home/file")));
    sink.files.clear();
  }
}

TEST_F(WalkerTest, WithoutNetworkFileSystemsAnOrdinaryOneIsWalkedWhoeverNamedIt) {
  const std::string path = dir.write("home/file", "x");
  Walker::Options options;
  options.networkFileSystems = false;
  options.fileSystem = [](int) { return FileSystem{}; };
  EXPECT_EQ("", walk(dir.at("home"), options));
  EXPECT_THAT(sink.files, ElementsAre(path));
  EXPECT_THAT(sink.skips, IsEmpty());
}

TEST_F(WalkerTest, LinksBelowTheNamedPathAreSkippedAndNotFollowed) {
  dir.write("outside/file", "x");
  dir.write("tree/own", "x");
  ASSERT_EQ(0, symlink("../outside", dir.at("tree/folder").c_str()));
  ASSERT_EQ(0, symlink("../outside/file", dir.at("tree/file").c_str()));
  EXPECT_EQ("", walk(dir.at("tree")));
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("tree/own")));
  EXPECT_EQ("symbolic link", sink.skips[dir.at("tree/folder")]);
  EXPECT_EQ("symbolic link", sink.skips[dir.at("tree/file")]);
}

TEST_F(WalkerTest, FifosSocketsAndDevicesAreSkippedWithoutBeingOpened) {
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 0600));
  const platform::Descriptor server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  dir.at("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, mknod(dir.at("device").c_str(), S_IFCHR | 0600, makedev(1, 3)));
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ("fifo", sink.skips[dir.at("fifo")]);
  EXPECT_EQ("socket", sink.skips[dir.at("socket")]);
  EXPECT_EQ("character device", sink.skips[dir.at("device")]);
  EXPECT_TRUE(sink.files.empty());
}

TEST_F(WalkerTest, ANamedFifoIsSkippedAndNotWaitedFor) {
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 0600));
  EXPECT_EQ("", walk(dir.at("fifo")));
  EXPECT_EQ("fifo", sink.skips[dir.at("fifo")]);
}

TEST_F(WalkerTest, NamesThatAreNoUtf8AreEncounteredByteForByte) {
  const std::string name = "bad\xff\xfe\x80name\n\x1b[31m";
  const std::string path = dir.write(name, "x");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(sink.files, UnorderedElementsAre(path));
}

TEST_F(WalkerTest, NamesThatBeginWithDotsAreEncounteredAsAllOthers) {
  std::vector<std::string> paths;
  for (const char* name : {".x", "..x", "...", ".. ", ".d/x", "..d/x", ".../x", "..../.../..x"}) {
    paths.push_back(dir.write(
        std::string(name).ends_with("x") ? std::string("a/") + name : std::string("b/") + name, "x"));
  }
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(sink.files, UnorderedElementsAreArray(paths));
}

TEST_F(WalkerTest, TheRootFolderGivesPathsBelowIt) {
  sink.allowed = 2000;
  EXPECT_EQ("", walk("/"));
  ASSERT_FALSE(sink.files.empty());
  for (const std::string& path : sink.files) {
    EXPECT_EQ('/', path[0]);
    EXPECT_NE('/', path[1]);
    EXPECT_EQ("", sink.resolved[path]);
  }
}

TEST_F(WalkerTest, AFileInTheRootFolderIsEncounteredWithThatFolder) {
  std::string path = "/tavtest-XXXXXX";
  const platform::Descriptor file(mkstemp(path.data()));
  if (!file) {
    GTEST_SKIP() << "the root folder cannot be written";
  }
  EXPECT_EQ("", walk(path));
  EXPECT_EQ(0, unlink(path.c_str()));
  EXPECT_THAT(sink.files, ElementsAre(path));
  EXPECT_TRUE(sink.writable[path]);
}

TEST_F(WalkerTest, APathWhoseResolvedNameIsUnknownIsEncounteredAsItWasNamed) {
  const std::string path = dir.write("d/file", "x");
  Walker walker({}, sink);
  EncounteredFile named = Walker::open(dir.at("d")).value();
  named.resolved.clear();
  walker.walk(std::move(named), 1.0);
  EXPECT_THAT(sink.files, ElementsAre(path));
  EXPECT_EQ("", sink.resolved[path]);
}

TEST_F(WalkerTest, AnEntryThatIsRemovedBeforeItsTurnIsSkipped) {
  dir.write("tree/a", "x");
  dir.write("tree/b", "x");
  dir.write("tree/sub/file", "x");
  std::string other;
  sink.onFile = [&](const std::string& path) {
    other = path == dir.at("tree/a") ? dir.at("tree/b") : dir.at("tree/a");
    std::filesystem::remove(other);
    std::filesystem::remove_all(dir.at("tree/sub"));
  };
  EXPECT_EQ("", walk(dir.at("tree")));
  EXPECT_EQ("was removed while its folder was read", sink.skips[other]);
  EXPECT_EQ("was removed while its folder was read", sink.skips[dir.at("tree/sub")]);
  EXPECT_THAT(sink.failures, IsEmpty());
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, WhatAUserCannotOpenIsAnErrorEach) {
  dir.write("tree/hidden", "x");
  dir.write("tree/closed/file", "x");
  const std::string open = dir.write("tree/open", "x");
  for (const auto& [name, mode] : {std::pair("", 0755), {"tree", 0755}, {"tree/open", 0644}}) {
    ASSERT_EQ(0, chmod(dir.at(name).c_str(), static_cast<mode_t>(mode)));
  }
  ASSERT_EQ(0, chmod(dir.at("tree/hidden").c_str(), 0600));
  ASSERT_EQ(0, chmod(dir.at("tree/closed").c_str(), 0700));
  std::thread([&] {
    const auto rights = CallerRights::take(CallerId{60123, 60124, {}, getpid()});
    EXPECT_EQ("", walk(dir.at("tree")));
  }).join();
  EXPECT_THAT(sink.files, ElementsAre(open));
  EXPECT_EQ("Permission denied", sink.failures[dir.at("tree/hidden")]);
  EXPECT_EQ("Permission denied", sink.failures[dir.at("tree/closed")]);
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, AnEmptyFolderIsWalked) {
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
  EXPECT_THAT(sink.failures, IsEmpty());
}

TEST_F(WalkerTest, AMissingPathIsAnErrorWithItsReason) {
  EXPECT_THAT(walk(dir.at("absent")), HasSubstr("No such file"));
}

TEST_F(WalkerTest, ARelativePathIsRefused) {
  EXPECT_THAT(walk("tmp"), HasSubstr("absolute"));
  EXPECT_THAT(walk(""), HasSubstr("absolute"));
}

TEST_F(WalkerTest, TheSizeOfAFileOfThreeGigabytesIsWhole) {
  const std::string path = dir.write("large", "");
  ASSERT_EQ(0, truncate(path.c_str(), 3LL << 30));
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ(3LL << 30, sink.sizes[path]);
}

TEST_F(WalkerTest, APseudoFileSystemIsSkippedWithItsName) {
  EXPECT_EQ("", walk("/proc"));
  EXPECT_THAT(sink.skips["/proc"], HasSubstr("proc"));
  EXPECT_EQ("", walk("/sys/kernel"));
  EXPECT_THAT(sink.skips["/sys/kernel"], HasSubstr("sysfs"));
  EXPECT_TRUE(sink.files.empty());
  EXPECT_NEAR(2.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, TheAgentsOwnFolderIsNotEnteredFromAbove) {
  dir.write("state/secret", "x");
  dir.write("other", "x");
  EXPECT_EQ("", walk(dir.path(), excluding("state")));
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("other")));
  EXPECT_THAT(sink.skips[dir.at("state")], HasSubstr("agent"));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, ANeighbourWhoseNameBeginsAsTheAgentsOwnFolderIsWalked) {
  dir.write("state/secret", "x");
  const std::string file = dir.write("state2/file", "x");
  EXPECT_EQ("", walk(dir.at("state2"), excluding("state")));
  EXPECT_EQ("", walk(dir.at("state"), excluding("state")));
  EXPECT_THAT(sink.files, ElementsAre(file));
  EXPECT_THAT(sink.skips[dir.at("state")], HasSubstr("agent"));
}

TEST_F(WalkerTest, TheAgentsOwnFolderIsNotEnteredByName) {
  dir.write("state/deep/secret", "x");
  ASSERT_EQ(0, symlink("state/deep", dir.at("link").c_str()));
  EXPECT_EQ("", walk(dir.at("link"), excluding("state")));
  EXPECT_EQ("", walk(dir.at("state/deep/secret"), excluding("state")));
  EXPECT_TRUE(sink.files.empty());
}

TEST_F(WalkerTest, ATreeDeeperThanTheOpenFoldersIsWalkedToItsEnds) {
  std::string path = dir.path();
  int levels = 300;
  platform::Descriptor at(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < levels; ++i) {
    ASSERT_EQ(0, mkdirat(at.get(), "deeper", 0700));
    ASSERT_EQ(0, mkdirat(at.get(), "beside", 0700));
    const platform::Descriptor beside(openat(at.get(), "beside", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const platform::Descriptor file(openat(beside.get(), "f", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_TRUE(file);
    at = platform::Descriptor(openat(at.get(), "deeper", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  const auto openFiles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = openFiles();
  auto most = before;
  sink.onFile = [&](const std::string&) { most = std::max(most, openFiles()); };
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_LT(most, before + 80) << "the upper folders are closed on the way down";
  EXPECT_EQ(static_cast<std::size_t>(levels), sink.files.size());
  EXPECT_TRUE(sink.failures.empty());
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

TEST_F(WalkerTest, AFolderMovedAwayDuringTheWalkIsNoJumpAndEachFolderLeftOutIsAnError) {
  constexpr int kLevels = 80;      // more than the walk keeps open
  constexpr int kMovedLevels = 6;  // below the top, of those whose parents are closed by then
  std::vector<std::string> folders{dir.at("top")};
  std::vector<std::vector<std::string>> neighbours;  // of the folder on the next level
  const auto below = [this](const std::string& path) { return path.substr(dir.path().size() + 1); };
  for (int i = 0; i < kLevels; ++i) {
    neighbours.push_back({folders.back() + "/older", folders.back() + "/other", folders.back() + "/younger"});
    dir.write(below(neighbours.back()[0]) + "/f", "x");
    dir.write(below(neighbours.back()[1]) + "/f", "x");
    folders.push_back(folders.back() + "/d");
    std::filesystem::create_directories(folders.back());
    dir.write(below(neighbours.back()[2]) + "/f", "x");
  }
  dir.write(below(folders.back()) + "/last", "x");
  const auto entered = [this](const std::string& folder) { return sink.contents.count(folder + "/f") != 0; };
  std::vector<std::string> left;
  sink.onFile = [&](const std::string& path) {
    if (path != folders.back() + "/last") {
      return;
    }
    for (std::size_t level = 0; level <= kMovedLevels; ++level) {
      std::copy_if(neighbours[level].begin(), neighbours[level].end(), std::back_inserter(left),
                   [&](const std::string& folder) { return !entered(folder); });
    }
    ASSERT_FALSE(left.empty());
    // The deepest one: the walk must come back to its parent.
    const std::string parent = std::filesystem::path(left.back()).parent_path();
    dir.write("elsewhere" + left.back().substr(parent.size()) + "/f", "not below the named folder");
    std::filesystem::rename(parent + "/d", dir.at("elsewhere/d"));
  };
  EXPECT_EQ("", walk(dir.at("top")));
  EXPECT_LT(1U, left.size()) << "no further neighbour was left over";
  for (const std::string& folder : left) {
    EXPECT_FALSE(entered(folder)) << folder;
    EXPECT_EQ("its folder was moved while it was scanned", sink.failures[folder]);
  }
  EXPECT_EQ(left.size(), sink.failures.size());
  for (const auto& [path, content] : sink.contents) {
    EXPECT_EQ("x", content) << path;
  }
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

/// The entry that replaces another before the walk opens it.
struct ExchangeRow {
  const char* name;
  std::function<void(const testsupport::TempDir&, const std::string& path)> put;
};
class Exchanged : public WalkerTest, public ::testing::WithParamInterface<ExchangeRow> {
 protected:
  /// Puts the row's entry in the place of the one that was there.
  void exchange(const std::string& path) {
    std::filesystem::remove_all(path);
    GetParam().put(dir, path);
  }
  void expectSkipped(const std::string& path) {
    EXPECT_EQ("was exchanged while its folder was read", sink.skips[path]);
    EXPECT_EQ(0U, sink.contents.count(path));
    for (const auto& [file, content] : sink.contents) {
      EXPECT_EQ("x", content) << file;
    }
    EXPECT_NEAR(1.0, sink.progress, 1e-9);
  }
};

class ExchangedFile : public Exchanged {};
TEST_P(ExchangedFile, IsSkippedWhateverCameInItsPlace) {
  dir.write("tree/a", "x");
  dir.write("tree/b", "x");
  std::string other;
  sink.onFile = [&](const std::string& path) {
    if (other.empty()) {
      other = path == dir.at("tree/a") ? dir.at("tree/b") : dir.at("tree/a");
      exchange(other);
    }
  };
  EXPECT_EQ("", walk(dir.at("tree")));
  expectSkipped(other);
}

class ExchangedFolder : public Exchanged {};
TEST_P(ExchangedFolder, IsSkippedWhateverCameInItsPlace) {
  dir.write("tree/a", "x");
  dir.write("tree/sub/file", "x");
  sink.onFile = [&](const std::string& path) {
    if (path == dir.at("tree/a")) {
      exchange(dir.at("tree/sub"));
    }
  };
  EXPECT_EQ("", walk(dir.at("tree")));
  expectSkipped(dir.at("tree/sub"));
}

const ExchangeRow kLinkToAFile{"LinkToAFile", [](const testsupport::TempDir& dir, const std::string& path) {
                                 dir.write("outside/file", "not below the named folder");
                                 std::filesystem::create_symlink(dir.at("outside/file"), path);
                               }};
const ExchangeRow kLinkToAFolder{"LinkToAFolder",
                                 [](const testsupport::TempDir& dir, const std::string& path) {
                                   dir.write("outside/file", "not below the named folder");
                                   std::filesystem::create_directory_symlink(dir.at("outside"), path);
                                 }};
const ExchangeRow kFifo{"Fifo", [](const testsupport::TempDir&, const std::string& path) {
                          EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
                        }};
const ExchangeRow kSocket{"Socket", [](const testsupport::TempDir&, const std::string& path) {
                            EXPECT_EQ(0, mknod(path.c_str(), S_IFSOCK | 0600, 0));
                          }};
const ExchangeRow kDevice{"Device", [](const testsupport::TempDir&, const std::string& path) {
                            EXPECT_EQ(0, mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)));
                          }};
const ExchangeRow kFolder{"Folder", [](const testsupport::TempDir&, const std::string& path) {
                            EXPECT_TRUE(std::filesystem::create_directory(path));
                          }};
const ExchangeRow kFile{"File", [](const testsupport::TempDir&, const std::string& path) {
                          std::ofstream(path) << "another file";
                        }};
INSTANTIATE_TEST_SUITE_P(By, ExchangedFile,
                         ::testing::Values(kLinkToAFile, kLinkToAFolder, kFifo, kSocket, kDevice, kFolder),
                         [](const auto& row) { return std::string(row.param.name); });
INSTANTIATE_TEST_SUITE_P(By, ExchangedFolder,
                         ::testing::Values(kLinkToAFile, kLinkToAFolder, kFifo, kSocket, kDevice, kFile),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(WalkerTest, AFolderEncounteredTwiceIsScannedOnce) {
  dir.write("a/file", "x");
  Walker walker({}, sink);
  walker.walk(Walker::open(dir.at("a")).value(), 0.5);
  walker.walk(Walker::open(dir.path()).value(), 0.5);
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("a/file")));
  EXPECT_THAT(sink.skips[dir.at("a")], HasSubstr("before"));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, AFolderThatIsNamedTwiceIsScannedOnceAndIsNoSkippedEntry) {
  const std::string path = dir.write("a/file", "x");
  Walker walker({}, sink);
  walker.walk(Walker::open(dir.at("a")).value(), 0.5);
  walker.walk(Walker::open(dir.at("a")).value(), 0.5);
  EXPECT_THAT(sink.files, ElementsAre(path));
  EXPECT_THAT(sink.skips, IsEmpty());
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(WalkerTest, AFolderMovedAwayBelowAnOpenOneHarmsNoNeighbour) {
  constexpr int kFolders = 10;
  for (int i = 0; i < kFolders; ++i) {
    dir.write("top/" + std::to_string(i) + "/file", "x");
  }
  sink.onFile = [&](const std::string& path) {
    if (sink.files.size() == 1) {
      std::filesystem::rename(std::filesystem::path(path).parent_path(), dir.at("moved"));
    }
  };
  EXPECT_EQ("", walk(dir.at("top")));
  EXPECT_EQ(static_cast<std::size_t>(kFolders), sink.files.size());
  EXPECT_THAT(sink.failures, IsEmpty());
}

TEST_F(WalkerTest, AWalkThatMustEndEndsAtTheNextEntry) {
  for (int i = 0; i < 100; ++i) {
    dir.write("f" + std::to_string(i), "x");
  }
  sink.allowed = 11;  // the named folder, and ten entries
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ(10U, sink.files.size());
}

TEST_F(WalkerTest, AWalkThatMustEndEntersNoFolderMore) {
  dir.write("state/secret", "x");
  sink.allowed = 2;  // the named folder, and the entry of the other one
  EXPECT_EQ("", walk(dir.path(), excluding("state")));
  EXPECT_THAT(sink.skips, IsEmpty());
}

TEST_F(WalkerTest, AWalkThatMustEndAtOnceOpensNothing) {
  dir.write("file", "x");
  sink.allowed = 0;
  EXPECT_EQ("", walk(dir.at("file")));
  EXPECT_THAT(sink.files, IsEmpty());
}

TEST_F(WalkerTest, AFolderOfUnknownSizeDealsItsShareOutByBatches) {
  for (int i = 0; i < 250; ++i) {
    dir.write(std::to_string(i), "");
  }
  std::vector<double> progressAt;
  sink.onFile = [&](const std::string&) { progressAt.push_back(sink.progress); };
  EXPECT_EQ("", walk(dir.path(), inBatchesOf(100)));
  ASSERT_EQ(250U, progressAt.size());
  EXPECT_NEAR(0.5, progressAt[100], 1e-6);
  EXPECT_NEAR(0.75, progressAt[200], 1e-6);
}

TEST_F(WalkerTest, ALargeFolderIsReadInBatchesWithoutLosingAnEntry) {
  const platform::Descriptor folder(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < 250; ++i) {
    const platform::Descriptor file(
        openat(folder.get(), std::to_string(i).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_TRUE(file);
  }
  EXPECT_EQ("", walk(dir.path(), inBatchesOf(100)));
  EXPECT_EQ(250U, sink.files.size());
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

TEST_F(WalkerTest, ScanningLeavesTheAccessTimeAlone) {
  const std::string path = dir.write("file", "content");
  const timespec times[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  EXPECT_EQ("", walk(dir.path()));
  struct stat status {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(1000, status.st_atim.tv_sec);
}

TEST_F(WalkerTest, BelowWhatWasAskedForOtherMountsAloneAreAskedWhatTheyAre) {
  struct stat shm {};
  ASSERT_EQ(0, stat("/dev/shm", &shm));
  const testsupport::TempDir memory("/dev/shm");
  const std::string far = memory.write("far", "x");
  Walker::Options options;
  options.networkFileSystems = false;
  options.fileSystem = [](int) { return FileSystem{FileSystemKind::kNetwork, "nfs"}; };
  for (const char* path : {"/dev", "/dev/shm"}) {
    Walker walker(options, sink);
    walker.walk(Walker::open(path).value(), 1.0, NamedBy::kCaller);
    EXPECT_EQ(path == std::string("/dev/shm"), sink.contents.count(far) == 1) << path;
  }
  EXPECT_EQ("network file system nfs", sink.skips["/dev/shm"]);
}

TEST_F(WalkerTest, AFolderThatCannotBeReadIsAnErrorWithItsReason) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  Walker walker({}, sink);
  EncounteredFile named = Walker::open(dir.path()).value();
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{1, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  walker.walk(std::move(named), 1.0);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  EXPECT_THAT(sink.failures[dir.path()], HasSubstr("Too many open files"));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

/// Says which entries of a folder are opened.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& folder) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_LE(0, inotify_add_watch(fd_.get(), folder.c_str(), IN_OPEN));
  }
  std::set<std::string> opened() {
    std::set<std::string> names;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t size = 0; (size = read(fd_.get(), buffer, sizeof buffer)) > 0;) {
      for (const char* at = buffer; at < buffer + size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        names.insert(event->len > 0 ? event->name : "");
        at += sizeof(inotify_event) + event->len;
      }
    }
    return names;
  }

 private:
  platform::Descriptor fd_;
};

TEST_F(WalkerTest, OfANamedFolderOrFifoWhatIsNoFileIsNotOpened) {
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 0600));
  ASSERT_EQ(0, mknod(dir.at("device").c_str(), S_IFCHR | 0600, makedev(1, 3)));
  dir.write("file", "x");
  OpenWatch watch(dir.path());
  EXPECT_EQ("", walk(dir.at("fifo")));
  EXPECT_EQ("", walk(dir.at("device")));
  EXPECT_THAT(watch.opened(), IsEmpty());
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(watch.opened(), UnorderedElementsAre("", "file"));
}

TEST_F(WalkerTest, AnotherMountIsEntered) {
  struct stat root {};
  struct stat shm {};
  ASSERT_EQ(0, stat("/", &root));
  ASSERT_EQ(0, stat("/dev/shm", &shm));
  ASSERT_NE(root.st_dev, shm.st_dev);
  char pattern[] = "/dev/shm/tavtest-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  const std::string file = std::string(pattern) + "/file";
  close(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  EXPECT_EQ("", walk("/dev"));
  std::filesystem::remove_all(pattern);
  EXPECT_THAT(sink.files, Contains(file));
  EXPECT_THAT(sink.skips["/dev/pts"], HasSubstr("devpts"));
}

class SetuidSearch : public WalkerTest {
 protected:
  std::string write(const std::string& name, mode_t mode) {
    const std::string path = dir.write(name, "x");
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
};

TEST_F(SetuidSearch, HandsOverSetuidAndSetgidProgramsAndReportsNothingElse) {
  const std::string uid = write("a/uid", 04755);
  const std::string gid = write("b/c/gid", 02755);
  const std::string both = write("both", 06711);
  write("plain", 0755);
  write("locked", 02644);  // no program: a mark for file locks
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 04600));
  ASSERT_EQ(0, symlink("both", dir.at("link").c_str()));
  ASSERT_EQ(0, chmod(dir.at("b").c_str(), 07755));
  Walker walker({}, sink);
  walker.walk(Walker::open(dir.path()).value(), 1.0, NamedBy::kAgent, Wanted::kSetuidFiles);
  EXPECT_THAT(sink.files, UnorderedElementsAre(uid, gid, both));
  EXPECT_THAT(sink.everyPath(), UnorderedElementsAre(uid, gid, both));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(SetuidSearch, EntersNoFolderThatWasWalkedAndNotTheAgentsOwn) {
  write("walked/uid", 04755);
  write("state/uid", 04755);
  const std::string other = write("other/uid", 04755);
  Walker walker(excluding("state"), sink);
  walker.walk(Walker::open(dir.at("walked")).value(), 0.5);
  sink.files.clear();
  walker.walk(Walker::open(dir.path()).value(), 0.5, NamedBy::kAgent, Wanted::kSetuidFiles);
  EXPECT_THAT(sink.everyPath(), ElementsAre(other));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(SetuidSearch, OpensNoOtherFile) {
  write("plain", 0755);
  write("uid", 04755);
  OpenWatch watch(dir.path());
  Walker walker({}, sink);
  walker.walk(Walker::open(dir.path()).value(), 1.0, NamedBy::kAgent, Wanted::kSetuidFiles);
  EXPECT_THAT(watch.opened(), UnorderedElementsAre("", "uid"));
}

TEST_F(SetuidSearch, LeavesAMountOutWhereSetuidHasNoEffect) {
  ASSERT_TRUE(std::filesystem::create_directory(dir.at("mount")));
  if (!withOwnMounts(
          [&] { return mount("none", dir.at("mount").c_str(), "tmpfs", MS_NOSUID, "mode=0755") == 0; },
          [&] {
            write("mount/uid", 04755);
            Walker walker({}, sink);
            walker.walk(Walker::open(dir.path()).value(), 0.5, NamedBy::kAgent, Wanted::kSetuidFiles);
            EXPECT_THAT(sink.everyPath(), IsEmpty());
            Walker all({}, sink);
            all.walk(Walker::open(dir.path()).value(), 0.5);
            EXPECT_THAT(sink.files, ElementsAre(dir.at("mount/uid")));
          })) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
}

TEST_F(WalkerTest, AMountOfTheNetworkIsLeftOutBeforeItIsOpened) {
  bool opened = false;
  Walker::Options options;
  options.networkFileSystems = false;
  options.fileSystem = [&](int fd) {
    struct stat root {};
    struct stat status {};
    EXPECT_EQ(0, stat("/dev", &root));
    EXPECT_EQ(0, fstat(fd, &status));
    if (status.st_dev == root.st_dev) {
      return FileSystem{};
    }
    opened = opened || (fcntl(fd, F_GETFL) & O_PATH) == 0;
    return FileSystem{FileSystemKind::kNetwork, "autofs"};
  };
  EXPECT_EQ("", walk("/dev", options));
  EXPECT_EQ("network file system autofs", sink.skips["/dev/shm"]);
  EXPECT_FALSE(opened);
}

struct MagicRow {
  const char* name;
  unsigned long magic;
  FileSystemKind kind;
};
class FileSystemTable : public ::testing::TestWithParam<MagicRow> {};

TEST_P(FileSystemTable, IsKnownByItsMagicNumber) {
  const FileSystem system = fileSystemByMagic(GetParam().magic);
  EXPECT_EQ(GetParam().kind, system.kind);
  EXPECT_STREQ(GetParam().kind == FileSystemKind::kOrdinary ? "" : GetParam().name, system.name);
}

TEST(FileSystems, ThoseInMemoryAreKnown) {
  EXPECT_TRUE(fileSystemByMagic(0x01021994).inMemory);
  EXPECT_TRUE(fileSystemByMagic(0x858458f6).inMemory);
  EXPECT_FALSE(fileSystemByMagic(0xef53).inMemory);
}

TEST(FileSystems, OnADiskAreThoseWithADeviceOfTheirOwn) {
  EXPECT_TRUE(isOnBlockDevice(makedev(8, 1)));
  EXPECT_TRUE(isOnBlockDevice(makedev(254, 0)));
  EXPECT_FALSE(isOnBlockDevice(makedev(0, 42)));
}

INSTANTIATE_TEST_SUITE_P(Rows, FileSystemTable,
                         ::testing::Values(MagicRow{"proc", PROC_SUPER_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"sysfs", SYSFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"cgroup", CGROUP_SUPER_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"cgroup2", CGROUP2_SUPER_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"debugfs", DEBUGFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"tracefs", TRACEFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"securityfs", SECURITYFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"bpf", BPF_FS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"pstore", PSTOREFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"efivarfs", EFIVARFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"devpts", DEVPTS_SUPER_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"selinuxfs", SELINUX_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"nsfs", NSFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"binfmt_misc", BINFMTFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"hugetlbfs", HUGETLBFS_MAGIC, FileSystemKind::kPseudo},
                                           MagicRow{"nfs", NFS_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"cifs", CIFS_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"smb2", SMB2_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"smb", SMB_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"ceph", CEPH_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"afs", AFS_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"coda", CODA_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"fuse", FUSE_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"9p", V9FS_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"lustre", 0x0bd00bd0, FileSystemKind::kNetwork},
                                           MagicRow{"gpfs", 0x47504653, FileSystemKind::kNetwork},
                                           MagicRow{"autofs", AUTOFS_SUPER_MAGIC, FileSystemKind::kNetwork},
                                           MagicRow{"ext4", 0xef53, FileSystemKind::kOrdinary},
                                           MagicRow{"tmpfs", 0x01021994, FileSystemKind::kOrdinary}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace agent
