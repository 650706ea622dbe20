#include "ParseWalk.h"

#include "lineeditor/Terminal.h"

namespace shell {

bool ParseWalk::matched(CliTreeNode& node, std::int32_t* result) {
  anyMatch_ = true;
  CliNodeInfo& info = *node.info;
  if (info.required != 0) {  // satisfies its alternative siblings, too
    for (const CliTreeNode* sibling = node.parent->firstChild.get(); sibling != nullptr;
         sibling = sibling->nextSibling.get()) {
      if (sibling->info->alternative != 0) {
        satisfied_.insert(sibling->info->name);
        missing_.erase(sibling->info->name);
      }
    }
    missing_.erase(info.name);
  }
  std::string value;
  if (info.valueKind != 0) {
    if (words_.empty()) {
      valueMissing_ = true;
      *result = -1;
      return false;
    }
    value = std::move(words_.front());
    words_.pop_front();
  }
  if (info.handler) {
    info.handler(info, value);
  }
  return true;
}

void ParseWalk::unmatched(CliTreeNode& node) {
  const CliNodeInfo& info = *node.info;
  if (info.required == 0) {
    return;
  }
  if (satisfied_.contains(info.name)) {
    missing_.erase(info.name);
  } else {
    missing_.emplace(info.name, info.help);
  }
}

bool ParseWalk::reportMissing() const {
  if (!anyMatch_ || valueMissing_ || missing_.empty()) {
    return false;
  }
  lineeditor::colourPrint(lineeditor::kBrightRed, "缺少必要选项:");
  for (const auto& [name, help] : missing_) {
    lineeditor::colourPrint(lineeditor::kBrightGreen, "%-30s", name.c_str());
    lineeditor::colourPrint(lineeditor::kBrightYellow, "%-30s\n", help.c_str());
  }
  return true;
}

}  // namespace shell
