// The engine's calls of libclamav, and its use of the results. The functions here replace libclamav's: they
// record their arguments, answer as a test says, or call the real ones.

#include <clamav.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>

#include "EngineFixture.h"
#include "json/CppJson.h"

namespace {

struct Library {
  std::map<cl_engine_field, long long> numbers;  ///< the last value of each
  cl_scan_options options{};                     ///< of the last scan
  std::string name;
  clcb_msg say = nullptr;                       ///< the engine's message callback
  std::function<void()> duringScan;             ///< runs before the real scan
  std::function<cl_error_t(cl_error_t)> ended;  ///< replaces the result of the scan
  cl_error_t started = CL_SUCCESS;
  cl_error_t compiled = CL_SUCCESS;
  std::string doesNotLoad;                                 ///< a file that fails without a message
  std::map<const cl_engine*, std::string> loaded;          ///< the paths of an engine's files, in order
  std::function<bool(const std::string&)> doesNotCompile;  ///< an engine with those files
  std::string version;                                     ///< empty: the real one
};
Library library;

template <class Function>
Function* realOne(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" cl_error_t cl_engine_set_num(cl_engine* engine, cl_engine_field field, long long number) {
  library.numbers[field] = number;
  return realOne<decltype(cl_engine_set_num)>("cl_engine_set_num")(engine, field, number);
}

extern "C" cl_error_t cl_init(unsigned options) {
  return library.started != CL_SUCCESS ? library.started : realOne<decltype(cl_init)>("cl_init")(options);
}

extern "C" cl_error_t cl_engine_free(cl_engine* engine) {
  library.loaded.erase(engine);
  return realOne<decltype(cl_engine_free)>("cl_engine_free")(engine);
}

extern "C" cl_error_t cl_engine_compile(cl_engine* engine) {
  if (library.doesNotCompile && library.doesNotCompile(library.loaded[engine])) {
    return CL_EMALFDB;
  }
  return library.compiled != CL_SUCCESS ? library.compiled
                                        : realOne<decltype(cl_engine_compile)>("cl_engine_compile")(engine);
}

extern "C" cl_error_t cl_load(const char* path, cl_engine* engine, unsigned* count, unsigned options) {
  library.loaded[engine] += std::string(path) + " ";
  return library.doesNotLoad == path ? CL_EOPEN
                                     : realOne<decltype(cl_load)>("cl_load")(path, engine, count, options);
}

extern "C" const char* cl_retver() {
  return library.version.empty() ? realOne<decltype(cl_retver)>("cl_retver")() : library.version.c_str();
}

extern "C" void cl_set_clcb_msg(clcb_msg callback) {
  library.say = callback;
  realOne<decltype(cl_set_clcb_msg)>("cl_set_clcb_msg")(callback);
}

extern "C" cl_error_t cl_scandesc_callback(int desc, const char* filename, const char** virname,
                                           unsigned long* scanned, const cl_engine* engine,
                                           cl_scan_options* options, void* context) {
  library.options = *options;
  library.name = filename;
  if (library.duringScan) {
    library.duringScan();
  }
  const cl_error_t result = realOne<decltype(cl_scandesc_callback)>("cl_scandesc_callback")(
      desc, filename, virname, scanned, engine, options, context);
  return library.ended ? library.ended(result) : result;
}

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;

class EngineAndLibrary : public testing::EngineFixture {
 protected:
  EngineAndLibrary() { forget(); }
  ~EngineAndLibrary() override { forget(); }
  static void forget() {
    const clcb_msg say = library.say;
    library = {};
    library.say = say;
  }
  static std::string versionNow(const std::string& shipped = testing::kShippedSignatures) {
    return newEngine(shipped, "/nonexistent")->signatures().version;
  }
};

TEST_F(EngineAndLibrary, EveryLimitThatTheLibraryAppliesSilentlyIsTheFileLimit) {
  const EngineLimits limits = smallLimits();
  load(limits);
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_SCANSIZE], static_cast<long long>(limits.maxScanBytes));
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_FILES], limits.maxFiles);
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_RECURSION], limits.maxRecursion);
  scan("text");
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_SCANTIME], 0xFFFFFFFF);  // the budget counts the time
  for (const cl_engine_field field :
       {CL_ENGINE_MAX_FILESIZE, CL_ENGINE_MAX_EMBEDDEDPE, CL_ENGINE_MAX_HTMLNORMALIZE,
        CL_ENGINE_MAX_HTMLNOTAGS, CL_ENGINE_MAX_SCRIPTNORMALIZE, CL_ENGINE_MAX_ZIPTYPERCG,
        CL_ENGINE_PCRE_MAX_FILESIZE}) {
    EXPECT_EQ(library.numbers[field], static_cast<long long>(limits.maxFileBytes)) << field;
  }
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_PARTITIONS], 1024);
  EXPECT_EQ(library.numbers[CL_ENGINE_MAX_RECHWP3], 64);
  EXPECT_EQ(library.numbers[CL_ENGINE_DISABLE_CACHE], 1);
}

