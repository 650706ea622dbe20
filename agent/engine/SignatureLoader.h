#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "engine/SignatureState.h"
#include "platform/Expected.h"

struct cl_engine;

namespace agent {

struct FreeEngine {
  void operator()(cl_engine* engine) const;
};
using EngineHandle = std::unique_ptr<cl_engine, FreeEngine>;

struct SignatureSources {
  std::string shipped, system, copies;                   ///< folders; all but the first may be missing
  bool copyForMissing = true;                            ///< as of SignatureChoice
  std::function<EngineHandle()> newEngine;               ///< empty handle: no memory
  std::function<void(const std::string&)> beforeFile{};  ///< with the path, before each load of a file
};

struct LoadedSignatures {
  EngineHandle engine;
  SignatureState state;
  std::string contentKey;  ///< changes with the content of any loaded file
  bool comparesPictures = false;
};

/// Loads file by file, and compiles. All of our own files must load; of the system's files each one that does
/// not is left out, and a copy serves for it where there is one. A failed load can leave a half of the file's
/// signatures in the engine: the others are then loaded into a new engine. When a file changes during the
/// load, all is loaded again.
platform::Expected<LoadedSignatures> loadSignatures(const SignatureSources& sources);

/// libclamav's last error message outside a scan, for the reason of a failed load.
void noteLoadMessage(std::string_view text);

}  // namespace agent
