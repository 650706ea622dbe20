#include <unistd.h>

#include "engine/Digest.h"
#include "platform/Files.h"
#include "store/ItemFile.h"
#include "store/Quarantine.h"
#include "store/RestoreChild.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

/// Root may have every item, another user the items of files that were that user's.
platform::Expected<void> checkCaller(const ItemMeta& meta, const CallerId& caller) {
  if (caller.uid == 0) {
    return {};
  }
  if (caller.uid != meta.uid) {
    return platform::failure("the file was not the caller's");
  }
  if (::geteuid() != 0 && ::geteuid() != caller.uid) {
    return platform::failure("the agent does not run as root and cannot act for another user");
  }
  return {};
}

platform::Expected<RestorePlan> planFor(const ItemMeta& meta, bool trust, const std::string& targetDir,
                                        uid_t caller) {
  const platform::SplitPath was = platform::splitPath(meta.realPath);
  RestorePlan plan{.folder = was.folder, .name = was.name, .trusted = {}, .caller = caller};
  if (!targetDir.empty()) {
    if (targetDir.front() != '/') {
      return platform::failure(platform::quoted(targetDir) + " is not an absolute path");
    }
    plan.folder = utils::FormatFilePath(targetDir);
  }
  if (trust) {
    plan.trusted.push_back(plan.path());
    if (targetDir.empty() && meta.path != plan.path()) {
      plan.trusted.push_back(meta.path);
    }
  }
  return plan;
}

RestoreJob jobFor(const ItemMeta& meta, const RestorePlan& plan, const CallerId& caller, int busyLock) {
  const bool agentIsRoot = ::geteuid() == 0;
  return {.meta = &meta,
          .folder = plan.folder,
          .name = plan.name,
          .temporaryName = privateName(meta.uuid),
          .switchUser = agentIsRoot && caller.uid != 0,
          .uid = caller.uid,
          .gid = caller.gid,
          .groups = caller.groups,
          .privileged = agentIsRoot && caller.uid == 0,
          .busyLock = busyLock};
}

std::string remarkOf(const RestoreReport& report) {
  std::string remark = report.setidLeft != 0 ? "setuid and setgid were left out" : "";
  if (report.attributesLeft != 0) {
    remark += (remark.empty() ? "" : "; ") + std::to_string(report.attributesLeft) +
              " extended attribute(s) could not be given back";
  }
  return remark;
}

}  // namespace

std::vector<Quarantine::RestoreOutcome> Quarantine::restore(const std::vector<std::string>& uuids, bool all,
                                                            bool trust, const std::string& targetDir,
                                                            const CallerId& caller) {
  std::vector<std::string> wanted = uuids;
  if (all) {
    try {
      wanted = uuidsFor(caller);
    } catch (const std::exception& error) {
      return {{"", platform::failure(error.what())}};
    }
  }
  std::vector<RestoreOutcome> outcomes;
  bool stalled = false;  // the cause of one stalled restore would stall all: one wait is enough
  for (const std::string& uuid : wanted) {
    RestoreReport report;
    outcomes.push_back({uuid, stalled ? platform::failure("not tried: the restore before it did not get on")
                                      : restoreOne(uuid, trust, targetDir, caller, &report)});
    stalled = stalled || report.stage == RestoreStage::kStalled;
  }
  return outcomes;
}

std::vector<std::string> Quarantine::uuidsFor(const CallerId& caller) const {
  std::vector<std::string> uuids;
  table_.forEach(caller.uid == 0 ? std::nullopt : std::optional(caller.uid),
                 [&uuids](const ItemRow& row) { uuids.push_back(row.uuid); });
  return uuids;
}

platform::Expected<Remark> Quarantine::restoreOne(const std::string& uuid, bool trust,
                                                  const std::string& targetDir, const CallerId& caller,
                                                  RestoreReport* report) try {
  const std::lock_guard lock(items_);
  const auto row = table_.find(uuid);
  if (!row || row->state == ItemState::kRemoving) {
    return platform::failure("there is no such item");
  }
  const auto meta = ItemMeta::fromText(row->meta);
  if (!meta) {
    return platform::failure("is damaged: its record cannot be read");
  }
  return checkCaller(*meta, caller)
      .and_then([&] { return planFor(*meta, trust, targetDir, caller.uid); })
      .and_then([&](const RestorePlan& plan) { return restoreItem(*row, *meta, plan, caller, report); });
} catch (const std::exception& error) {
  return platform::failure(error.what());
}

platform::Expected<Remark> Quarantine::restoreItem(const ItemRow& row, const ItemMeta& meta,
                                                   const RestorePlan& plan, const CallerId& caller,
                                                   RestoreReport* report) {
  table_.setState(row.uuid, ItemState::kRestoring, plan.toText());
  reached("restore recorded");
  vault_.setBusy(true);
  const platform::Expected<void> restored = transfer(meta, plan, caller, report);
  vault_.setBusy(false);
  if (!restored) {
    table_.setState(row.uuid, ItemState::kComplete, "");
    return platform::failure(restored.error());
  }
  reached("restored");
  const platform::Expected<void> trusted = plan.applyTrust(regions_);
  reached("trusted");
  erase(row.uuid, row.storedBytes);
  if (!trusted) {
    return platform::failure("restored, but not trusted: " + trusted.error());
  }
  return remarkOf(*report);
}

platform::Expected<void> Quarantine::transfer(const ItemMeta& meta, const RestorePlan& plan,
                                              const CallerId& caller, RestoreReport* report) const try {
  const platform::Descriptor file = vault_.open(meta.uuid);
  ItemReader reader(file.get());
  const RestoreJob job = jobFor(meta, plan, caller, vault_.busyLock());
  RestoreChild child(job, restorePatience_);
  Digest digest(Digest::Kind::kSha256);
  std::string buffer(1 << 16, '\0');
  std::size_t n = 0;
  bool delivered = true;
  while (delivered && (n = reader.read(buffer.data(), buffer.size())) > 0) {
    digest.add(buffer.data(), n);
    delivered = child.send({buffer.data(), n});
  }
  if (delivered && digest.hex() != meta.sha256) {
    return platform::failure("is damaged: its content was changed");
  }
  reached("content sent");
  if (delivered) {
    child.commit();
  }
  *report = child.report();
  if (report->stage != RestoreStage::kDone) {
    return platform::failure(restoreFailure(job, *report));
  }
  return {};
} catch (const StoreError& error) {
  return platform::failure(error.what());
}

}  // namespace agent::store
