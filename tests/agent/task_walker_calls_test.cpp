// Walks over file systems that fail, give no kinds of entries, or change below the walk.

#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "WalkerTest.h"

namespace {

/// Changes the answers of readdir(); null: no change.
std::function<dirent*(dirent*)> onReaddir;
/// Changes the status that fstat() has read; false makes the call fail. Null: no change.
std::function<bool(int fd, struct stat&)> onFstat;
/// False makes fdopendir() fail. Null: no change.
std::function<bool(int fd)> onFdopendir;

}  // namespace

// In place of the library's own, for this whole program.
extern "C" {

dirent* readdir(DIR* directory) {
  static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
  dirent* const entry = real(directory);
  return onReaddir ? onReaddir(entry) : entry;
}

int fstat(int fd, struct stat* status) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, struct stat*)>(dlsym(RTLD_NEXT, "fstat"));
  const int result = real(fd, status);
  if (result == 0 && onFstat && !onFstat(fd, *status)) {
    errno = EIO;
    return -1;
  }
  return result;
}

DIR* fdopendir(int fd) {
  static const auto real = reinterpret_cast<DIR* (*)(int)>(dlsym(RTLD_NEXT, "fdopendir"));
  if (onFdopendir && !onFdopendir(fd)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(fd);
}

}  // extern "C"

