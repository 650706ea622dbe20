#include "command/trustregion/TavCliCmdtrustregion.h"

#include "command/trustregion/TavCliCmdtrustregionExec.h"
#include "shell/TaskHandlers.h"

namespace {

using shell::appendValue;
using shell::GrammarRow;
using shell::kChoice;
using shell::kDetached;
using shell::kNoHint;
using shell::kNoValue;
using shell::kRequired;
using shell::kStringValue;
using shell::setField;
using shell::startTask;
using Exec = TavCliCmdtrustregionExec;

// The row of entries by MD5 is not attached, so nobody can type the keyword.
const GrammarRow kGrammar[] = {
    {"TRUSTREGION", "信任区", kNoHint, kChoice, kNoValue, startTask<Exec>},
    {"TRUSTREGION REPORT", "获取信任区信息", kNoHint, kChoice, kNoValue,
     setField<&Exec::action, Exec::kReport>},
    {"TRUSTREGION MODIFY", "修改信任区", kNoHint, kRequired, kNoValue, nullptr},
    {"TRUSTREGION MODIFY ACTION", "操作", kNoHint, kRequired, kNoValue, nullptr},
    {"TRUSTREGION MODIFY ACTION ADD", "添加", kNoHint, kChoice, kNoValue,
     setField<&Exec::action, Exec::kAdd>},
    {"TRUSTREGION MODIFY ACTION DEL", "删除", kNoHint, kChoice, kNoValue,
     setField<&Exec::action, Exec::kDelete>},
    {"TRUSTREGION MODIFY TYPE", "信任项类型", kNoHint, kRequired, kNoValue, nullptr},
    {"TRUSTREGION MODIFY TYPE EXT", "文件扩展名", kNoHint, kChoice, kNoValue,
     setField<&Exec::item_type, Exec::kExtension>},
    {"TRUSTREGION MODIFY TYPE FILE", "文件", kNoHint, kChoice, kNoValue,
     setField<&Exec::item_type, Exec::kFile>},
    {"TRUSTREGION MODIFY TYPE DIR", "文件夹", kNoHint, kChoice, kNoValue,
     setField<&Exec::item_type, Exec::kFolder>},
    {"TRUSTREGION MODIFY TYPE MD5", "文件指纹", kNoHint, kChoice | kDetached, kNoValue,
     setField<&Exec::item_type, Exec::kMd5>},
    {"TRUSTREGION MODIFY ITEM", "信任项", kNoHint, kRequired, kNoValue, nullptr},
    {"TRUSTREGION MODIFY ITEM NAME", "名称", "\" Trust Files or Dirs or Extension [string]\"", kChoice,
     kStringValue, appendValue<&Exec::items>},
};

}  // namespace

TavCliCmdtrustregion TavCliCmdtrustregion::module;

TavCliCmdtrustregion::TavCliCmdtrustregion() : CommandModule("trustregion", "Trust", kGrammar) {}