TEST_F(EngineAndLibrary, TheFileLimitIsOneOrMoreWholeBlocksBelowTwoGibibytes) {
  constexpr std::uint64_t kBlock = 64 * 1024;
  for (const auto& [wanted, kept] : {std::pair{std::uint64_t{0}, kBlock},
                                     {kBlock - 1, kBlock},
                                     {kBlock, kBlock},
                                     {2 * kBlock - 1, kBlock},
                                     {2 * kBlock, 2 * kBlock},
                                     {std::uint64_t{1} << 40, std::uint64_t{0x7FFF0000}}}) {
    EngineLimits limits = smallLimits();
    limits.maxFileBytes = wanted;
    load(limits);
    EXPECT_EQ(library.numbers[CL_ENGINE_MAX_FILESIZE], static_cast<long long>(kept)) << wanted;
    const std::string sparse = dir().write("sparse", "");
    std::filesystem::resize_file(sparse, kept + 1);
    EXPECT_EQ(scanPath(sparse).reason,
              "larger than the engine's limit of " + std::to_string(kept) + " bytes for one file");
  }
}

TEST_F(EngineAndLibrary, AllMatchesAndAlertsForLeftOutContentAreRequested) {
  scan("some text");
  EXPECT_EQ(library.options.general, unsigned{CL_SCAN_GENERAL_ALLMATCHES | CL_SCAN_GENERAL_HEURISTICS});
  EXPECT_EQ(library.options.heuristic,
            unsigned{CL_SCAN_HEURISTIC_EXCEEDS_MAX | CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE |
                     CL_SCAN_HEURISTIC_ENCRYPTED_DOC});
  EXPECT_EQ(library.options.parse, ~unsigned{CL_SCAN_PARSE_IMAGE_FUZZY_HASH});
}

TEST_F(EngineAndLibrary, SlowChecksRunOnlyInStrongScansWithTheHeuristicEngine) {
  for (const bool strong : {false, true}) {
    for (const bool engineOn : {false, true}) {
      ScanOptions options;
      options.heuristics = strong;
      options.enabledEngines = engineOn ? ~0U : ~(1U << json::kEngineUmb);
      scan("some text", options);
      EXPECT_EQ((library.options.heuristic & CL_SCAN_HEURISTIC_BROKEN) != 0, strong && engineOn)
          << strong << engineOn;
    }
  }
}

TEST_F(EngineAndLibrary, WithArchivesOffTheLibraryUnpacksNoArchive) {
  ScanOptions off;
  off.archives = false;
  scan("some text", off);
  EXPECT_EQ(library.options.parse & CL_SCAN_PARSE_ARCHIVE, 0U);
}

TEST_F(EngineAndLibrary, PicturesAreDecodedWhenALoadedSignatureComparesPictures) {
  const std::string line = "Other.Picture;Engine:150-255,Target:0;0;fuzzy_img#af2ad01ed42993c7\n";
  const auto decoded = [&] {
    scan("some text");
    return (library.options.parse & CL_SCAN_PARSE_IMAGE_FUZZY_HASH) != 0;
  };
  load(smallLimits());
  EXPECT_FALSE(decoded());
  dir().write("system/a.ldb", line);
  load(smallLimits(), dir().at("system"));
  EXPECT_TRUE(decoded());
  dir().write("system/a.ldb", line + "this is no signature\n");
  load(smallLimits(), dir().at("system"));
  EXPECT_FALSE(decoded()) << "the file is left out";
  const std::string own = dir().at("own");
  std::filesystem::copy(testing::kShippedSignatures, own);
  dir().write("own/a.ldb", line);
  const platform::Descriptor file(open(dir().write("file", "some text").c_str(), O_RDONLY | O_CLOEXEC));
  newEngine(own, "/nonexistent")->scan(file.get(), "file", {});
  EXPECT_NE(library.options.parse & CL_SCAN_PARSE_IMAGE_FUZZY_HASH, 0U)
      << "a signature of ours compares pictures";
}

TEST_F(EngineAndLibrary, TheLibraryGetsOnlyTheLastComponentOfAPath) {
  scan("some text", {}, "folder/sub/name.txt");
  EXPECT_EQ(library.name, "name.txt");
}

