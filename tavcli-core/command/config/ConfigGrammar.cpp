#include "command/config/ConfigGrammar.h"

#include "command/config/ConfigOptions.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "json/CppJson.h"
#include "shell/TaskHandlers.h"

namespace command {

namespace {

using shell::GrammarRow;
using shell::kChoice;
using shell::kDetached;
using shell::kNoHint;
using shell::kNoValue;
using shell::setField;
using shell::startTask;
using Exec = TavCliCmdConfigExec;

template <Exec::Section section>
constexpr auto kSetSection = setField<&Exec::section, section>;

const GrammarRow kUpperRows[] = {
    {"CONFIG", "配置", kNoHint, kChoice, kNoValue, startTask<Exec>},
    {"CONFIG SHOW", "显示配置信息", kNoHint, kChoice, kNoValue, kSetSection<Exec::kShow>},
    {"CONFIG MODIFY", "修改配置", kNoHint, kChoice, kNoValue, nullptr},
    {"CONFIG MODIFY COMMON", "基础设置", kNoHint, kChoice, kNoValue, kSetSection<Exec::kCommon>},
    {"CONFIG MODIFY SCAN", "基础扫描设置", kNoHint, kChoice, kNoValue, kSetSection<Exec::kScan>},
    {"CONFIG MODIFY COMPRESS_SCAN", "压缩包扫描设置", kNoHint, kChoice, kNoValue,
     kSetSection<Exec::kCompressScan>},
    {"CONFIG MODIFY WATCHER", "基础防护设置", kNoHint, kChoice, kNoValue, kSetSection<Exec::kWatcher>},
    {"CONFIG MODIFY COMPRESS_WATCHER", "压缩包监控设置", kNoHint, kChoice, kNoValue,
     kSetSection<Exec::kCompressWatcher>},
    {"CONFIG MODIFY ENGINE", "多引擎设置", kNoHint, kChoice, kNoValue, kSetSection<Exec::kEngine>},
};

/// Writes the settings of an end node, or the typed number.
CliNodeInfo::Handler handlerOf(const EndNode& end) {
  if (end.writes.empty() && end.typedKey == nullptr) {
    return nullptr;
  }
  return [&end](const CliNodeInfo& /*node*/, const std::string& value) {
    return shell::changeTask<Exec>([&](Exec& task) {
      for (const Setting& setting : end.writes) {
        task.settings[setting.key] = setting.value;
      }
      if (end.typedKey != nullptr) {
        // The range in the hint is advice. A text without a number counts as 0.
        const std::int32_t number = CppJson::toInt(Json::Value(value), 0);
        task.settings[end.typedKey] =
            end.typedAs == Typed::kReal ? Json::Value(static_cast<double>(number)) : Json::Value(number);
      }
    });
  };
}

GrammarRow endRow(const std::string& path, const EndNode& end) {
  const std::uint32_t flags = end.detached ? kChoice | kDetached : std::uint32_t{kChoice};
  const std::int32_t valueKind = end.typedKey == nullptr ? kNoValue : shell::kIntValue;
  return {path + " " + end.name, end.help, end.hint, flags, valueKind, handlerOf(end)};
}

}  // namespace

std::vector<GrammarRow> configGrammar() {
  std::vector<GrammarRow> rows(std::begin(kUpperRows), std::end(kUpperRows));
  for (const ConfigOption& option : configOptions()) {
    const std::string path = std::string("CONFIG MODIFY ") + option.path;
    rows.push_back({path, option.help, kNoHint, option.flags, kNoValue, nullptr});
    for (const EndNode& end : option.ends) {
      rows.push_back(endRow(path, end));
    }
  }
  return rows;
}

}  // namespace command
