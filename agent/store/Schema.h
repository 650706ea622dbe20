#pragma once

#include <span>

#include "store/Sqlite.h"

namespace agent::store {

/// The steps that make a database from nothing, in order; the file's version is how many it has behind it.
/// A step once released is never changed: what comes later is another step.
std::span<const char* const> storeSteps();  ///< settings, regions, quarantine
std::span<const char* const> cacheSteps();  ///< scan cache, tasks under way

/// Takes the steps that the file has not seen, all or none. Throws StoreError, also for a file of a newer
/// version than the steps know.
void migrate(Database& database, std::span<const char* const> steps);

}  // namespace agent::store
