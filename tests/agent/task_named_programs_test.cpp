#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "task/NamedPrograms.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::IsSupersetOf;
using ::testing::Not;

struct NamedRow {
  const char* name;
  SettingKind kind;
  const char* text;
  std::vector<std::string> programs;
};
class NamedPrograms : public ::testing::TestWithParam<NamedRow> {};

TEST_P(NamedPrograms, AreFound) {
  EXPECT_THAT(programsNamedIn(GetParam().kind, GetParam().text, "/home/p").paths,
              IsSupersetOf(GetParam().programs));
}

using enum SettingKind;
INSTANTIATE_TEST_SUITE_P(
    In, NamedPrograms,
    ::testing::Values(
        NamedRow{
            "AUnit", kUnit, "[Service]\nExecStart=-/opt/a --b\nExecStop = @!/opt/c d", {"/opt/a", "/opt/c"}},
        NamedRow{"ALineThatContinues", kUnit, "ExecStart=/bin/sh \\\n# no\n  /opt/a", {"/bin/sh", "/opt/a"}},
        NamedRow{"AnInterpretersLine", kUnit, "ExecStart=/usr/bin/python3 -u /opt/x.py", {"/opt/x.py"}},
        NamedRow{"AShellsLine", kUnit, "ExecStart=sh -c 'cd /; exec /opt/a>/dev/null'", {"/opt/a"}},
        NamedRow{"AUsersUnit", kUnit, "ExecStart=%h/bin/a", {"/home/p/bin/a"}},
        NamedRow{"ADesktopEntry", kUnit, "Exec=\"/opt/my app/run\" %U\nTryExec=/x", {"/opt/my app/run"}},
        NamedRow{"ACrontab",
                 kLines,
                 "*/5 * * * * root test -x /opt/a || /opt/b;/opt/c",
                 {"/opt/a", "/opt/b", "/opt/c"}},
        NamedRow{"ACrontabWithASearchPath",
                 kLines,
                 "PATH = \"/opt/x:/opt/y\"\n@daily root job",
                 {"/opt/x/job", "/opt/y/job"}},
        NamedRow{"AUsersCrontab",
                 kUserTables,
                 "@reboot ~/a; $HOME/b; ${HOME}/c; d/e",
                 {"/home/p/a", "/home/p/b", "/home/p/c", "/home/p/d/e"}},
        NamedRow{"PreloadedLibraries",
                 kLines,
                 "/opt/a.so:/opt/b.so /opt/c.so",
                 {"/opt/a.so", "/opt/b.so", "/opt/c.so"}},
        NamedRow{"PAM",
                 kLines,
                 "auth [success=1 default=ignore] /opt/pam_x.so\nsession optional pam_exec.so quiet /opt/a",
                 {"/opt/pam_x.so", "/opt/a"}},
        NamedRow{"Sudoers",
                 kLines,
                 "p ALL=(ALL) NOPASSWD:/opt/a, !/opt/b, /opt/c \"\"",
                 {"/opt/a", "/opt/b", "/opt/c"}},
        NamedRow{"TheUserDatabase", kLines, "p:x:1000:1000:P:/home/p:/opt/shell", {"/opt/shell"}},
        NamedRow{"ANameWithSeparators", kLines, "/opt/a=b:c", {"/opt/a=b:c"}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(NamedProgramsOf, ACommentAndAnotherLineOfAUnitAreNone) {
  const auto named =
      programsNamedIn(SettingKind::kUnit, "#ExecStart=/a\n;ExecStart=/b\nConditionPathExists=/c\n/d", "");
  EXPECT_TRUE(named.paths.empty());
  EXPECT_TRUE(programsNamedIn(SettingKind::kLines, "# /a\n  # /b", "").paths.empty());
}

TEST(NamedProgramsOf, WithoutAHomeFolderWhatBeginsThereIsLeftOut) {
  EXPECT_TRUE(programsNamedIn(SettingKind::kLines, "~/a $HOME/b d/e", "").paths.empty());
}

TEST(NamedProgramsOf, EachIsNamedOnce) {
  EXPECT_EQ(std::vector<std::string>{"/a"},
            programsNamedIn(SettingKind::kLines, "/a '/a' \"/a\" -/a\n/a", "").paths);
}

TEST(NamedProgramsOf, TextThatEndsAnywhereIsRead) {
  for (const char* text : {"", "\n", "\\", "'", "/a '", "PATH=", "Exec=", "Exec", "=", "-", "~/", "\"\""}) {
    for (const SettingKind kind : {SettingKind::kLines, SettingKind::kUnit}) {
      EXPECT_THAT(programsNamedIn(kind, text, "/home/p").paths, Not(Contains("")));
    }
  }
}

TEST(NamedProgramsOf, ATextThatNamesVeryManyIsSaidToNameMore) {
  std::string text;
  for (int i = 0; i < 70'000; ++i) {
    text += "/" + std::to_string(i) + "\n";
  }
  const NamedPaths named = programsNamedIn(SettingKind::kLines, text, "");
  EXPECT_EQ(65536U, named.paths.size());
  EXPECT_TRUE(named.more);
  EXPECT_FALSE(programsNamedIn(SettingKind::kLines, text.substr(0, 1000), "").more);
}

}  // namespace
}  // namespace agent
