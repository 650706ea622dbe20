// Scans a folder tree with one worker process and with two (or with the counts given) and prints files a
// second. usage: engine_bench FOLDER [--signatures FOLDER] [--system FOLDER] [--program FILE]
// [--errors] [COUNT...]. --program: the worker template, confined, as the agent runs it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "worker/WorkerPool.h"

namespace {

namespace fs = std::filesystem;

struct Arguments {
  std::string folder;
  agent::Spawner::Config spawner;
  std::vector<unsigned> counts;
  bool showErrors = false;
};

bool read(int argc, char** argv, Arguments& arguments) {
  arguments.spawner.shippedSignatures = TAV_SHIPPED_SIGNATURES;
  arguments.spawner.systemSignatures = "/var/lib/clamav";
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--signatures" && i + 1 < argc) {
      arguments.spawner.shippedSignatures = argv[++i];
    } else if (word == "--system" && i + 1 < argc) {
      arguments.spawner.systemSignatures = argv[++i];
    } else if (word == "--program" && i + 1 < argc) {
      arguments.spawner.program = argv[++i];
      if (geteuid() == 0) {
        arguments.spawner.user = {60706, 60706};
      }
    } else if (word == "--errors") {
      arguments.showErrors = true;
    } else if (word.find_first_not_of("0123456789") == std::string::npos) {
      arguments.counts.push_back(static_cast<unsigned>(std::strtoul(word.c_str(), nullptr, 10)));
    } else {
      arguments.folder = word;
    }
  }
  if (arguments.counts.empty()) {
    arguments.counts = {1, 2};
  }
  return !arguments.folder.empty();
}

std::vector<std::string> filesBelow(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  for (fs::recursive_directory_iterator entry(folder, options, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->is_regular_file(error) && !entry->is_symlink(error)) {
      files.push_back(entry->path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

void scanAll(const Arguments& arguments, agent::Spawner& spawner, const std::vector<std::string>& files,
             unsigned count) {
  std::array<std::atomic<int>, 4> outcomes{};
  const auto begin = std::chrono::steady_clock::now();
  {
    agent::WorkerPool pool(spawner, count);
    for (const auto& file : files) {
      platform::Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
      if (!opened) {
        continue;
      }
      pool.scan(std::move(opened), file, {}, [&, file](const agent::Verdict& verdict) {
        ++outcomes.at(static_cast<std::size_t>(verdict.outcome));
        if (arguments.showErrors && verdict.outcome == agent::Outcome::kError) {
          std::printf("  %s: %s\n", file.c_str(), verdict.reason.c_str());
        }
      });
    }
    pool.drain();
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf(
      "%u worker(s): %zu files in %.2f s, %.0f files/s (%d clean, %d infected, %d error, %d skipped)\n",
      count, files.size(), took.count(), static_cast<double>(files.size()) / took.count(), outcomes[0].load(),
      outcomes[1].load(), outcomes[2].load(), outcomes[3].load());
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  if (!read(argc, argv, arguments)) {
    std::fprintf(
        stderr,
        "usage: %s FOLDER [--signatures FOLDER] [--system FOLDER] [--program FILE] [--errors] [COUNT...]\n",
        argv[0]);
    return 2;
  }
  try {
    agent::Spawner spawner(arguments.spawner);
    const auto begin = std::chrono::steady_clock::now();
    const auto state = spawner.waitLoaded(std::chrono::minutes(5));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%s, loaded in %.2f s\n", state.detail.c_str(), took.count());
    if (!arguments.spawner.program.empty()) {
      std::printf("confinement: %s\n", agent::describe(spawner.confinement()).c_str());
    }
    const auto files = filesBelow(arguments.folder);
    for (const unsigned count : arguments.counts) {
      scanAll(arguments, spawner, files, count);
    }
    return state.loaded ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "engine_bench: %s\n", error.what());
    return 1;
  }
}
