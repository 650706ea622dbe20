#include "command/isolation/TavCliCmdIsolation.h"

#include "command/isolation/TavCliCmdIsolationExec.h"
#include "shell/TaskHandlers.h"

namespace {

using shell::appendValue;
using shell::GrammarRow;
using shell::kChoice;
using shell::kNoHint;
using shell::kNoValue;
using shell::kRequired;
using shell::kStringValue;
using shell::setField;
using shell::startTask;
using Exec = TavCliCmdIsolationExec;

const GrammarRow kGrammar[] = {
    {"ISOLATION", "隔离区", kNoHint, kChoice, kNoValue, startTask<Exec>},
    {"ISOLATION REPORT", "获取隔离区信息", kNoHint, kChoice, kNoValue,
     setField<&Exec::action, Exec::kReport>},
    {"ISOLATION RESTORE", "恢复隔离数据", kNoHint, kChoice, kNoValue,
     setField<&Exec::action, Exec::kRestore>},
    {"ISOLATION RESTORE TRUST", "恢复并信任", kNoHint, kRequired, kNoValue, nullptr},
    {"ISOLATION RESTORE TRUST ON", "是", kNoHint, kChoice, kNoValue, setField<&Exec::notrust, 0>},
    {"ISOLATION RESTORE TRUST OFF", "否", kNoHint, kChoice, kNoValue, setField<&Exec::notrust, 1>},
    {"ISOLATION RESTORE ITEMID", "要恢复的隔离项UID", kNoHint, kRequired, kNoValue, nullptr},
    {"ISOLATION RESTORE ITEMID UID", "UID值", "\" [string]\"", kChoice, kStringValue,
     appendValue<&Exec::item_ids>},
};

}  // namespace

TavCliCmdIsolation TavCliCmdIsolation::module;

TavCliCmdIsolation::TavCliCmdIsolation() : CommandModule("isolation", "Isolate", kGrammar) {}