TEST_F(EngineAndLibrary, OnlyAnErrorMessageDuringAScanMakesAnError) {
  load(smallLimits());
  ASSERT_NE(library.say, nullptr);
  library.duringScan = [] { library.say(CL_MSG_WARN, "all", "a warning\n", nullptr); };
  EXPECT_EQ(scan("some text").outcome, Outcome::kClean);
  library.duringScan = [] { library.say(CL_MSG_ERROR, "all", "an error  \n", nullptr); };
  const Verdict verdict = scan("some text");
  EXPECT_EQ(verdict.outcome, Outcome::kError);
  EXPECT_EQ(verdict.reason, "the engine reports: an error");
}

TEST_F(EngineAndLibrary, AFailedScanIsAnErrorEvenWithoutAMessage) {
  library.ended = [](cl_error_t) { return CL_EMEM; };
  const Verdict verdict = scan("some text");
  EXPECT_EQ(verdict.outcome, Outcome::kError) << describe(verdict);
  EXPECT_THAT(verdict.reason, HasSubstr("the engine reports: "));
}

// In a fresh process: the library starts once in each.
TEST_F(EngineAndLibrary, ALibraryThatDoesNotStartLoadsNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  library.started = CL_EMEM;
  const auto load = [] {
    const auto loaded = Engine::load({testing::kShippedSignatures, "/nonexistent", smallLimits()});
    std::fprintf(stderr, "%s\n", loaded ? "loaded" : loaded.error().c_str());
    _exit(loaded ? 1 : 0);
  };
  EXPECT_EXIT(load(), ::testing::ExitedWithCode(0), "the engine cannot start: ");
}

TEST_F(EngineAndLibrary, SignaturesThatDoNotCompileAreNotLoaded) {
  library.compiled = CL_EMALFDB;
  const auto loaded = Engine::load({testing::kShippedSignatures, "/nonexistent", smallLimits()});
  ASSERT_FALSE(loaded);
  EXPECT_THAT(loaded.error(), HasSubstr("cannot be compiled"));
}

TEST_F(EngineAndLibrary, AFileThatDoesNotCompileIsLeftOutAlone) {
  dir().write("system/a.ndb", "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n");
  dir().write("system/b.ndb", "Other.Trojan.Two:0:*:74776f206f66207468652073797374656d73\n");
  library.doesNotCompile = [](const std::string& files) { return files.find("/b.ndb") != std::string::npos; };
  load(smallLimits(), dir().at("system"));
  EXPECT_THAT(state().shortage, HasSubstr("b.ndb is left out: the signatures cannot be compiled"));
  EXPECT_EQ(scan("one of the systems").outcome, Outcome::kInfected);
}

TEST_F(EngineAndLibrary, FilesThatDoNotCompileTogetherAreAllLeftOut) {
  dir().write("system/a.ndb", "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n");
  dir().write("system/b.ndb", "Other.Trojan.Two:0:*:74776f206f66207468652073797374656d73\n");
  library.doesNotCompile = [](const std::string& files) {
    return files.find("/a.ndb") != std::string::npos && files.find("/b.ndb") != std::string::npos;
  };
  load(smallLimits(), dir().at("system"));
  EXPECT_EQ(state().system, SystemDatabase::kLeftOut);
  EXPECT_THAT(state().shortage, HasSubstr("not in use: the signatures cannot be compiled"));
  EXPECT_EQ(scan(testsupport::eicar()).outcome, Outcome::kInfected);
}

TEST_F(EngineAndLibrary, AFailureWithoutAMessageDoesNotShowTheMessageOfAnEarlierLoad) {
  dir().write("system/broken.ndb", "this is no signature\n");
  load(smallLimits(), dir().at("system"));
  EXPECT_THAT(state().detail, HasSubstr("("));
  library.doesNotLoad = dir().at("system/broken.ndb");
  load(smallLimits(), dir().at("system"));
  EXPECT_EQ(state().system, SystemDatabase::kLeftOut);
  EXPECT_THAT(state().detail, ::testing::Not(HasSubstr("(")));
}

TEST_F(EngineAndLibrary, TheVersionChangesWithTheLibraryAndWithOurSignatures) {
  const std::string first = versionNow();
  library.version = "another version";
  EXPECT_NE(versionNow(), first);
  library.version.clear();
  EXPECT_EQ(versionNow(), first);
  const std::string own = dir().at("own");
  std::filesystem::copy(testing::kShippedSignatures, own);
  const std::string copied = versionNow(own);
  dir().write("own/more.ndb", "TAV.Test.More:0:*:6d6f7265\n");
  EXPECT_NE(versionNow(own), copied);
}

}  // namespace
}  // namespace agent
