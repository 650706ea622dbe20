// Random keys against a plain model: after each key the screen shows the line of the model, and readLine
// returns the line of the model. TAV_RANDOM_KEYS sets the number of keys, TAV_RANDOM_SEED the seed.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "lineeditor/EditorFixture.h"
#include "lineeditor/Notices.h"

namespace lineeditor {

namespace {

constexpr std::size_t kMaxCharacters = 400;  // well over a window of 20 columns, well under 4095 bytes

/// The rules of the editor, on a list of characters.
struct EditorModel {
  PlainModel line;
  std::vector<std::string> cut;
  std::vector<std::string> history;
  std::size_t back = 0;
  std::map<std::size_t, std::string> edits;  // edits of history entries, until the line is accepted

  using Range = std::vector<std::string>;
  Range& chars() { return line.characters; }
  auto at(std::size_t index) { return chars().begin() + static_cast<std::ptrdiff_t>(index); }

  void insert(const Range& text) {
    chars().insert(at(line.cursor), text.begin(), text.end());
    line.cursor += text.size();
  }
  void erase(std::size_t from, std::size_t to) {
    chars().erase(at(from), at(to));
    line.cursor = from;
  }
  void take(std::size_t from, std::size_t to) {
    if (from < to) {
      cut = Range(at(from), at(to));
      erase(from, to);
    }
  }
  static bool delimiter(const std::string& c) { return c.size() == 1 && std::ispunct(c[0]) != 0; }
  bool separates(std::size_t i) { return chars()[i] == " " || delimiter(chars()[i]); }
  std::size_t skipped() {
    std::size_t i = line.cursor;
    while (i < chars().size() && separates(i)) {
      ++i;
    }
    return i;
  }
  std::size_t wordEnd() {
    std::size_t i = skipped();
    while (i < chars().size() && !separates(i)) {
      ++i;
    }
    return i;
  }
  std::size_t wordStart() {
    std::size_t i = line.cursor;
    while (i > 0 && separates(i - 1)) {
      --i;
    }
    while (i > 0 && !separates(i - 1)) {
      --i;
    }
    return i;
  }
  void changeCase(int (*change)(int), std::size_t from, std::size_t to) {
    if (from >= to) {
      return;
    }
    for (std::size_t i = from; i < to; ++i) {
      std::string& c = chars()[i];
      if (c == "\u00E9" || c == "\u00C9") {
        c = change('a') == 'A' ? "\u00C9" : "\u00E9";
      } else {
        c[0] = static_cast<unsigned char>(c[0]) < 0x80 ? static_cast<char>(change(c[0])) : c[0];
      }
    }
    line.cursor = wordEnd();
  }
  void eraseBlanks() {
    std::size_t from = line.cursor;
    std::size_t to = line.cursor;
    while (from > 0 && chars()[from - 1] == " ") {
      --from;
    }
    while (to < chars().size() && chars()[to] == " ") {
      ++to;
    }
    erase(from, to);
  }
  void complete() {  // "SCAN" is all there is
    std::size_t start = line.cursor;
    while (start > 0 && chars()[start - 1] != " ") {
      --start;
    }
    const std::size_t length = line.cursor - start;
    if (length < 1 || length > 4) {
      return;
    }
    for (std::size_t i = 0; i < length; ++i) {
      if (chars()[start + i] != std::string(1, "SCAN"[i]) &&
          chars()[start + i] != std::string(1, "scan"[i])) {
        return;
      }
    }
    const bool blankFollows = line.cursor < chars().size() && chars()[line.cursor] == " ";
    erase(start, line.cursor + (blankFollows ? 1 : 0));
    insert({"S", "C", "A", "N", " "});
  }
  void show(const std::string& text) { line = modelOf(text, false); }
  void browse(std::size_t to) {
    to = std::min(to, history.size());
    if (to == back) {
      return;
    }
    leaveEntry(to);
    show(edits.contains(to) ? edits[to] : history[history.size() - to]);
  }
  void leaveEntry(std::size_t to) {
    edits[back] = line.text();
    back = to;
  }
  bool moveRow(int rows, int cols) {
    const int row = place(line.cursor, cols).cursorRow;
    const int col = place(line.cursor, cols).cursorCol;
    std::optional<std::size_t> best;
    for (std::size_t i = 0; i <= chars().size(); ++i) {
      const PlainModel::Screen there = place(i, cols);
      if (there.cursorRow == row + rows && (!best || there.cursorCol <= col)) {
        best = i;
      }
    }
    if (best) {
      line.cursor = *best;
    }
    return best.has_value();
  }
  PlainModel::Screen place(std::size_t cursor, int cols) {
    PlainModel other{line.characters, cursor};
    return other.screen("TAV> ", cols);
  }
  void start() {
    line = PlainModel{};
    back = 0;
    edits.clear();
  }
  void accept() {
    std::string text = line.text();
    if (text.ends_with(' ')) {
      text.pop_back();
    }
    if (!text.empty() && text != "history" && (history.empty() || history.back() != text)) {
      history.push_back(text);
    }
    show(text);
  }
};

struct RandomKey {
  int weight;
  std::string bytes;
  std::function<void(EditorModel&, int cols)> effect;
};

std::vector<RandomKey> makeKeys() {
  using M = EditorModel;
  std::vector<RandomKey> keys;
  for (const char* c : {"a", "s", "C", "n", "S", "Z", "9", " ", " ", ",", "/", "中", "文", "扫", "\u00E9",
                        "e\u0301", "i\u0302"}) {
    keys.push_back({20, c, [c](M& m, int) { m.insert({c}); }});
  }
  const auto add = [&](int weight, const char* bytes, std::function<void(M&, int)> effect) {
    keys.push_back({weight, bytes, std::move(effect)});
  };
  const auto leftOne = [](M& m, int) { m.line.cursor -= m.line.cursor > 0 ? 1 : 0; };
  const auto rightOne = [](M& m, int) { m.line.cursor += m.line.cursor < m.chars().size() ? 1 : 0; };
  const auto eraseBefore = [](M& m, int) {
    if (m.line.cursor > 0) {
      m.erase(m.line.cursor - 1, m.line.cursor);
    }
  };
  const auto eraseAt = [](M& m, int) {
    if (m.line.cursor < m.chars().size()) {
      m.erase(m.line.cursor, m.line.cursor + 1);
    }
  };
  add(20, "\x02", leftOne);
  add(20, "\033[D", leftOne);
  add(15, "\x06", rightOne);
  add(15, "\033OC", rightOne);
  add(8, "\x01", [](M& m, int) { m.line.cursor = 0; });
  add(8, "\033[4~", [](M& m, int) { m.line.cursor = m.chars().size(); });
  add(10, "\x7f", eraseBefore);
  add(10, "\033[3~", eraseAt);
  add(6, "\x14", [](M& m, int) {
    if (m.line.cursor >= 2) {
      std::swap(m.chars()[m.line.cursor - 1], m.chars()[m.line.cursor - 2]);
    }
  });
  add(6, "\033u", [](M& m, int) { m.changeCase(std::toupper, m.skipped(), m.wordEnd()); });
  add(6, "\033L", [](M& m, int) { m.changeCase(std::tolower, m.skipped(), m.wordEnd()); });
  add(6, "\033c", [](M& m, int) {
    const std::size_t from = m.skipped();
    if (from < m.chars().size()) {
      m.changeCase(std::toupper, from, from + 1);
    }
  });
  add(4, "\033\\", [](M& m, int) { m.eraseBlanks(); });
  add(6, "\033b", [](M& m, int) { m.line.cursor = m.wordStart(); });
  add(6, "\033[1;5C", [](M& m, int) { m.line.cursor = m.wordEnd(); });
  add(3, "\x17", [](M& m, int) { m.take(m.wordStart(), m.line.cursor); });
  add(3, "\033d", [](M& m, int) { m.take(m.line.cursor, m.wordEnd()); });
  add(2, "\x0b", [](M& m, int) { m.take(m.line.cursor, m.chars().size()); });
  add(2, "\x15", [](M& m, int) { m.take(0, m.line.cursor); });
  add(1, "\x18", [](M& m, int) { m.take(0, m.chars().size()); });
  add(10, "\x19", [](M& m, int) { m.insert(m.cut); });
  add(1, "\033R", [](M& m, int) { m.erase(0, m.chars().size()); });
  add(6, "\t", [](M& m, int) { m.complete(); });
  add(5, "\x10", [](M& m, int) { m.browse(m.back + 1); });
  add(5, "\x0e", [](M& m, int) { m.browse(m.back - (m.back > 0 ? 1 : 0)); });
  add(2, "\033<", [](M& m, int) { m.browse(256); });
  add(2, "\033[6~", [](M& m, int) { m.browse(1); });
  add(12, "\033[A", [](M& m, int cols) {
    if (!m.moveRow(-1, cols)) {
      m.browse(m.back + 1);
    }
  });
  add(12, "\033OB", [](M& m, int cols) {
    if (!m.moveRow(1, cols) && m.back > 0) {
      m.browse(m.back - 1);
    }
  });
  add(8, "\033\033[A", [](M& m, int cols) { m.moveRow(-1, cols); });
  add(8, "\033[1;3B", [](M& m, int cols) { m.moveRow(1, cols); });
  add(2, "\x0c", [](M&, int) {});
  add(2, "\033[19~", [](M&, int) {});
  add(2, "\033[?1;2c", [](M&, int) {});
  add(2, "\033[200~a\r中 b\r\n\033[201~", [](M& m, int) { m.insert({"a", " ", "中", " ", "b", " "}); });
  return keys;
}

class RandomKeys : public EditorFixture, public ::testing::WithParamInterface<std::tuple<unsigned, bool>> {
 protected:
  void SetUp() override {
    EditorFixture::SetUp();
    setCompletionHook([](const char* text, CompletionState* state) {
      const std::string before = text;
      const std::string word = before.substr(before.find_last_of(' ') + 1);
      if (!word.empty() && strncasecmp("SCAN", word.c_str(), word.size()) == 0) {
        addCandidate(state, "SCAN", kBrightYellow, "扫描", kCyan);
      }
      return 1;
    });
    const char* count = std::getenv("TAV_RANDOM_KEYS");
    left_ = count != nullptr ? std::atol(count) : 10000;
    const char* seed = std::getenv("TAV_RANDOM_SEED");
    seed_ = seed != nullptr ? static_cast<unsigned>(std::atol(seed)) : std::get<0>(GetParam());
    random_.seed(seed_);
    terminal().onIdle = [this] { press(); };
  }

