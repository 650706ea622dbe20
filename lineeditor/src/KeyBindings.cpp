#include "KeyLoop.h"

namespace lineeditor {

namespace {

Key ctrl(char letter) {
  return {KeyCode::kControl, control(letter)};
}
Key alt(char character) {
  return {KeyCode::kAlt, static_cast<unsigned char>(character), true};
}
Key plain(KeyCode code) {
  return {code};
}
Key afterEscape(KeyCode code) {
  return {code, 0, true};
}
Key withCtrl(KeyCode code) {
  return {code, 0, false, true};
}

constexpr bool kMainPromptOnly = true;
constexpr char kBackslash = '\\';

}  // namespace

/// The rows stand in the order of the console's key help. Keys that the help does not name stand at the end.
const KeyLoop::Binding KeyLoop::kBindings[] = {
    {plain(KeyCode::kF1), &KeyLoop::showHelp},

    {ctrl('B'), &KeyLoop::edit<&EditorState::left>},
    {plain(KeyCode::kLeft), &KeyLoop::edit<&EditorState::left>},
    {ctrl('F'), &KeyLoop::edit<&EditorState::right>},
    {plain(KeyCode::kRight), &KeyLoop::edit<&EditorState::right>},
    {plain(KeyCode::kUp), &KeyLoop::upOrPrevious},
    {afterEscape(KeyCode::kUp), &KeyLoop::rowUp},
    {plain(KeyCode::kDown), &KeyLoop::downOrNext},
    {afterEscape(KeyCode::kDown), &KeyLoop::rowDown},
    {ctrl('A'), &KeyLoop::lineStart},
    {plain(KeyCode::kHome), &KeyLoop::lineStart},
    {ctrl('E'), &KeyLoop::lineEnd},
    {plain(KeyCode::kEnd), &KeyLoop::lineEnd},
    {ctrl('L'), &KeyLoop::clearWindow},

    {ctrl('H'), &KeyLoop::edit<&EditorState::eraseBefore>},
    {{KeyCode::kControl, kBackspaceByte}, &KeyLoop::edit<&EditorState::eraseBefore>},
    {ctrl('D'), &KeyLoop::endOrEraseAt},
    {plain(KeyCode::kDelete), &KeyLoop::edit<&EditorState::eraseAt>},
    {alt('u'), &KeyLoop::edit<&EditorState::upperWord>},
    {alt('l'), &KeyLoop::edit<&EditorState::lowerWord>},
    {alt('c'), &KeyLoop::edit<&EditorState::capitalise>},
    {alt(kBackslash), &KeyLoop::edit<&EditorState::eraseBlanksAround>},
    {ctrl('T'), &KeyLoop::edit<&EditorState::transposeBefore>},

    {ctrl('K'), &KeyLoop::cutToEnd},
    {afterEscape(KeyCode::kEnd), &KeyLoop::cutToEnd},
    {ctrl('U'), &KeyLoop::cutToStart},
    {afterEscape(KeyCode::kHome), &KeyLoop::cutToStart},
    {ctrl('X'), &KeyLoop::cutAll},
    {ctrl('Y'), &KeyLoop::pasteCut},
    {ctrl('V'), &KeyLoop::pasteCut},
    {plain(KeyCode::kInsert), &KeyLoop::pasteCut},

    {ctrl('I'), &KeyLoop::complete},
    {alt('='), &KeyLoop::listExpected},
    {alt('?'), &KeyLoop::listExpected},

    {ctrl('P'), &KeyLoop::previousEntry},
    {ctrl('N'), &KeyLoop::nextEntry},
    {alt('<'), &KeyLoop::firstEntry},
    {plain(KeyCode::kPageUp), &KeyLoop::firstEntry},
    {alt('>'), &KeyLoop::lastEntry},
    {plain(KeyCode::kPageDown), &KeyLoop::lastEntry},
    {ctrl('R'), &KeyLoop::searchAll, kMainPromptOnly},
    {ctrl('S'), &KeyLoop::searchAll, kMainPromptOnly},
    {plain(KeyCode::kF4), &KeyLoop::searchCurrent, kMainPromptOnly},
    {plain(KeyCode::kF2), &KeyLoop::showHistory, kMainPromptOnly},
    {plain(KeyCode::kF3), &KeyLoop::confirmClear, kMainPromptOnly},

    {ctrl('J'), &KeyLoop::accept},
    {ctrl('M'), &KeyLoop::accept},
    {alt('r'), &KeyLoop::emptyLine},

    {ctrl('C'), &KeyLoop::cancel},
    {ctrl('^'), &KeyLoop::debugKeys, kMainPromptOnly},

    {alt('b'), &KeyLoop::wordLeft},
    {withCtrl(KeyCode::kLeft), &KeyLoop::wordLeft},
    {alt('f'), &KeyLoop::wordRight},
    {withCtrl(KeyCode::kRight), &KeyLoop::wordRight},
    {ctrl('W'), &KeyLoop::cutWordBefore},
    {{KeyCode::kControl, kBackspaceByte, true}, &KeyLoop::cutWordBefore},
    {alt('d'), &KeyLoop::cutWordAfter},
};

const KeyLoop::Binding* KeyLoop::bindingFor(const Key& key) {
  for (const Binding& binding : kBindings) {
    if (binding.key.code == key.code && binding.key.byte == key.byte && binding.key.alt == key.alt &&
        binding.key.ctrl == key.ctrl) {
      return &binding;
    }
  }
  return nullptr;
}

}  // namespace lineeditor
