#include "shell/ErrorTable.h"

#include "lineeditor/Terminal.h"

namespace {

struct Message {
  std::int32_t code;
  const char* text;
};

// The rows are inserted in this order, and the first message of a code stays. So "trustlation failed" is
// never shown.
constexpr Message kMessages[] = {
    {-10001, "parameter error"},
    {-10002, "scan func error,input start,stop,parse"},
    {-10003, "scan module empty"},
    {-10004, "scan func unknow"},
    {-10005, "scan module unknow"},
    {-10006, "scan handle empty"},
    {-10007, "scan handle unknow"},
    {-10008, "scan specialconfig empty"},
    {-10009, "scan specialconfig unknow"},
    {-10010, "scan path empty"},
    {-10011, "scan failed"},
    {-11001, "config func error"},
    {-11002, "config scanmodule unknow"},
    {-11003, "config scanmodule empty"},
    {-11004, "config scanhandle empty"},
    {-11005, "config scanhandle unknow"},
    {-11006, "config protectlevel empty"},
    {-11007, "config protectlevel unknow"},
    {-11008, "config archivefilesize empty"},
    {-11009, "config archivefilesize unknow"},
    {-11010, "config archivelayer empty"},
    {-11011, "config archivelayer unknow"},
    {-11012, "config loglevel empty"},
    {-11013, "config loglevel unknow"},
    {-11014, "config sw_switcher empty"},
    {-11015, "config sw_switcher unknow"},
    {-11016, "config failed"},
    {-12001, "trustlation func error"},
    {-12002, "trustlation method unknow"},
    {-12003, "trustlation method empty"},
    {-12004, "trustlation trustpath empty"},
    {-12005, "trustlation trustext unknow"},
    {-11006, "trustlation failed"},
    {-13001, "isolation func error"},
    {-13003, "isolation trust empty"},
    {-13004, "isolation trust unknow"},
    {-13005, "isolation itemid empty"},
    {-13002, "isolation failed"},
    {-14001, "updateaddr func error"},
    {-14002, "updateaddr failed"},
    {-14003, "updateaddr addr empty"},
    {-14004, "updateaddr port empty"},
    {-14005, "updateaddr port format error"},
    {-14006, "updateaddr port defect"},
    {-14007, "updateaddr addr defect"},
    {-14008, "updateaddr addr format error"},
};

}  // namespace

ErrorTable::ErrorTable() {
  for (const Message& message : kMessages) {
    messages_.emplace(message.code, message.text);
  }
}

ErrorTable& ErrorTable::instance() {
  static auto* const table = new ErrorTable;
  return *table;
}

const std::string* ErrorTable::find(std::int32_t code) const {
  const auto found = messages_.find(code);
  return found == messages_.end() ? nullptr : &found->second;
}

void ErrorTable::print(std::int32_t code) const {
  if (const std::string* message = find(code)) {
    lineeditor::colourPrint(lineeditor::kBrightRed, "ERR: %s \n", message->c_str());
  }
}
