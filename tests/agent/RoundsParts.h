#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <variant>
#include <vector>

/// What the programs that kill at random moments have in common: their options, and the files that must be
/// there after each round. Used by quarantine_rounds (the store alone) and agent_rounds (the whole agent).
/// A file counts once: in place or in the quarantine.
namespace rounds {

/// --name VALUE, as a number of at least `smallest` or as text.
struct Option {
  const char* name;
  std::variant<unsigned long*, std::string*> value;
  unsigned long smallest = 0;
};
/// False when the command line holds anything else; then the usage is told on stderr.
bool readOptions(int argc, char** argv, const std::vector<Option>& options);

/// What must be the same after each round.
struct Original {
  std::string path, sha256;
  mode_t mode = 0;
  uid_t uid = 0;
  std::int64_t modifyNs = 0;
  friend bool operator==(const Original&, const Original&) = default;
};

std::string randomBytes(std::size_t count, std::mt19937_64& random);

/// Files in nested folders, and what they were when they were made.
class Originals {
 public:
  /// Told of each file that is not as it must be: what, and why.
  using Fail = std::function<void(const std::string& what, const std::string& why)>;
  struct Places {
    std::size_t inPlace = 0, inQuarantine = 0, lost = 0, twice = 0;
  };

  /// content: of the file of that number. std::runtime_error when one cannot be written.
  Originals(std::string folder, std::size_t count, const std::function<std::string(std::size_t)>& content);

  const std::vector<Original>& all() const { return all_; }
  const std::string& folder() const { return folder_; }
  std::size_t size() const { return all_.size(); }
  /// Where the files are, the quarantine holding those of these paths. What is in place is looked into.
  Places count(const std::multiset<std::string>& quarantined, const Fail& fail) const;
  /// All are in place, as they were, and nothing else is there.
  void checkAll(const Fail& fail) const;

 private:
  std::string folder_;
  std::vector<Original> all_;
};

}  // namespace rounds