  bool oneIn(unsigned count) { return random_() % count == 0; }
  void press();
  bool pressSpecial();
  void pressFromTable();
  bool historyFitsOnOnePage();
  void run();

  const std::vector<RandomKey> keys_ = makeKeys();
  EditorModel model_;
  std::mt19937 random_;
  unsigned seed_ = 0;
  std::string last_ = "nothing";
  bool accepts_ = false;
  bool cancels_ = false;
  long left_ = 0;
  long pressed_ = 0;
};

/// Called when the editor waits for a key. Compares the screen with the model, then presses the next key.
void RandomKeys::press() {
  EXPECT_TRUE(shows(model_.line)) << "after " << last_ << ", key " << pressed_ << " of seed " << seed_;
  if (HasFailure() || left_ == 0) {
    return;  // the input ends
  }
  --left_;
  ++pressed_;
  if (!pressSpecial()) {
    pressFromTable();
  }
}

bool RandomKeys::historyFitsOnOnePage() {
  int rows = 0;
  for (const std::string& entry : model_.history) {
    rows += (displayWidth(entry) + 7 + terminal().size().cols - 1) / terminal().size().cols;
  }
  return rows < terminal().size().rows - 2;
}

bool RandomKeys::pressSpecial() {
  if (model_.chars().size() > kMaxCharacters) {
    last_ = "Alt-R";
    terminal().type("\033r");
    model_.erase(0, model_.chars().size());
  } else if (oneIn(60)) {
    last_ = "Enter";
    accepts_ = true;
    terminal().type("\r");
    model_.accept();
  } else if (oneIn(400)) {
    last_ = "Ctrl-C";
    cancels_ = true;
    terminal().type("\x03");
  } else if (oneIn(150)) {
    static const int kWidths[] = {20, 23, 40, 61, 80};
    const int cols = kWidths[random_() % 5];
    last_ = "a window of " + std::to_string(cols) + " columns";
    terminal().resizeTo(24, cols);
  } else if (oneIn(100) && !model_.history.empty() && historyFitsOnOnePage()) {
    last_ = "a search";
    terminal().type("\x12\r\r");
    model_.leaveEntry(0);
    model_.show(model_.history[0]);
  } else if (oneIn(100) && historyFitsOnOnePage()) {
    last_ = "F2";
    terminal().type("\033OQ");
  } else if (oneIn(200)) {
    last_ = "F3 y";
    terminal().type("\033ORy");
    model_.history.clear();
    model_.back = 0;
  } else {
    return false;
  }
  return true;
}

void RandomKeys::pressFromTable() {
  int total = 0;
  for (const RandomKey& key : keys_) {
    total += key.weight;
  }
  int pick = static_cast<int>(random_() % static_cast<unsigned>(total));
  std::size_t chosen = 0;
  while ((pick -= keys_[chosen].weight) >= 0) {
    ++chosen;
  }
  last_ = ::testing::PrintToString(keys_[chosen].bytes);
  keys_[chosen].effect(model_, terminal().size().cols);
  terminal().type(keys_[chosen].bytes);
}

void RandomKeys::run() {
  while (left_ > 0 && !HasFailure()) {
    accepts_ = cancels_ = false;
    model_.start();
    const std::optional<std::string> line = read();
    if (accepts_) {
      EXPECT_EQ(line, model_.line.text());
    } else {
      EXPECT_EQ(line, std::nullopt);
      EXPECT_TRUE(!cancels_ || readErrno == EAGAIN);
    }
  }
  std::printf("%ld keys, seed %u\n", pressed_, seed_);
}

TEST_P(RandomKeys, TheScreenAndTheLineAreTheModelsAfterEachKey) {
  std::atomic<bool> stop{false};
  std::thread notices;
  if (std::get<1>(GetParam())) {
    notices = std::thread([&stop] {
      for (int i = 1; !stop.load(); ++i) {
        printNotice("\n扫描进度: " + std::to_string(i) + "%\n");
        std::this_thread::sleep_for(std::chrono::microseconds(300));
      }
    });
  }
  run();
  stop.store(true);
  if (notices.joinable()) {
    notices.join();
  }
}

INSTANTIATE_TEST_SUITE_P(, RandomKeys,
                         ::testing::Combine(::testing::Values(1U, 20U, 333U), ::testing::Bool()),
                         [](const auto& test) {
                           return "Seed" + std::to_string(std::get<0>(test.param)) +
                                  (std::get<1>(test.param) ? "WithNoticesThroughout" : "");
                         });

class RandomBytes : public EditorFixture, public ::testing::WithParamInterface<unsigned> {};

/// No bytes make the editor crash, exceed the limit of a line, return a line end, or lose the cursor.
TEST_P(RandomBytes, NeverUpsetTheEditor) {
  std::mt19937 random(GetParam());
  const auto pick = [&random](std::size_t count) { return random() % count; };
  static const std::string kLikely = "\033\033\033[[O;0123456789~ABCDHFPQRS$^@ \t\x18\x12\x13\r\r yq中";
  setKeyHelp([] { plainPrint("help\n"); });
  long left = 20000;
  terminal().onIdle = [&] {
    terminal().look([](const auto& screen) {
      EXPECT_LT(screen.cursorRow(), screen.rows());
      EXPECT_LT(screen.cursorCol(), screen.cols());
    });
    std::string bytes;
    for (std::size_t i = 0, count = 1 + pick(8); i < count && left > 0; ++i, --left) {
      bytes += pick(3) == 0 ? static_cast<char>(pick(256)) : kLikely[pick(kLikely.size())];
    }
    terminal().type(bytes);
    if (pick(5) == 0) {
      terminal().pause();
    }
    if (pick(50) == 0) {
      terminal().resizeTo(static_cast<int>(2 + pick(30)), static_cast<int>(2 + pick(90)));
    }
  };
  char buffer[200];
  while (left > 0 && !HasFailure()) {
    const char* line = readLine("TAV> ", buffer, sizeof buffer);
    if (line != nullptr) {
      EXPECT_LT(std::string_view(line).size(), sizeof buffer);
      EXPECT_EQ(std::string_view(line).find_first_of("\r\n"), std::string_view::npos);
    }
  }
  std::printf("20000 bytes, seed %u\n", GetParam());
}

INSTANTIATE_TEST_SUITE_P(, RandomBytes, ::testing::Values(1U, 2U, 3U, 4U),
                         [](const auto& test) { return "Seed" + std::to_string(test.param); });

}  // namespace

}  // namespace lineeditor
