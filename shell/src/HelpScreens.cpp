#include "shell/HelpScreens.h"

#include <span>
#include <string_view>

#include "lineeditor/Terminal.h"

namespace {

constexpr std::string_view kKeyRule =
    " +-------------------------+--------------------------------------------------+";
constexpr std::string_view kExampleRule =
    " +----------------------------------------------------------------------------+";

// The line editor must do for each key what the line of the key says.
constexpr std::string_view kKeyHelp[] = {
    " 快捷指令",
    kKeyRule,
    " | F1                      |  显示快捷方式帮助信息",
    kKeyRule,
    " 移动指令",
    kKeyRule,
    " | Ctrl-B, Left            |  后退一个字符",
    " | Ctrl-F, Right           |  向前一个字符",
    " | Up, ESC+Up              |  移动光标到上一行(多行情况下)",
    " | Down, ESC+Down          |  移动光标到下一行(多行情况下)",
    " | Ctrl-A, Home            |  移动光标到行首",
    " | Ctrl-E, End             |  移动光标到行尾",
    " | Ctrl-L                  |  清除屏幕并重新显示行",
    kKeyRule,
    " 编辑指令",
    kKeyRule,
    " | Ctrl-H, Backspace       |  删除光标前字符",
    " | Ctrl-D, DEL             |  删除光标后字符",
    " | Alt-U                   |  将光标后一组字符转换为大写",
    " | Alt-L                   |  将光标后一组字符转换为小写",
    " | Alt-C                   |  将光标后一个字符转换为大写",
    " | Alt-\\                  |  删除光标周围空格",
    " | Ctrl-T                  |  置换光标前两个字符位置",
    kKeyRule,
    " 复制&粘贴指令",
    kKeyRule,
    " | Ctrl-K, ESC+End,        |  剪切字符从光标到行尾",
    " | Ctrl-U, ESC+Home,       |  剪切字符从行首到光标",
    " | Ctrl-X                  |  剪切整行",
    " | Ctrl-Y, Ctrl-V, Insert  |  粘贴最后拷贝的文本",
    kKeyRule,
    " 比较指令",
    kKeyRule,
    " | TAB, Ctrl-I             |  自动补全",
    " | Alt-=, Alt-?            |  显示期望指令列表",
    kKeyRule,
    " 历史记录指令",
    kKeyRule,
    " | Ctrl-P, Up              |  获取前一条历史命令",
    " | Ctrl-N, Down            |  获取下一条历史命令",
    " | Alt-<,  PgUp            |  移动到历史命令第一条",
    " | Alt->,  PgDn            |  移动到历史命令最后一条",
    " | Ctrl-R, Ctrl-S          |  搜索历史命令",
    " | F4                      |  根据当前输入搜索历史命令",
    " | F2                      |  查看历史命令",
    " | F3                      |  清除历史命令",
    kKeyRule,
    " 控制指令",
    kKeyRule,
    " | Enter,  Ctrl-J, Ctrl-M  |  换行并接受输入",
    " | Alt-R                   |  清空行",
    kKeyRule,
};

constexpr std::string_view kExamples[] = {
    kExampleRule,
    " | 扫描相关命令示例",
    " | 快速扫描：SCAN START HANDLE AUTO SPECIALCONFIG ON MODE FAST",
    " | 全盘扫描：SCAN START HANDLE AUTO SPECIALCONFIG ON MODE FULL",
    " | 自定义扫描：SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH /home",
    " | 自定义扫描：SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH /home",
    kExampleRule,
    " | 设置相关命令示例",
    " | 修改设置：CONFIG MODIFY + 设置项",
    " | 显示当前设置：CONFIG SHOW",
    kExampleRule,
    " | 隔离区相关命令示例",
    " | 显示隔离区信息：ISOLATION REPORT",
    " | 通过ID恢复隔离区文件 | ISOLATION RESTORE TRUST OFF ITEMID UID 88f835e6-cacd-49d7-b235-9da3c39b888a",
    kExampleRule,
    " | 信任区相关命令示例",
    " | 添加路径到信任区：TRUSTREGION MODIFY ACTION ADD TYPE FILE ITEM NAME /test.txt",
    " | 添加后缀到信任区：TRUSTREGION MODIFY ACTION ADD TYPE EXT ITEM NAME txt",
    " | 从信任区删除路径：TRUSTREGION MODIFY ACTION DEL TYPE FILE ITEM NAME /test.txt",
    " | 从信任去删除后缀：TRUSTREGION MODIFY ACTION DEL TYPE EXT ITEM NAME txt",
    kExampleRule,
};

/// Stops when the user ends the listing at a page break.
void printScreen(std::span<const std::string_view> lines) {
  lineeditor::resetPager();
  lineeditor::plainPrint("%s", " \b\n");
  for (const std::string_view line : lines) {
    lineeditor::plainPrint("%.*s\n", static_cast<int>(line.size()), line.data());
    if (lineeditor::pageBreak(lineeditor::displayWidth(line) + 1) != 0) {
      return;
    }
  }
}

}  // namespace

void showKeyHelp() {
  printScreen(kKeyHelp);
}

void showApplicationHelp() {
  printScreen(kExamples);
}
