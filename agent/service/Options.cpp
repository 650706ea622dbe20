#include "service/Options.h"

#include <filesystem>
#include <system_error>

#include "platform/Files.h"

namespace agent {

namespace {

struct Row {
  const char* name;
  const char* value;  // null: the option takes no value
  const char* help;
  bool (*apply)(Options&, const std::string&);
};

bool setAction(Options& options, Options::Action action) {
  const bool first = options.action == Options::Action::kServe;
  options.action = action;
  return first;
}

const Row kRows[] = {
    {"--install-dir", "DIR", "the install tree to serve (default: the folder above this program's)",
     [](Options& options, const std::string& value) {
       options.installDir = value;
       return !value.empty();
     }},
    {"--system-signatures", "DIR", "the system's signature database (default: /var/lib/clamav)",
     [](Options& options, const std::string& value) {
       options.systemSignatures = value;
       return !value.empty();
     }},
    {"--log-level", "N", "1 (every entry that is left out) to 4 (errors only); default 2",
     [](Options& options, const std::string& value) {
       options.logLevel = static_cast<LogLevel>(value.size() == 1 ? value[0] - '0' : 0);
       return options.logLevel >= LogLevel::kDebug && options.logLevel <= LogLevel::kError;
     }},
    {"--daemon", nullptr, "go to the background; ends with 0 once the agent serves",
     [](Options& options, const std::string&) {
       options.daemon = true;
       return true;
     }},
    {"--status", nullptr,
     "print what the tree's agent says of itself, one key=value a line; ends with 3 when none runs",
     [](Options& options, const std::string&) { return setAction(options, Options::Action::kStatus); }},
    {"--version", nullptr, "print the version",
     [](Options& options, const std::string&) { return setAction(options, Options::Action::kVersion); }},
    {"--help", nullptr, "print this",
     [](Options& options, const std::string&) { return setAction(options, Options::Action::kHelp); }},
};

const Row* findRow(const std::string& name) {
  for (const Row& row : kRows) {
    if (name == row.name) {
      return &row;
    }
  }
  return nullptr;
}

/// The path as it stands where the current folder is gone. An agent in the background has another folder.
std::string absolute(const std::string& path) {
  std::error_code error;
  const std::filesystem::path whole = std::filesystem::absolute(path, error);
  return error ? path : utils::FormatFilePath(whole.string());
}

}  // namespace

std::string ownTree() {
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : program.parent_path().parent_path().string();
}

std::string usage() {
  std::string text = "usage: tavagentd [options]\n\n";
  for (const Row& row : kRows) {
    const std::string name =
        std::string(row.name) + (row.value == nullptr ? "" : std::string(" ") + row.value);
    text += "  " + name + std::string(name.size() < 26 ? 26 - name.size() : 1, ' ') + row.help + "\n";
  }
  return text +
         "\nIn the foreground unless --daemon is given. SIGTERM ends it, SIGHUP loads the signatures "
         "again.\n";
}

platform::Expected<Options> parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const Row* row = findRow(arguments[i]);
    if (row == nullptr) {
      return platform::failure("unknown argument " + arguments[i]);
    }
    if (row->value != nullptr && i + 1 == arguments.size()) {
      return platform::failure(arguments[i] + " needs a value");
    }
    const std::string value = row->value != nullptr ? arguments[++i] : std::string();
    if (!row->apply(options, value)) {
      return platform::failure(std::string(row->name) + " cannot stand here");
    }
  }
  if (options.installDir.empty()) {
    options.installDir = ownTree();
  }
  options.installDir = absolute(options.installDir);
  options.systemSignatures = absolute(options.systemSignatures);
  if (options.installDir.empty() || options.installDir.front() != '/') {
    return platform::failure("the install tree cannot be told; name it with --install-dir");
  }
  return options;
}

}  // namespace agent
