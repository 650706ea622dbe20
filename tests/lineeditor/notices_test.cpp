// Notices of another thread appear above the prompt; the half-typed line stays as it was.
#include "lineeditor/Notices.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

void noticeFromAnotherThread(const std::string& block) {
  std::thread(printNotice, block).join();
}

class NoticesAt : public EditorFixture, public ::testing::WithParamInterface<Surroundings> {
 protected:
  void SetUp() override {
    EditorFixture::SetUp();
    open(24, GetParam().cols);
  }
  PlainModel model(std::string_view text) { return modelOf(surrounded(GetParam(), text), true); }
};
const Surroundings kWindows[] = {
    {"Ascii", "", "x", 80},           {"Chinese", "扫描中文", "中", 50}, {"WrappedAt20", kLong, "x", 20},
    {"WrappedAt40", kLong, "中", 40}, {"WrappedAt50", kLong, "x", 50},   {"WrappedAt80", kLong, "x", 80},
};
INSTANTIATE_TEST_SUITE_P(, NoticesAt, ::testing::ValuesIn(kWindows),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(NoticesAt, TheHalfTypedLineComesBackWithTheCursorWhereItWas) {
  const PlainModel half = model("^a~|c d~");
  typeThen(keysFor(half), [&] {
    EXPECT_TRUE(shows(half));
    noticeFromAnotherThread("\n扫描任务开始: \n");
    EXPECT_TRUE(shows(half));
    EXPECT_EQ(terminal().row(1), "扫描任务开始:");
    noticeFromAnotherThread("\n扫描进度: 50%\n");
    EXPECT_TRUE(shows(half));
    EXPECT_EQ(terminal().row(3), "扫描进度: 50%");
    EXPECT_TRUE(terminal().row(4).starts_with("TAV> "));
  });
  typeThen("!", [&] { EXPECT_TRUE(shows(model("^a~!|c d~"))); });
  EXPECT_EQ(readKeys("\r"), model("^a~!c d~").text());
}

class Notice : public EditorFixture {
 protected:
  void SetUp() override {
    EditorFixture::SetUp();
    storeLines(60);
  }
  /// The notice appears at the top, and the screen of before is one line lower.
  void comesAbove() {
    const std::string before = terminal().text();
    const int row = terminal().cursorRow();
    const int col = terminal().cursorCol();
    noticeFromAnotherThread("notice\n");
    EXPECT_EQ(terminal().text(), "notice\n" + before);
    EXPECT_EQ(terminal().cursorRow(), row + 1);
    EXPECT_EQ(terminal().cursorCol(), col);
  }
};

TEST_F(Notice, ComesAboveAnEmptyPrompt) {
  terminal().onIdle = [this] { comesAbove(); };
  read();
}

TEST_F(Notice, ComesAboveTheSearchsPatternPrompt) {
  typeThen("typed\x12li\x02", [this] { comesAbove(); });
  EXPECT_EQ(readKeys("\x05ne 7\r\r\r"), "line 7");
}

TEST_F(Notice, ComesAboveTheSearchsListAndItsIdPrompt) {
  typeThen("typed\x12\"line 7\"\r", [this] {
    comesAbove();
    EXPECT_EQ(terminal().text(),
              "notice\nInput Patterns <F1> help: \"line 7\"\n   1  line 7\nInput history id: 1");
  });
  typeThen("\r", nullptr);
  typeThen("!", [this] { EXPECT_EQ(terminal().text(), "notice\nTAV> line 7!"); });
  EXPECT_EQ(readKeys("\r"), "line 7!");
}

TEST_F(Notice, ComesAboveThePagersPromptOfASearch) {
  typeThen("\x12\r", [this] {
    EXPECT_EQ(terminal().row(22), "  23  line 23");
    noticeFromAnotherThread("notice\n");
    EXPECT_EQ(terminal().row(22), "  23  line 23");
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
    EXPECT_EQ(terminal().look([](const auto& screen) { return screen.scrolledOff().back(); }), "notice");
  });
  typeThen(" ", [this] { EXPECT_EQ(terminal().row(22), "  46  line 46"); });
  EXPECT_EQ(readKeys("q\x03!\r"), "!");
}

TEST_F(Notice, ComesAboveThePagersPromptOfAListing) {
  terminal().onIdle = [this] {
    noticeFromAnotherThread("notice\n");
    EXPECT_EQ(terminal().row(21), "  23  line 23");
    EXPECT_EQ(terminal().row(22), "notice");
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
    terminal().onIdle = nullptr;
    terminal().type(" q");
  };
  historyShow();
  flushOutput();
  EXPECT_EQ(terminal().row(22), "  46  line 46");
}

TEST_F(Notice, ComesAboveACompletionList) {
  offer({{"SCAN", "扫描"}, {"SHOW", "help"}});
  typeThen("s\033=", [this] {
    comesAbove();
    EXPECT_EQ(terminal().text(), "notice\nTAV> s\nSCAN  扫描   SHOW  help");
  });
  typeThen("c", [this] { EXPECT_EQ(terminal().text(), "notice\nTAV> sc"); });
  read();
}

TEST_F(Notice, ComesAboveTheQuestionWhetherToClearTheHistory) {
  typeThen("typed\033OR", [this] {
    noticeFromAnotherThread("notice\n");
    EXPECT_EQ(terminal().text(), "TAV> typed\nnotice\n!!! Confirm to clear history [y]:");
  });
  EXPECT_EQ(readKeys("n!\r"), "typed!");
}

TEST_F(Notice, ComesBetweenTheKeysOfTheDebugMode) {
  typeThen(
      "\x1e"
      "a",
      [this] {
        noticeFromAnotherThread("notice\n");
        EXPECT_TRUE(terminal().text().ends_with(" 97 0x61 (a)\nnotice"));
      });
  EXPECT_EQ(readKeys("\x03!\r"), "!");
}

TEST_F(Notice, WithoutAPromptGoesOutAsItIs) {
  printNotice("\nfirst\n\nsecond");
  EXPECT_EQ(terminal().written(), "\nfirst\n\nsecond");
}

TEST_F(Notice, WithoutATerminalGoesOutAsItIs) {
  terminal().isTerminal = false;
  terminal().onIdle = [] { printNotice("\n扫描进度: 5%\n"); };
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_EQ(terminal().written(), "\n扫描进度: 5%\n");
}

TEST_F(Notice, OnADumbTerminalGoesOutAsItIs) {
  terminal().isUsable = false;
  terminal().onIdle = [] { printNotice("\n扫描进度: 5%\n"); };
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_EQ(terminal().written(), "\n扫描进度: 5%\n");
}

TEST_F(Notice, WithoutALineEndGetsOneAboveAPrompt) {
  typeThen("typed", [this] {
    noticeFromAnotherThread("no line end");
    EXPECT_EQ(terminal().text(), "no line end\nTAV> typed");
  });
  read();
}

TEST_F(Notice, OfNothingLeavesTheScreen) {
  typeThen("typed", [this] {
    noticeFromAnotherThread("");
    EXPECT_EQ(terminal().text(), "TAV> typed");
  });
  read();
}

TEST_F(Notice, InThePagerOfADumbTerminalHasNoSequence) {
  terminal().isUsable = false;
  terminal().onIdle = [this] {
    noticeFromAnotherThread("notice\n");
    terminal().type("q");
  };
  historyShow();
  flushOutput();
  EXPECT_NE(terminal().written().find("notice\n"), std::string::npos);
  EXPECT_EQ(terminal().written().find('\033'), std::string::npos);
}

TEST_F(Notice, OfMoreLinesThanTheWindowHasScrolls) {
  std::string block;
  for (int i = 1; i <= 40; ++i) {
    block += "notice " + std::to_string(i) + "\n";
  }
  typeThen("typed", [&] {
    noticeFromAnotherThread(block);
    EXPECT_EQ(terminal().row(22), "notice 40");
    EXPECT_EQ(terminal().row(23), "TAV> typed");
  });
  read();
}

TEST_F(Notice, FindsTheNewWidthWhenTheWindowHasJustChanged) {
  open(24, 80);
  const PlainModel line = modelOf("one two three four five six seven eight nine ten eleven|", true);
  terminal().type(line.text());
  terminal().resizeTo(24, 40);
  terminal().onIdle = [&] {
    noticeFromAnotherThread("notice\n");
    EXPECT_TRUE(shows(line));
    EXPECT_EQ(terminal().row(0), "notice");
  };
  read();
}

TEST_F(Notice, ComesAboveALineThatFillsTheWindow) {
  open(5, 20);
  std::string text;
  for (int i = 0; i < 30; ++i) {
    text += "row " + std::to_string(100 + i) + " ";
  }
  typeThen(text, [&] {
    noticeFromAnotherThread("notice\n");
    EXPECT_TRUE(shows(modelOf(text, false)));
    EXPECT_EQ(terminal().look([](const auto& screen) { return screen.scrolledOff().back(); }), "notice");
  });
  read();
}

TEST_F(Notice, ManyFromTwoThreadsAllStandWholeAndInOrderWhileOneTypes) {
  constexpr int kCount = 300;
  std::atomic<int> running{2};
  const auto send = [&running](char name) {
    for (int i = 0; i < kCount; ++i) {
      printNotice(std::string("\nnotice ") + name + " " + std::to_string(i) + " 扫描\n");
    }
    --running;
  };
  std::thread a(send, 'a');
  std::thread b(send, 'b');
  PlainModel line;
  terminal().onIdle = [&] {
    EXPECT_TRUE(shows(line));
    if (running.load() == 0) {
      terminal().type("\r");
    } else if (line.characters.size() == 200) {
      line = PlainModel{};
      terminal().type("\x18");
    } else {
      line.characters.push_back("x");
      ++line.cursor;
      terminal().type("x");
    }
  };
  EXPECT_NE(read(), std::nullopt);
  a.join();
  b.join();
  std::map<char, int> next;
  const auto look = [&next](const std::string& row) {
    char name = 0;
    int number = -1;
    if (std::sscanf(row.c_str(), "notice %c %d 扫描", &name, &number) == 2) {
      EXPECT_EQ(number, next[name]++);
    } else {
      EXPECT_TRUE(row.empty()) << row << ": the prompt's rows never leave the window";
    }
  };
  terminal().look([&](const auto& screen) {
    for (const std::string& row : screen.scrolledOff()) {
      look(row);
    }
    for (int i = 0; i < screen.rows() && !screen.row(i).starts_with("TAV>"); ++i) {
      look(screen.row(i));
    }
  });
  EXPECT_EQ(next['a'], kCount);
  EXPECT_EQ(next['b'], kCount);
}

}  // namespace

}  // namespace lineeditor
