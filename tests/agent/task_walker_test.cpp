#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
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

#include "WalkRecorder.h"
#include "platform/Posix.h"
#include "support/TempDir.h"
#include "task/CallerRights.h"
#include "task/FileSystems.h"

namespace {

/// Changes the answers of readdir(); null: no change.
std::function<dirent*(dirent*)> onReaddir;

}  // namespace

/// In place of the library's own, for this whole program.
extern "C" dirent* readdir(DIR* directory) {
  static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
  dirent* const entry = real(directory);
  return onReaddir ? onReaddir(entry) : entry;
}

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class WalkerTest : public ::testing::Test {
 protected:
  /// Walks into `met`. Returns the error of opening the path.
  std::string walk(const std::string& path, Walker::Options options = {}) {
    Walker walker(std::move(options), met);
    auto named = Walker::open(path);
    if (!named) {
      return named.error();
    }
    walker.walk(std::move(*named), 1.0);
    return "";
  }

  Walker::Options excluding(const char* folder) {
    Walker::Options options;
    options.excludedFolders = {dir.at(folder)};
    return options;
  }

  static Walker::Options inBatchesOf(std::size_t entries) {
    Walker::Options options;
    options.entriesAtOnce = entries;
    return options;
  }

  testsupport::TempDir dir;
  WalkRecorder met;
};

TEST_F(WalkerTest, EveryFileOfATreeIsMetOnceAndOpen) {
  dir.write("a", "one");
  dir.write("b/c", "two");
  dir.write("b/d/e/f", "three");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("a"), dir.at("b/c"), dir.at("b/d/e/f")));
  EXPECT_EQ("three", met.contents[dir.at("b/d/e/f")]);
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, ASingleFileIsMetUnderTheNameThatWasGiven) {
  const std::string path = dir.write("one", "content");
  EXPECT_EQ("", walk(path));
  EXPECT_THAT(met.files, UnorderedElementsAre(path));
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, ALinkThatWasNamedIsResolved) {
  dir.write("real/file", "x");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  EXPECT_EQ("", walk(dir.at("link")));
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("link/file")));
}

TEST_F(WalkerTest, WhatALinkLedToIsMetWithThePathWhereItIs) {
  dir.write("real/a/file", "x");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  ASSERT_EQ(0, symlink("real/a/file", dir.at("name").c_str()));
  EXPECT_EQ("", walk(dir.at("link")));
  EXPECT_EQ("", walk(dir.at("name")));
  EXPECT_EQ("", walk(dir.at("real/../link/a/")));
  EXPECT_EQ(dir.at("real/a/file"), met.resolved[dir.at("link/a/file")]);
  EXPECT_EQ(dir.at("real/a/file"), met.resolved[dir.at("name")]);
  EXPECT_EQ(dir.at("real/a/file"), met.resolved[dir.at("real/../link/a/file")]);
}

TEST_F(WalkerTest, WhatWasMetWithoutALinkIsWhereItsPathSays) {
  const std::string path = dir.write("a/file", "x");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ("", walk(path));
  EXPECT_THAT(met.files, ElementsAre(path, path));
  EXPECT_EQ("", met.resolved[path]);
}

TEST_F(WalkerTest, ALinkToTheRootGivesPathsBelowIt) {
  ASSERT_EQ(0, symlink("/", dir.at("root").c_str()));
  met.allowed = 2000;
  EXPECT_EQ("", walk(dir.at("root")));
  for (const auto& [path, resolved] : met.resolved) {
    EXPECT_EQ(path, dir.at("root") + resolved);
  }
  EXPECT_FALSE(met.resolved.empty());
}

TEST_F(WalkerTest, WhetherANamedFilesFolderIsWritableIsAskedOfTheFolderThatHoldsIt) {
  dir.write("real/file", "x");
  ASSERT_EQ(0, mkdir(dir.at("his").c_str(), 0777));
  ASSERT_EQ(0, symlink("../real/file", dir.at("his/link").c_str()));
  for (const char* folder : {"", "his", "real"}) {
    ASSERT_EQ(0, chmod(dir.at(folder).c_str(), folder == std::string("his") ? 0777 : 0755));
  }
  std::thread([&] {
    const auto rights = CallerRights::take(CallerId{60123, 60124, {}, getpid()});
    EXPECT_EQ("", walk(dir.at("his/link")));
  }).join();
  ASSERT_EQ(1U, met.writable.count(dir.at("his/link")));
  EXPECT_FALSE(met.writable[dir.at("his/link")]);
}

