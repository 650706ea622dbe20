#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The words that may come next on a line. The completion hook fills the state; the editor shows the state.
namespace lineeditor {

struct Candidate {
  std::string name;  ///< at most 63 bytes
  std::uint32_t nameColour = 0;
  std::string help;  ///< at most 255 bytes, may be empty
  std::uint32_t helpColour = 0;
};

struct CompletionState {
  static constexpr std::size_t kMaxCandidates = 512;
  static constexpr std::size_t kMaxNameBytes = 63;
  static constexpr std::size_t kMaxHelpBytes = 255;
  static constexpr std::size_t kMaxHintBytes = 127;

  std::vector<Candidate> candidates;
  std::string hint;  ///< at most 127 bytes
  std::uint32_t hintColour = 0;
};

/// Longer texts are cut between two characters. The 513th candidate and later ones are ignored. help may be
/// null.
void addCandidate(CompletionState* state, const char* name, std::uint32_t nameColour, const char* help,
                  std::uint32_t helpColour);
void addCandidate(CompletionState* state, const char* name, const char* help);
void setHint(CompletionState* state, const char* text, std::uint32_t colour);
void setHint(CompletionState* state, const char* text);

}  // namespace lineeditor
