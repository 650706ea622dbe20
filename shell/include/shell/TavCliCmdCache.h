#pragma once

#include <cstdint>

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The task of CACHE: prints the number of entries in the agent's scan cache, or empties the cache.
class TavCliCmdCacheExec : public TavCliCmdExec {
 public:
  enum Action : std::uint32_t { kShow = 0, kClean = 1 };
  enum Subject : std::uint32_t { kScanCache = 0 };

  std::uint32_t action = kShow;
  std::uint32_t subject = kScanCache;

  /// Returns 0 in all cases. An error of the agent is printed.
  std::int32_t execute() override;
};

class TavCliCmdCache : public TavcliCmdInterface {
 public:
  TavCliCmdCache();
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdCache module;

 private:
  shell::GrammarTable grammar_;
};