TEST_F(WalkerTest, AFileIsMetWithTheTimeJustBeforeItsStatusWasRead) {
  const std::string path = dir.write("folder/file", "x");
  const std::int64_t before = platform::nowNs();
  std::int64_t after = 0;
  met.onFile = [&](const std::string&) { after = platform::nowNs(); };
  for (const std::string& named : {path, dir.at("folder")}) {
    EXPECT_EQ("", walk(named));
    EXPECT_LE(before, met.statusNs[path]);
    EXPECT_GE(after, met.statusNs[path]);
    met.statusNs.clear();
  }
}

TEST_F(WalkerTest, AFolderOrFileOnANetworkFileSystemIsSkippedUnlessItWasAskedFor) {
  dir.write("home/file", "x");
  for (const std::string& path : {dir.at("home"), dir.at("home/file")}) {
    Walker::Options options;
    options.networkFileSystems = false;
    options.fileSystem = [](int) { return FileSystem{FileSystemKind::kNetwork, "nfs"}; };
    EXPECT_EQ("", walk(path, options));
    EXPECT_TRUE(met.files.empty());
    EXPECT_EQ("network file system nfs", met.skips[path]);

    Walker walker(options, met);
    walker.walk(Walker::open(path).value(), 1.0, NamedBy::kCaller);
    EXPECT_THAT(met.files, ElementsAre(dir.at("home/file")));
    met.files.clear();
  }
}

TEST_F(WalkerTest, LinksBelowTheNamedPathAreSkippedAndNotFollowed) {
  dir.write("outside/file", "x");
  dir.write("tree/own", "x");
  ASSERT_EQ(0, symlink("../outside", dir.at("tree/folder").c_str()));
  ASSERT_EQ(0, symlink("../outside/file", dir.at("tree/file").c_str()));
  EXPECT_EQ("", walk(dir.at("tree")));
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("tree/own")));
  EXPECT_EQ("symbolic link", met.skips[dir.at("tree/folder")]);
  EXPECT_EQ("symbolic link", met.skips[dir.at("tree/file")]);
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
  EXPECT_EQ("fifo", met.skips[dir.at("fifo")]);
  EXPECT_EQ("socket", met.skips[dir.at("socket")]);
  EXPECT_EQ("character device", met.skips[dir.at("device")]);
  EXPECT_TRUE(met.files.empty());
}

TEST_F(WalkerTest, ANamedFifoIsSkippedAndNotWaitedFor) {
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 0600));
  EXPECT_EQ("", walk(dir.at("fifo")));
  EXPECT_EQ("fifo", met.skips[dir.at("fifo")]);
}

TEST_F(WalkerTest, NamesThatAreNoUtf8AreMetByteForByte) {
  const std::string name = "bad\xff\xfe\x80name\n\x1b[31m";
  const std::string path = dir.write(name, "x");
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(met.files, UnorderedElementsAre(path));
}

TEST_F(WalkerTest, TheRootFolderGivesPathsBelowIt) {
  met.allowed = 2000;
  EXPECT_EQ("", walk("/"));
  ASSERT_FALSE(met.files.empty());
  for (const std::string& path : met.files) {
    EXPECT_EQ('/', path[0]);
    EXPECT_NE('/', path[1]);
    EXPECT_EQ("", met.resolved[path]);
  }
}

TEST_F(WalkerTest, AFileInTheRootFolderIsMetWithThatFolder) {
  std::string path = "/tavtest-XXXXXX";
  const platform::Descriptor file(mkstemp(path.data()));
  if (!file) {
    GTEST_SKIP() << "the root folder cannot be written";
  }
  EXPECT_EQ("", walk(path));
  EXPECT_EQ(0, unlink(path.c_str()));
  EXPECT_THAT(met.files, ElementsAre(path));
  EXPECT_TRUE(met.writable[path]);
}

