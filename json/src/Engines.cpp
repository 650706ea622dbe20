#include <array>

#include "json/CppJson.h"

namespace json {
namespace {

// Several rows may share a switch. Null: the engine is always on.
constexpr std::array<Engine, kEngineCount> kEngines = {{
    {kEngineHc, "鸿隼引擎", "the system's signature database, all that no other row takes", "HCengine",
     "HCengineRP"},
    {kEngineUmb, "UMB引擎", "heuristic alerts of the scanning library (Heuristics.*)", "UMBengine",
     "UMBengineRP"},
    {kEngineIxo, "IXO引擎",
     "the system's signatures of scripts and web pages (Js, Vbs, Php, Ps1, Html and their like)", "IXOengine",
     "IXOengineRP"},
    {kEngineRda, "RDA引擎", "the pattern signatures that ship with this agent", "RDAengine", "RDAengineRP"},
    {kEngineRdaOld, "RDA引擎(旧模型)", "the file hash signatures that ship with this agent", "RDAOLDengine",
     "RDAOLDengineRP"},
    {kEngineCloud, "云引擎", "nothing: this agent asks no cloud", "CloudEngine", "CloudEngineRP"},
    {kEngineDocument, "文档引擎",
     "the system's signatures of documents and their macros (Doc, Xls, Pdf, Rtf and their like)", "IXOengine",
     "IXOengineRP"},
    {kEngineBytecode, "字节码引擎", "the system's bytecode signatures (BC.*)", "UMBengine", "UMBengineRP"},
    {kEngineUnwanted, "潜在风险引擎", "the system's signatures of unwanted programs (PUA.*)", "HCengine",
     "HCengineRP"},
    {kEngineRejectList, "否决区", "the administrator's reject list", nullptr, nullptr},
}};

constexpr bool codesAreIndexes() {
  for (int i = 0; i < kEngineCount; ++i) {
    if (kEngines[static_cast<std::size_t>(i)].code != i) {
      return false;
    }
  }
  return true;
}
static_assert(codesAreIndexes());

}  // namespace

const Engine& engineAt(int index) {
  return kEngines.at(static_cast<std::size_t>(index));
}

std::string engineName(int code) {
  return code < 0 || code >= kEngineCount ? "其他" : engineAt(code).name;
}

}  // namespace json
