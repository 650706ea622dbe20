#include "shell/TavCliCmdCommon.h"

#include "lineeditor/History.h"
#include "shell/HelpScreens.h"
#include "shell/TavCliCompletion.h"

namespace {

using shell::GrammarRow;
using shell::kChoice;
using shell::kNoHelp;
using shell::kNoHint;
using shell::kNoValue;

template <void (*act)()>
std::uint8_t atOnce(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  act();
  return 1;
}

void quitConsole() {
  TavCliCompletion::instance().quit();
}
void showHistory() {
  lineeditor::historyShow();
}

const GrammarRow kGrammar[] = {
    {"QUIT", kNoHelp, kNoHint, kChoice, kNoValue, atOnce<quitConsole>},
    {"HELP", "显示帮助信息", kNoHint, kChoice, kNoValue, nullptr},
    {"HELP CTRL", "显示快捷键说明", kNoHint, kChoice, kNoValue, atOnce<showKeyHelp>},
    {"HELP APP", "显示程序说明", kNoHint, kChoice, kNoValue, atOnce<showApplicationHelp>},
    {"HISTORY", "显示命令历史", kNoHint, kChoice, kNoValue, atOnce<showHistory>},
};

}  // namespace

TavCliCmdCommon TavCliCmdCommon::module;

TavCliCmdCommon::TavCliCmdCommon() : TavcliCmdInterface("common") {
  registerSelf();
}

int TavCliCmdCommon::buildTree(CliTree* tree) {
  grammar_.build(*tree, kGrammar);
  return 1;
}