TEST_F(WalkerTest, APathWhoseResolvedNameIsUnknownIsMetAsItWasNamed) {
  const std::string path = dir.write("d/file", "x");
  Walker walker({}, met);
  EncounteredFile named = Walker::open(dir.at("d")).value();
  named.resolved.clear();
  walker.walk(std::move(named), 1.0);
  EXPECT_THAT(met.files, ElementsAre(path));
  EXPECT_EQ("", met.resolved[path]);
}

TEST_F(WalkerTest, AnEntryThatIsRemovedBeforeItsTurnIsSkipped) {
  dir.write("tree/a", "x");
  dir.write("tree/b", "x");
  dir.write("tree/sub/file", "x");
  std::string other;
  met.onFile = [&](const std::string& path) {
    other = path == dir.at("tree/a") ? dir.at("tree/b") : dir.at("tree/a");
    std::filesystem::remove(other);
    std::filesystem::remove_all(dir.at("tree/sub"));
  };
  EXPECT_EQ("", walk(dir.at("tree")));
  EXPECT_EQ("was removed while its folder was read", met.skips[other]);
  EXPECT_EQ("was removed while its folder was read", met.skips[dir.at("tree/sub")]);
  EXPECT_THAT(met.failures, IsEmpty());
  EXPECT_NEAR(1.0, met.progress, 1e-9);
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
  EXPECT_THAT(met.files, ElementsAre(open));
  EXPECT_EQ("Permission denied", met.failures[dir.at("tree/hidden")]);
  EXPECT_EQ("Permission denied", met.failures[dir.at("tree/closed")]);
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, AnEmptyFolderIsWalked) {
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_NEAR(1.0, met.progress, 1e-9);
  EXPECT_THAT(met.failures, IsEmpty());
}

TEST_F(WalkerTest, AMissingPathIsAnErrorWithItsReason) {
  EXPECT_THAT(walk(dir.at("absent")), HasSubstr("No such file"));
}

TEST_F(WalkerTest, ARelativePathIsRefused) {
  EXPECT_THAT(walk("tmp"), HasSubstr("absolute"));
}

TEST_F(WalkerTest, TheSizeOfAFileOfThreeGigabytesIsWhole) {
  const std::string path = dir.write("large", "");
  ASSERT_EQ(0, truncate(path.c_str(), 3LL << 30));
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ(3LL << 30, met.sizes[path]);
}

TEST_F(WalkerTest, APseudoFileSystemIsSkippedWithItsName) {
  EXPECT_EQ("", walk("/proc"));
  EXPECT_THAT(met.skips["/proc"], HasSubstr("proc"));
  EXPECT_EQ("", walk("/sys/kernel"));
  EXPECT_THAT(met.skips["/sys/kernel"], HasSubstr("sysfs"));
  EXPECT_TRUE(met.files.empty());
  EXPECT_NEAR(2.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, TheAgentsOwnFolderIsNotEnteredFromAbove) {
  dir.write("state/secret", "x");
  dir.write("other", "x");
  EXPECT_EQ("", walk(dir.path(), excluding("state")));
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("other")));
  EXPECT_THAT(met.skips[dir.at("state")], HasSubstr("agent"));
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, ANeighbourWhoseNameBeginsAsTheAgentsOwnFolderIsWalked) {
  dir.write("state/secret", "x");
  const std::string file = dir.write("state2/file", "x");
  EXPECT_EQ("", walk(dir.at("state2"), excluding("state")));
  EXPECT_EQ("", walk(dir.at("state"), excluding("state")));
  EXPECT_THAT(met.files, ElementsAre(file));
  EXPECT_THAT(met.skips[dir.at("state")], HasSubstr("agent"));
}

TEST_F(WalkerTest, TheAgentsOwnFolderIsNotEnteredByName) {
  dir.write("state/deep/secret", "x");
  ASSERT_EQ(0, symlink("state/deep", dir.at("link").c_str()));
  EXPECT_EQ("", walk(dir.at("link"), excluding("state")));
  EXPECT_EQ("", walk(dir.at("state/deep/secret"), excluding("state")));
  EXPECT_TRUE(met.files.empty());
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
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ(static_cast<std::size_t>(levels), met.files.size());
  EXPECT_TRUE(met.failures.empty());
  EXPECT_NEAR(1.0, met.progress, 1e-6);
}

