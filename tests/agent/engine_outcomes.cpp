// Prints the outcome of each file of a folder, and how many files have which outcome. For the files that
// tests/generators makes: exit code 1 when one of them is clean.

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <vector>

#include "EngineFixture.h"

namespace agent::testing {
namespace {

constexpr const char* kNames[] = {"clean", "infected", "error", "skipped"};

int run(const std::string& folder, const std::string& system) {
  auto engine = Engine::load({kShippedSignatures, system, {}});
  if (!engine) {
    std::fprintf(stderr, "%s\n", engine.error().c_str());
    return 2;
  }
  const testsupport::TempDir temp("/dev/shm");
  (*engine)->setTempFolders("", temp.path());
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file() && !entry.is_symlink()) {
      files.push_back(entry.path().string());
    }
  }
  std::sort(files.begin(), files.end());
  std::map<std::string, int> counts;
  for (const auto& path : files) {
    const platform::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const Verdict verdict = (*engine)->scan(file.get(), path, {});
    const char* name = kNames[static_cast<int>(verdict.outcome)];
    ++counts[name];
    std::printf("%s\t%s\t%s\n", name, path.c_str(), verdict.reason.c_str());
  }
  for (const char* name : kNames) {
    std::printf("%s: %d\n", name, counts[name]);
  }
  return counts["clean"] == 0 ? 0 : 1;
}

}  // namespace
}  // namespace agent::testing

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: engine_outcomes FOLDER [FOLDER-OF-THE-SYSTEM'S-SIGNATURES]\n");
    return 2;
  }
  return agent::testing::run(argv[1], argc > 2 ? argv[2] : "/nonexistent");
}
