#include "lineeditor/Completion.h"

#include "Utf8.h"

namespace lineeditor {

namespace {

std::string cut(const char* text, std::size_t maxBytes) {
  return text == nullptr ? std::string() : std::string(cutAtCharacter(text, maxBytes));
}

}  // namespace

void addCandidate(CompletionState* state, const char* name, std::uint32_t nameColour, const char* help,
                  std::uint32_t helpColour) {
  if (state == nullptr || name == nullptr || state->candidates.size() >= CompletionState::kMaxCandidates) {
    return;
  }
  state->candidates.push_back({cut(name, CompletionState::kMaxNameBytes), nameColour,
                               cut(help, CompletionState::kMaxHelpBytes), helpColour});
}

void addCandidate(CompletionState* state, const char* name, const char* help) {
  addCandidate(state, name, 0, help, 0);
}

void setHint(CompletionState* state, const char* text, std::uint32_t colour) {
  if (state != nullptr) {
    state->hint = cut(text, CompletionState::kMaxHintBytes);
    state->hintColour = colour;
  }
}

void setHint(CompletionState* state, const char* text) {
  setHint(state, text, 0);
}

}  // namespace lineeditor