TEST_F(WalkerTest, AFolderMovedAwayDuringTheWalkIsAnErrorAndNoJump) {
  constexpr int kLevels = 80;      // more than the walk keeps open
  constexpr int kMovedLevels = 6;  // below the top, of those whose parents are closed by then
  std::vector<std::string> folders{dir.at("top")};
  for (int i = 0; i < kLevels; ++i) {
    dir.write(folders.back().substr(dir.path().size() + 1) + "/beside" + std::to_string(i) + "/f", "x");
    folders.push_back(folders.back() + "/d");
    std::filesystem::create_directories(folders.back());
  }
  dir.write(folders.back().substr(dir.path().size() + 1) + "/last", "x");
  std::string left;
  met.onFile = [&](const std::string& path) {
    if (path != folders.back() + "/last") {
      return;
    }
    // A folder with an unvisited neighbour: the walk must come back to the parent.
    for (int i = kMovedLevels; i > 0 && left.empty(); --i) {
      const std::string name = "/beside" + std::to_string(i);
      const std::string neighbour = folders[static_cast<std::size_t>(i)] + name;
      if (met.contents.count(neighbour + "/f") == 0) {
        left = neighbour;
        dir.write("elsewhere" + name + "/f", "not below the named folder");
        std::filesystem::rename(folders[static_cast<std::size_t>(i) + 1], dir.at("elsewhere/d"));
      }
    }
  };
  EXPECT_EQ("", walk(dir.at("top")));
  ASSERT_NE("", left) << "no neighbour was left over";
  EXPECT_THAT(met.failures[left], HasSubstr("moved while it was scanned"));
  for (const auto& [path, content] : met.contents) {
    EXPECT_EQ("x", content) << path;
  }
  EXPECT_NEAR(1.0, met.progress, 1e-6);
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
    EXPECT_EQ("was exchanged while its folder was read", met.skips[path]);
    EXPECT_EQ(0U, met.contents.count(path));
    for (const auto& [file, content] : met.contents) {
      EXPECT_EQ("x", content) << file;
    }
    EXPECT_NEAR(1.0, met.progress, 1e-9);
  }
};

