#include "task/NamedPrograms.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include "platform/Text.h"

namespace agent {

namespace {

constexpr std::size_t kMostPaths = 1u << 16;
constexpr std::size_t kMostFolders = 64;
constexpr std::string_view kBlanks = " \t\r";
constexpr std::string_view kQuotes = "\"'`";
constexpr std::string_view kSeparators = " \t\r\"'`;&|()<>,=:";
constexpr std::string_view kPrefixes = "-@:!+|";  // of a command in a unit
constexpr std::string_view kHomes[] = {"~/", "$HOME/", "${HOME}/", "%h/"};

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/// Collects the paths of one text.
class PathReader {
 public:
  explicit PathReader(std::string home) : home_(std::move(home)) {}

  /// Folders in which later lines look for their programs.
  void setSearchPath(std::string_view folders) {
    folders_.clear();
    for (const std::string_view folder : CStr::split(folders, ':')) {
      if (folders_.size() == kMostFolders) {
        named_.more = true;
        return;
      }
      if (folder.starts_with('/')) {
        folders_.emplace_back(folder);
      }
    }
  }

  void addLine(std::string_view line) {
    addQuoted(line);
    addParts(line, kBlanks);
    addParts(line, kSeparators);
  }

  NamedPaths take() { return std::move(named_); }

 private:
  /// A path with blanks stands in quotes.
  void addQuoted(std::string_view line) {
    std::size_t begin = 0;
    while ((begin = line.find_first_of(kQuotes, begin)) != std::string_view::npos) {
      const std::size_t end = line.find(line[begin], begin + 1);
      if (end == std::string_view::npos) {
        return;
      }
      add(line.substr(begin + 1, end - begin - 1));
      begin = end + 1;
    }
  }

  void addParts(std::string_view line, std::string_view separators) {
    std::size_t begin = 0;
    while ((begin = line.find_first_not_of(separators, begin)) != std::string_view::npos) {
      const std::size_t end = std::min(line.find_first_of(separators, begin), line.size());
      add(line.substr(begin, end - begin));
      begin = end;
    }
  }

  void add(std::string_view name) {
    name.remove_prefix(std::min(name.find_first_not_of(kPrefixes), name.size()));
    if (seen_.size() >= kMostPaths) {
      named_.more = true;
      return;
    }
    if (name.starts_with('/')) {
      keep(std::string(name));
      return;
    }
    for (const std::string_view prefix : kHomes) {
      if (name.starts_with(prefix) && !home_.empty()) {
        keep(home_ + "/" + std::string(name.substr(prefix.size())));
        return;
      }
    }
    if (name.find('/') != std::string_view::npos) {
      if (!home_.empty()) {
        keep(home_ + "/" + std::string(name));
      }
      return;
    }
    for (const std::string& folder : folders_) {
      if (!name.empty()) {
        keep(folder + "/" + std::string(name));
      }
    }
  }

  void keep(const std::string& path) {
    if (seen_.insert(path).second) {
      named_.paths.push_back(path);
    }
  }

  const std::string home_;
  std::vector<std::string> folders_;
  std::unordered_set<std::string> seen_;
  NamedPaths named_;
};

void readStatement(SettingKind kind, std::string_view statement, PathReader& paths) {
  const std::size_t equals = statement.find('=');
  const bool assigns = equals != std::string_view::npos;
  const std::string_view key = trimmed(statement.substr(0, assigns ? equals : 0));
  if (kind == SettingKind::kUnit) {
    if (key.starts_with("Exec")) {
      paths.addLine(statement.substr(equals + 1));
    }
    return;
  }
  if (key == "PATH") {
    std::string folders(statement.substr(equals + 1));
    std::erase_if(folders, [](char c) { return kQuotes.find(c) != std::string_view::npos || c == ' '; });
    paths.setSearchPath(folders);
    return;
  }
  paths.addLine(statement);
}

}  // namespace

NamedPaths programsNamedIn(SettingKind kind, std::string_view text, const std::string& home) {
  PathReader paths(home);
  std::string statement;
  for (const std::string_view raw : CStr::split(text, '\n')) {
    std::string_view line = trimmed(raw);
    if (line.starts_with('#') || line.starts_with(';')) {
      continue;  // also between a line and its continuation
    }
    const bool continues = line.ends_with('\\');
    line.remove_suffix(continues ? 1 : 0);
    statement += line;
    if (continues) {
      statement += ' ';
    } else {
      readStatement(kind, statement, paths);
      statement.clear();
    }
  }
  readStatement(kind, statement, paths);
  return paths.take();
}

}  // namespace agent
