#include "shell/GrammarTable.h"

#include <stdexcept>

namespace shell {

void GrammarTable::build(CliTree& tree, std::span<const GrammarRow> rows) {
  for (const GrammarRow& row : rows) {
    const std::string& path = row.path;
    const std::size_t blank = path.rfind(' ');
    CliNodeInfo* parent = tree.root();
    std::string name = path;
    if (blank != std::string::npos) {
      const auto above = records_.find(path.substr(0, blank));
      if (above == records_.end()) {
        throw std::logic_error("grammar row \"" + path + "\" stands before its parent");
      }
      parent = above->second.get();
      name = path.substr(blank + 1);
    }
    auto record =
        std::make_unique<CliNodeInfo>(name, static_cast<std::uint8_t>((row.flags & kAlternative) != 0),
                                      static_cast<std::uint8_t>((row.flags & kRequired) != 0), row.valueKind);
    record->help = row.help;
    record->hint = row.hint;
    record->handler = row.handler;
    const auto [place, isNew] = records_.emplace(path, std::move(record));
    if (!isNew) {
      throw std::logic_error("grammar row \"" + path + "\" stands twice");
    }
    if ((row.flags & kDetached) == 0) {
      tree.addChild(parent, place->second.get());
    }
  }
}

const CliNodeInfo* GrammarTable::find(const std::string& path) const {
  const auto found = records_.find(path);
  return found == records_.end() ? nullptr : found->second.get();
}

}  // namespace shell