class ExchangedFile : public Exchanged {};
TEST_P(ExchangedFile, IsSkippedWhateverCameInItsPlace) {
  dir.write("tree/a", "x");
  dir.write("tree/b", "x");
  std::string other;
  met.onFile = [&](const std::string& path) {
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
  met.onFile = [&](const std::string& path) {
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

TEST_F(WalkerTest, AFolderMetTwiceIsScannedOnce) {
  dir.write("a/file", "x");
  Walker walker({}, met);
  walker.walk(Walker::open(dir.at("a")).value(), 0.5);
  walker.walk(Walker::open(dir.path()).value(), 0.5);
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("a/file")));
  EXPECT_THAT(met.skips[dir.at("a")], HasSubstr("before"));
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(WalkerTest, AWalkThatIsToldToEndEndsAtTheNextEntry) {
  for (int i = 0; i < 100; ++i) {
    dir.write("f" + std::to_string(i), "x");
  }
  met.allowed = 11;  // the named folder, and ten entries
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ(10U, met.files.size());
}

TEST_F(WalkerTest, AWalkThatIsToldToEndEntersNoFolderMore) {
  dir.write("state/secret", "x");
  met.allowed = 2;  // the named folder, and the entry of the other one
  EXPECT_EQ("", walk(dir.path(), excluding("state")));
  EXPECT_THAT(met.skips, IsEmpty());
}

TEST_F(WalkerTest, AWalkThatIsToldToEndAtOnceOpensNothing) {
  dir.write("file", "x");
  met.allowed = 0;
  EXPECT_EQ("", walk(dir.at("file")));
  EXPECT_THAT(met.files, IsEmpty());
}

TEST_F(WalkerTest, AFolderOfUnknownSizeDealsItsShareOutByBatches) {
  for (int i = 0; i < 250; ++i) {
    dir.write(std::to_string(i), "");
  }
  std::vector<double> progressAt;
  met.onFile = [&](const std::string&) { progressAt.push_back(met.progress); };
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
  EXPECT_EQ(250U, met.files.size());
  EXPECT_NEAR(1.0, met.progress, 1e-6);
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
    Walker walker(options, met);
    walker.walk(Walker::open(path).value(), 1.0, NamedBy::kCaller);
    EXPECT_EQ(path == std::string("/dev/shm"), met.contents.count(far) == 1) << path;
  }
  EXPECT_EQ("network file system nfs", met.skips["/dev/shm"]);
}

TEST_F(WalkerTest, AFolderThatCannotBeReadIsAnErrorWithItsReason) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  Walker walker({}, met);
  EncounteredFile named = Walker::open(dir.path()).value();
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{1, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  walker.walk(std::move(named), 1.0);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  EXPECT_THAT(met.failures[dir.path()], HasSubstr("Too many open files"));
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

/// readdir() as the test says it: file systems that tell no kinds of entries, or fail, are rare.
class ReaddirPlayed : public WalkerTest {
 protected:
  void TearDown() override { onReaddir = nullptr; }
};

TEST_F(ReaddirPlayed, WhereTheFolderTellsNoKindsEachEntryIsAskedForItsOwn) {
  onReaddir = [](dirent* entry) {
    if (entry != nullptr) {
      entry->d_type = DT_UNKNOWN;
    }
    return entry;
  };
  dir.write("outside/secret", "x");
  dir.write("tree/file", "x");
  dir.write("tree/sub/file", "x");
  ASSERT_EQ(0, symlink("../outside", dir.at("tree/link").c_str()));
  ASSERT_EQ(0, symlink("../outside/secret", dir.at("tree/sub/link").c_str()));
  ASSERT_EQ(0, mkfifo(dir.at("tree/fifo").c_str(), 0600));
  EXPECT_EQ("", walk(dir.at("tree")));
  EXPECT_THAT(met.files, UnorderedElementsAre(dir.at("tree/file"), dir.at("tree/sub/file")));
  EXPECT_EQ("symbolic link", met.skips[dir.at("tree/link")]);
  EXPECT_EQ("symbolic link", met.skips[dir.at("tree/sub/link")]);
  EXPECT_EQ("fifo", met.skips[dir.at("tree/fifo")]);
  EXPECT_NEAR(1.0, met.progress, 1e-9);
}

TEST_F(ReaddirPlayed, AFolderThatFailsHalfWayIsAnErrorAndWhatWasReadIsMet) {
  int calls = 0;
  onReaddir = [&calls](dirent* entry) -> dirent* {
    if (++calls <= 3) {
      return entry;
    }
    errno = EIO;
    return nullptr;
  };
  for (int i = 0; i < 10; ++i) {
    dir.write(std::to_string(i), "x");
  }
  calls = 0;
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_THAT(met.failures[dir.path()], HasSubstr("cannot be read to its end: Input/output error"));
  EXPECT_FALSE(met.files.empty());
  EXPECT_LT(met.files.size(), 10U);
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
  EXPECT_THAT(met.files, Contains(file));
  EXPECT_THAT(met.skips["/dev/pts"], HasSubstr("devpts"));
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

INSTANTIATE_TEST_SUITE_P(Rows, FileSystemTable,
                         ::testing::Values(MagicRow{"proc", 0x9fa0, FileSystemKind::kPseudo},
                                           MagicRow{"sysfs", 0x62656572, FileSystemKind::kPseudo},
                                           MagicRow{"cgroup2", 0x63677270, FileSystemKind::kPseudo},
                                           MagicRow{"debugfs", 0x64626720, FileSystemKind::kPseudo},
                                           MagicRow{"devpts", 0x1cd1, FileSystemKind::kPseudo},
                                           MagicRow{"nfs", 0x6969, FileSystemKind::kNetwork},
                                           MagicRow{"cifs", 0xff534d42, FileSystemKind::kNetwork},
                                           MagicRow{"ext4", 0xef53, FileSystemKind::kOrdinary},
                                           MagicRow{"tmpfs", 0x01021994, FileSystemKind::kOrdinary}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace agent
