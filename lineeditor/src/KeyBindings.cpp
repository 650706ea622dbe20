#include "KeyLoop.h"

namespace lineeditor {

namespace {

Key ctrl(char letter) {
  return {KeyCode::Control, control(letter)};
}
Key alt(char character) {
  return {KeyCode::Alt, static_cast<unsigned char>(character), true};
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

constexpr unsigned char kBackspaceByte = 127;
constexpr char kBackslash = '\\';

}  // namespace

/// In the order of the table that the console prints as its help; what the help does not name stands at the
/// end.
const KeyLoop::Binding KeyLoop::kBindings[] = {
    {plain(KeyCode::F1), &KeyLoop::showHelp},

    {ctrl('B'), &KeyLoop::left},
    {plain(KeyCode::Left), &KeyLoop::left},
    {ctrl('F'), &KeyLoop::right},
    {plain(KeyCode::Right), &KeyLoop::right},
    {plain(KeyCode::Up), &KeyLoop::upOrPrevious},
    {afterEscape(KeyCode::Up), &KeyLoop::rowUp},
    {plain(KeyCode::Down), &KeyLoop::downOrNext},
    {afterEscape(KeyCode::Down), &KeyLoop::rowDown},
    {ctrl('A'), &KeyLoop::lineStart},
    {plain(KeyCode::Home), &KeyLoop::lineStart},
    {ctrl('E'), &KeyLoop::lineEnd},
    {plain(KeyCode::End), &KeyLoop::lineEnd},
    {ctrl('L'), &KeyLoop::clearWindow},

    {ctrl('H'), &KeyLoop::eraseBefore},
    {{KeyCode::Control, kBackspaceByte}, &KeyLoop::eraseBefore},
    {ctrl('D'), &KeyLoop::endOrEraseAt},
    {plain(KeyCode::Delete), &KeyLoop::eraseAt},
    {alt('u'), &KeyLoop::upperWord},
    {alt('l'), &KeyLoop::lowerWord},
    {alt('c'), &KeyLoop::capitalise},
    {alt(kBackslash), &KeyLoop::eraseBlanksAround},
    {ctrl('T'), &KeyLoop::transpose},

    {ctrl('K'), &KeyLoop::cutToEnd},
    {afterEscape(KeyCode::End), &KeyLoop::cutToEnd},
    {ctrl('U'), &KeyLoop::cutToStart},
    {afterEscape(KeyCode::Home), &KeyLoop::cutToStart},
    {ctrl('X'), &KeyLoop::cutAll},
    {ctrl('Y'), &KeyLoop::pasteCut},
    {ctrl('V'), &KeyLoop::pasteCut},
    {plain(KeyCode::Insert), &KeyLoop::pasteCut},

    {ctrl('I'), &KeyLoop::complete},
    {alt('='), &KeyLoop::listExpected},
    {alt('?'), &KeyLoop::listExpected},

    {ctrl('P'), &KeyLoop::previousEntry},
    {ctrl('N'), &KeyLoop::nextEntry},
    {alt('<'), &KeyLoop::firstEntry},
    {plain(KeyCode::PageUp), &KeyLoop::firstEntry},
    {alt('>'), &KeyLoop::lastEntry},
    {plain(KeyCode::PageDown), &KeyLoop::lastEntry},
    {ctrl('R'), &KeyLoop::searchAll},
    {ctrl('S'), &KeyLoop::searchAll},
    {plain(KeyCode::F4), &KeyLoop::searchCurrent},
    {plain(KeyCode::F2), &KeyLoop::showHistory},
    {plain(KeyCode::F3), &KeyLoop::confirmClear},

    {ctrl('J'), &KeyLoop::accept},
    {ctrl('M'), &KeyLoop::accept},
    {alt('r'), &KeyLoop::emptyLine},

    {ctrl('C'), &KeyLoop::cancel},
    {ctrl('^'), &KeyLoop::debugKeys},

    {alt('b'), &KeyLoop::wordLeft},
    {withCtrl(KeyCode::Left), &KeyLoop::wordLeft},
    {alt('f'), &KeyLoop::wordRight},
    {withCtrl(KeyCode::Right), &KeyLoop::wordRight},
    {ctrl('W'), &KeyLoop::cutWordBefore},
    {{KeyCode::Control, kBackspaceByte, true}, &KeyLoop::cutWordBefore},
    {alt('d'), &KeyLoop::cutWordAfter},
};

KeyLoop::Action KeyLoop::actionFor(const Key& key) {
  for (const Binding& binding : kBindings) {
    if (binding.key.code == key.code && binding.key.byte == key.byte && binding.key.alt == key.alt &&
        binding.key.ctrl == key.ctrl) {
      return binding.action;
    }
  }
  return nullptr;
}

}  // namespace lineeditor
