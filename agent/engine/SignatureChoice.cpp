#include "engine/SignatureChoice.h"

#include <clamav.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/Text.h"

namespace agent {
namespace {

constexpr std::size_t kMostReasons = 8;
constexpr std::size_t kLongestReason = 300;

// A database whose head cannot be read counts as the newest: its load names it.
unsigned versionOf(const std::string& path) {
  const std::unique_ptr<cl_cvd, void (*)(cl_cvd*)> head(cl_cvdhead(path.c_str()), cl_cvdfree);
  return head ? head->version : std::numeric_limits<unsigned>::max();
}

// Whether the file is the beginning of its copy and ends within a line: somebody wrote it, and did not end.
bool isCutOff(const std::string& path, const std::string& copy) {
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(path, error);
  if (error || bytes >= std::filesystem::file_size(copy, error) || error) {
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  std::ifstream whole(copy, std::ios::binary);
  char last = 0;
  for (std::uintmax_t left = bytes; left > 0; --left) {
    char expected = 0;
    if (!file.get(last) || !whole.get(expected) || last != expected) {
      return false;
    }
  }
  return last != '\n';
}

std::string shortened(std::string text) {
  if (text.size() > kLongestReason) {
    text.resize(kLongestReason);
    text += " ...";
  }
  return platform::visibleText(text);
}

std::string joined(const std::vector<std::string>& reasons) {
  std::string text;
  for (std::size_t i = 0; i < std::min(reasons.size(), kMostReasons); ++i) {
    text += (i == 0 ? "" : "; ") + reasons[i];
  }
  return reasons.size() <= kMostReasons
             ? text
             : text + "; and " + std::to_string(reasons.size() - kMostReasons) + " more";
}

void addName(std::vector<std::string>& names, const std::string& name) {
  if (names.size() < SignatureState::kMostFiles && name.size() <= SignatureState::kLongestName) {
    names.push_back(name);
  }
}

}  // namespace

SignatureChoice::SignatureChoice(const SignatureFolder& system, const SignatureFolder& copies,
                                 bool copyForMissing)
    : problem_(system.problem()), present_(system.present()), whole_(!system.unreadable()) {
  for (const std::string& name : system.names()) {
    Slot* slot = slotOf(databaseOf(name));
    if (slot == nullptr) {
      slot = &slots_.emplace_back();
      slot->key = databaseOf(name);
    }
    slot->candidates.push_back({name, system.at(name)});
  }
  for (Slot& slot : slots_) {
    if (slot.candidates.size() > 1) {
      std::stable_sort(slot.candidates.begin(), slot.candidates.end(),
                       [](const Candidate& one, const Candidate& other) {
                         return versionOf(one.path) > versionOf(other.path);
                       });
    }
  }
  addCopies(copies, copyForMissing);
}

SignatureChoice::Slot* SignatureChoice::slotOf(const std::string& key) {
  const auto found =
      std::find_if(slots_.begin(), slots_.end(), [&](const Slot& slot) { return slot.key == key; });
  return found == slots_.end() ? nullptr : &*found;
}

void SignatureChoice::addCopies(const SignatureFolder& copies, bool copyForMissing) {
  std::size_t place = 0;
  for (const std::string& name : copies.names()) {
    Slot* slot = slotOf(databaseOf(name));
    if (slot == nullptr && !copyForMissing) {
      continue;
    }
    if (slot == nullptr) {
      // Copies are listed in the order of loading, too.
      slot = &*slots_.emplace(slots_.begin() + static_cast<std::ptrdiff_t>(std::min(place, slots_.size())));
      slot->key = databaseOf(name);
      slot->reasons.push_back(shortened(name) + " is missing");
    }
    place = static_cast<std::size_t>(slot - slots_.data()) + 1;
    const Candidate copy{name, copies.at(name), true};
    const auto original = std::find_if(slot->candidates.begin(), slot->candidates.end(),
                                       [&](const Candidate& one) { return one.name == name; });
    const bool cutOff = original != slot->candidates.end() && isCutOff(original->path, copy.path);
    slot->candidates.push_back(copy);
    if (cutOff) {
      refuse(slot->candidates.front().path, "the file is cut off");
    }
  }
}

std::vector<std::string> SignatureChoice::paths() const {
  std::vector<std::string> found;
  for (const Slot& slot : slots_) {
    if (slot.chosen() != nullptr) {
      found.push_back(slot.chosen()->path);
    }
  }
  return found;
}

void SignatureChoice::refuse(const std::string& path, const std::string& reason) {
  for (Slot& slot : slots_) {
    if (slot.chosen() != nullptr && slot.chosen()->path == path) {
      slot.reasons.push_back(shortened((slot.chosen()->isCopy ? "the copy of " : "") + slot.chosen()->name +
                                       " is left out: " + reason));
      ++slot.next;
    }
  }
}

void SignatureChoice::refuseAll(const std::string& reason) {
  for (Slot& slot : slots_) {
    slot.next = slot.candidates.size();
  }
  problem_ = reason;
  whole_ = false;
}

std::vector<std::string> SignatureChoice::reasons() const {
  std::vector<std::string> all;
  if (!whole_ || !present_ || slots_.empty()) {
    all.push_back(problem_);
  }
  for (const Slot& slot : slots_) {
    for (std::size_t i = 0; i < slot.reasons.size(); ++i) {
      const bool instead = i + 1 == slot.reasons.size() && slot.chosen() != nullptr;
      const std::string server = !instead ? ""
                                 : slot.chosen()->isCopy
                                     ? ", and the last good copy is in use"
                                     : ", and " + shortened(slot.chosen()->name) + " is in use";
      all.push_back(slot.reasons[i] + server);
    }
  }
  return all;
}

void SignatureChoice::describe(SignatureState& state) const {
  state.unsettled = !whole_;
  for (const Slot& slot : slots_) {
    const Candidate* chosen = slot.chosen();
    if (chosen == nullptr || chosen->isCopy) {
      addName(state.notInUse, slot.key);
    }
    if (chosen != nullptr && chosen->isCopy) {
      addName(state.copies, chosen->name);
    }
  }
  const std::vector<std::string> why = reasons();
  const bool some = !paths().empty();
  if (why.empty()) {
    state.system = SystemDatabase::kInForce;
    return;
  }
  state.system = some                          ? SystemDatabase::kPartly
                 : present_ || !slots_.empty() ? SystemDatabase::kLeftOut
                                               : SystemDatabase::kNone;
  state.shortage = std::string(some ? "not all of the system's signatures are in use: "
                                    : "the system's signatures are not in use: ") +
                   joined(why);
}

}  // namespace agent
