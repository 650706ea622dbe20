#pragma once

#include <span>

#include "store/Sqlite.h"

namespace agent::store {

/// The steps that build a database from nothing, in order. The version of a file is the number of its steps.
/// A released step is never changed: a change is a further step.
std::span<const char* const> storeSteps();  ///< settings, regions, quarantine
std::span<const char* const> cacheSteps();  ///< scan cache, tasks under way, files given up

/// Runs the steps that the file lacks, all or none. Throws StoreError, also for a file of a newer version.
void migrate(Database& database, std::span<const char* const> steps);

}  // namespace agent::store