namespace agent {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

/// readdir() as the test sets it: file systems that give no kinds of entries, or fail, are rare.
class ReaddirPlayed : public WalkerTest {
 protected:
  void TearDown() override { onReaddir = nullptr; }
};

TEST_F(ReaddirPlayed, WhereTheFolderGivesNoKindsEachEntryIsAskedForItsOwn) {
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
  EXPECT_THAT(sink.files, UnorderedElementsAre(dir.at("tree/file"), dir.at("tree/sub/file")));
  EXPECT_EQ("symbolic link", sink.skips[dir.at("tree/link")]);
  EXPECT_EQ("symbolic link", sink.skips[dir.at("tree/sub/link")]);
  EXPECT_EQ("fifo", sink.skips[dir.at("tree/fifo")]);
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(ReaddirPlayed, AFolderThatFailsHalfWayIsAnErrorAndWhatWasReadIsEncountered) {
  int calls = 0;
  onReaddir = [&calls](dirent* entry) -> dirent* {
    if (++calls <= 5) {
      return entry;
    }
    errno = EIO;
    return nullptr;
  };
  for (int i = 0; i < 10; ++i) {
    dir.write(std::to_string(i), "x");
  }
  calls = 0;
  EXPECT_EQ("", walk(dir.path(), inBatchesOf(2)));
  EXPECT_THAT(sink.failures[dir.path()], HasSubstr("cannot be read to its end: Input/output error"));
  EXPECT_FALSE(sink.files.empty());
  EXPECT_LT(sink.files.size(), 10U);
}

/// fstat() and fdopendir() as the test sets them: a file system that fails, or a disk that changes below the
/// walk, is rare.
class CallsPlayed : public WalkerTest {
 protected:
  void TearDown() override {
    onFstat = nullptr;
    onFdopendir = nullptr;
  }
  static std::string pathOf(int fd) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
  }
};

TEST_F(CallsPlayed, ANamedPathWhoseStatusCannotBeReadIsAnError) {
  const std::string path = dir.write("file", "x");
  onFstat = [](int, struct stat&) { return false; };
  EXPECT_THAT(walk(path), HasSubstr("Input/output error"));
  EXPECT_THAT(walk(dir.path()), HasSubstr("Input/output error"));
  EXPECT_THAT(sink.files, IsEmpty());
}

TEST_F(CallsPlayed, ANamedPathThatBecameSomethingElseMeanwhileIsSkippedAsThat) {
  const std::string path = dir.write("file", "x");
  onFstat = [](int, struct stat& status) {
    status.st_mode = S_IFIFO;
    return true;
  };
  EXPECT_EQ("", walk(path));
  EXPECT_EQ("fifo", sink.skips[path]);
  EXPECT_THAT(sink.files, IsEmpty());
}

TEST_F(CallsPlayed, AnEntryWhoseStatusCannotBeReadIsAnErrorEach) {
  dir.write("file", "x");
  dir.write("sub/file", "x");
  onFstat = [this](int fd, struct stat&) { return pathOf(fd) == dir.path(); };
  EXPECT_EQ("", walk(dir.path()));
  EXPECT_EQ("Input/output error", sink.failures[dir.at("file")]);
  EXPECT_EQ("Input/output error", sink.failures[dir.at("sub")]);
  EXPECT_THAT(sink.everyPath(), UnorderedElementsAre(dir.at("file"), dir.at("sub")));
  EXPECT_NEAR(1.0, sink.progress, 1e-9);
}

TEST_F(CallsPlayed, WhateverKeepsTheWalkFromAFolderThoseBesideItAreScanned) {
  constexpr int kEach = 8;
  const std::vector<std::string> kinds{"free", "before", "own", "unknown", "unread"};
  Walker::Options options;
  for (const std::string& kind : kinds) {
    for (int i = 0; i < kEach; ++i) {
      const std::string name = std::to_string(i) + kind;
      dir.write("tree/" + name + "/file", "x");
      if (kind == "own") {
        options.excludedFolders.push_back(dir.at("tree/" + name));
      }
    }
  }
  Walker walker(options, sink);
  for (int i = 0; i < kEach; ++i) {
    walker.walk(Walker::open(dir.at("tree/" + std::to_string(i) + "before")).value(), 0);
  }
  sink.files.clear();
  EncounteredFile named = Walker::open(dir.at("tree")).value();
  onFstat = [](int fd, struct stat&) { return !pathOf(fd).ends_with("unknown"); };
  onFdopendir = [](int fd) { return !pathOf(fd).ends_with("unread"); };
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  walker.walk(std::move(named), 1.0);
  EXPECT_EQ(before - 1, descriptors());  // the named folder is closed by now
  EXPECT_EQ(std::size_t{kEach}, sink.files.size());
  EXPECT_EQ(std::size_t{2 * kEach}, sink.skips.size());
  EXPECT_EQ(std::size_t{2 * kEach}, sink.failures.size());
  EXPECT_EQ("the same folder was met before", sink.skips[dir.at("tree/0before")]);
  EXPECT_EQ("kept by the agent itself", sink.skips[dir.at("tree/0own")]);
  EXPECT_EQ("Input/output error", sink.failures[dir.at("tree/0unknown")]);
  EXPECT_EQ("Cannot allocate memory", sink.failures[dir.at("tree/0unread")]);
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

/// What the status of a folder has become on the way back up to it.
struct WayBackRow {
  const char* name;
  std::function<bool(struct stat&)> become;
};
class WayBack : public CallsPlayed, public ::testing::WithParamInterface<WayBackRow> {};

TEST_P(WayBack, ToAnotherFolderIsNotTaken) {
  constexpr int kLevels = 70;  // more than the walk keeps open: the upper ones are closed at the deepest
  std::vector<std::string> folders{"top"};
  for (int i = 0; i < kLevels; ++i) {
    dir.write(folders.back() + "/beside" + std::to_string(i) + "/f", "x");
    folders.push_back(folders.back() + "/d");
  }
  const std::string last = dir.write(folders.back() + "/last", "x");
  std::string left;  // a neighbour that was not entered before the way down
  sink.onFile = [&](const std::string& path) {
    for (int i = 5; path == last && i >= 0 && left.empty(); --i) {
      const std::string folder = dir.at(folders[static_cast<std::size_t>(i)]);
      const std::string neighbour = folder + "/beside" + std::to_string(i);
      if (sink.contents.count(neighbour + "/f") == 0) {
        left = neighbour;
        onFstat = [folder](int fd, struct stat& status) {
          return pathOf(fd) != folder || GetParam().become(status);
        };
      }
    }
  };
  EXPECT_EQ("", walk(dir.at("top")));
  ASSERT_NE("", left) << "no neighbour was left over";
  EXPECT_EQ("its folder was moved while it was scanned", sink.failures[left]);
  EXPECT_EQ(0U, sink.contents.count(left + "/f"));
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

INSTANTIATE_TEST_SUITE_P(When, WayBack,
                         ::testing::Values(WayBackRow{"ItsStatusCannotBeRead",
                                                      [](struct stat&) { return false; }},
                                           WayBackRow{"ItIsOnAnotherDisk",
                                                      [](struct stat& status) {
                                                        ++status.st_dev;
                                                        return true;
                                                      }},
                                           WayBackRow{"ItHasAnotherNumber",
                                                      [](struct stat& status) {
                                                        ++status.st_ino;
                                                        return true;
                                                      }}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace agent
