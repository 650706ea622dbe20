#include <unistd.h>

#include "json/CppJson.h"
#include "platform/Files.h"
#include "store/Digest.h"
#include "store/FolderWalk.h"
#include "store/ItemFile.h"
#include "store/QuarantineStore.h"
#include "store/RestoreChild.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

struct RestoreStalled : StoreError {
  using StoreError::StoreError;
};

/// Empty, or why the caller may not have the item. Root may have all; others what was theirs.
std::string whyNotHis(const ItemMeta& meta, const CallerId& caller) {
  if (caller.uid == 0) {
    return {};
  }
  if (caller.uid != meta.uid) {
    return "the file was not the caller's";
  }
  const bool able = ::geteuid() == 0 || ::geteuid() == caller.uid;
  return able ? "" : "the agent does not run as root and cannot act for another user";
}

RestorePlan planFor(const ItemMeta& meta, bool trust, const std::string& targetDir, uid_t caller) {
  const platform::SplitPath was = platform::splitPath(meta.realPath);
  RestorePlan plan{.folder = was.folder, .name = was.name, .trusted = {}, .caller = caller};
  if (!targetDir.empty()) {
    if (targetDir.front() != '/') {
      throw StoreError(platform::quoted(targetDir) + " is not an absolute path");
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

RestoreJob jobFor(const ItemMeta& meta, const RestorePlan& plan, const CallerId& caller, int busyMark) {
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
          .busyMark = busyMark};
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

std::vector<Quarantine::RestoreOutcome> QuarantineStore::restore(const std::vector<std::string>& uuids,
                                                                 bool all, bool trust,
                                                                 const std::string& targetDir,
                                                                 const CallerId& caller) {
  std::vector<std::string> wanted = uuids;
  if (all) {
    try {
      wanted = uuidsFor(caller);
    } catch (const std::exception& error) {
      return {{"", {false, error.what()}}};
    }
  }
  std::vector<RestoreOutcome> outcomes;
  bool stalled = false;  // whoever keeps one restore waiting would keep them all: one wait is enough
  for (const std::string& uuid : wanted) {
    Result result{false, "not tried: the restore before it did not get on"};
    try {
      result = stalled ? result : restoreOne(uuid, trust, targetDir, caller);
    } catch (const RestoreStalled& error) {
      stalled = true;
      result = {false, error.what()};
    } catch (const std::exception& error) {
      result = {false, error.what()};
    }
    outcomes.push_back({uuid, std::move(result)});
  }
  return outcomes;
}

std::vector<std::string> QuarantineStore::uuidsFor(const CallerId& caller) const {
  std::vector<std::string> uuids;
  table_.forEach(caller.uid == 0 ? std::nullopt : std::optional(caller.uid),
                 [&uuids](const ItemRow& row) { uuids.push_back(row.uuid); });
  return uuids;
}

Result QuarantineStore::restoreOne(const std::string& uuid, bool trust, const std::string& targetDir,
                                   const CallerId& caller) {
  const std::lock_guard lock(items_);
  const auto row = table_.find(uuid);
  if (!row || row->state == ItemState::kRemoving) {
    return {false, "there is no such item"};
  }
  const auto meta = ItemMeta::fromText(row->meta);
  if (!meta) {
    return {false, "is damaged: its record cannot be read"};
  }
  const std::string why = whyNotHis(*meta, caller);
  return why.empty() ? restoreItem(*row, *meta, planFor(*meta, trust, targetDir, caller.uid), caller)
                     : Result{false, why};
}

Result QuarantineStore::restoreItem(const ItemRow& row, const ItemMeta& meta, const RestorePlan& plan,
                                    const CallerId& caller) {
  table_.setState(row.uuid, ItemState::kRestoring, plan.toText());
  reached("restore recorded");
  RestoreReport report;
  vault_.setBusy(true);
  const std::string why = transfer(meta, plan, caller, &report);
  vault_.setBusy(false);
  if (!why.empty()) {
    table_.setState(row.uuid, ItemState::kComplete, "");
    if (report.stage == RestoreStage::kStalled) {
      throw RestoreStalled(why);
    }
    return {false, why};
  }
  reached("restored");
  const std::string whyNoTrust = plan.applyTrust(regions_);
  reached("trusted");
  erase(row.uuid, row.storedBytes);
  if (!whyNoTrust.empty()) {
    return {false, "restored, but not trusted: " + whyNoTrust};
  }
  return {true, remarkOf(report)};
}

std::string QuarantineStore::transfer(const ItemMeta& meta, const RestorePlan& plan, const CallerId& caller,
                                      RestoreReport* report) const try {
  const platform::Descriptor file = vault_.open(meta.uuid);
  ItemReader reader(file.get());
  const RestoreJob job = jobFor(meta, plan, caller, vault_.busyMark());
  RestoreChild child(job, restorePatience_);
  Digest digest(Digest::Kind::kSha256);
  std::string buffer(1 << 16, '\0');
  std::size_t n = 0;
  bool heard = true;
  while (heard && (n = reader.read(buffer.data(), buffer.size())) > 0) {
    digest.add(buffer.data(), n);
    heard = child.send({buffer.data(), n});
  }
  if (heard && digest.hex() != meta.sha256) {
    return "is damaged: its content was changed";
  }
  reached("content sent");
  if (heard) {
    child.commit();
  }
  *report = child.report();
  return report->stage == RestoreStage::kDone ? "" : whyNotRestored(job, *report);
} catch (const StoreError& error) {
  return error.what();
}

}  // namespace agent::store
