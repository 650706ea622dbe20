#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <variant>
#include <vector>

/// The parts that the programs with kills at random moments share: the options, and the files that must be
/// there after each round. Used by quarantine_rounds (the store alone) and agent_rounds (the whole agent). A
/// file counts once: in place or in the quarantine.
namespace rounds {

/// --name VALUE, as a number of at least `smallest` or as text.
struct Option {
  const char* name;
  std::variant<unsigned long*, std::string*> value;
  unsigned long smallest = 0;
};
/// False when the command line holds anything else; the usage then goes to stderr.
bool readOptions(int argc, char** argv, const std::vector<Option>& options);

/// The facts of a file that must be the same after each round.
struct Original {
  std::string path, sha256;
  mode_t mode = 0;
  uid_t uid = 0;
  std::int64_t modifyNs = 0;
  friend bool operator==(const Original&, const Original&) = default;
};

std::string randomBytes(std::size_t count, std::mt19937_64& random);

/// Files in nested folders, and their facts at the time of their making.
class Originals {
 public:
  /// Called for each file that differs from its original: what, and why.
  using Fail = std::function<void(const std::string& what, const std::string& why)>;
  struct Places {
    std::size_t inPlace = 0, inQuarantine = 0, lost = 0, twice = 0;
  };

  /// content: of the file of that number. std::runtime_error when one cannot be written.
  Originals(std::string folder, std::size_t count, const std::function<std::string(std::size_t)>& content);

  const std::vector<Original>& all() const { return all_; }
  const std::string& folder() const { return folder_; }
  std::size_t size() const { return all_.size(); }
  /// The places of the files, when the quarantine holds the files of these paths. Compares the content of the
  /// files in place.
  Places count(const std::multiset<std::string>& quarantined, const Fail& fail) const;
  /// Checks that all files are in place and unchanged, and that the folder holds no others.
  void checkAll(const Fail& fail) const;

 private:
  std::string folder_;
  std::vector<Original> all_;
};

}  // namespace rounds
