#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/EngineLimits.h"
#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"
#include "worker/Confinement.h"

namespace agent {

// The messages between agent, spawner, worker template and workers: one message a packet, both ends of the
// same build. A descriptor travels beside the packet.

/// Agent to a spawner that is a program of its own, the first message.
struct SpawnerStart {
  std::string tempFolder;  ///< of the agent
};
/// Agent to spawner: fork a worker template. Agent to template: fork a worker. With one end of a Channel.
struct ForkRequest {};
/// Agent to a template that is a program of its own, the first message.
struct TemplateStart {
  std::string shippedSignatures, systemSignatures, signatureCopies;
  bool copyForMissing = true;  ///< as of Engine::Config
  EngineLimits limits;
  std::string tempFolder;  ///< of the agent
  ScannerUser user;
  std::uint64_t tempBytes = 0;
  std::uint64_t memoryBytes = 0;
  Unconfined unconfined = Unconfined::kNever;
};
/// Template to agent, after loading.
struct StateReport {
  SignatureState state;
  ConfinementState confinement;
};
/// Template or worker to agent, the last message: the process made a call that its filter refuses.
struct CallBreach {
  std::int32_t call = 0;
};
/// Worker to agent, the last message: the file's budget of processor time is used.
struct OutOfProcessorTime {};
/// Worker to agent, the first message; with a pidfd of the worker.
struct WorkerHello {
  std::int32_t pid = 0;
};
/// Agent to worker; with the open file.
struct ScanRequest {
  std::uint64_t id = 0;
  std::string name;
  ScanOptions options;
};
struct ScanAnswer {
  std::uint64_t id = 0;
  Verdict verdict;
};

// The first byte and the fields of each message, listed once for both directions.
template <class M>
struct MessageFields;

template <>
struct MessageFields<SpawnerStart> {
  static constexpr char kTag = 'P';
  static void visit(auto& v, auto& m) { v(m.tempFolder); }
};
template <>
struct MessageFields<ForkRequest> {
  static constexpr char kTag = 'F';
  static void visit(auto&, auto&) {}
};
template <>
struct MessageFields<TemplateStart> {
  static constexpr char kTag = 'T';
  static void visit(auto& v, auto& m) {
    auto& l = m.limits;
    v(m.shippedSignatures), v(m.systemSignatures), v(m.signatureCopies), v(m.copyForMissing);
    v(m.tempFolder);
    v(l.maxFileBytes), v(l.maxScanBytes), v(l.maxFiles), v(l.maxRecursion), v(l.quickTempBytes);
    v(l.processorMs), v(l.processorMsPer100Mb), v(l.clockFactor), v(l.tempBytes), v(l.unpackedRatio),
        v(l.freeUnpackedBytes);
    v(m.user.uid), v(m.user.gid), v(m.tempBytes), v(m.memoryBytes), v(m.unconfined);
  }
};
template <>
struct MessageFields<SignatureFile> {
  static void visit(auto& v, auto& m) { v(m.name), v(m.bytes), v(m.sha256); }
};
template <>
struct MessageFields<StateReport> {
  static constexpr char kTag = 'S';
  static void visit(auto& v, auto& m) {
    auto& s = m.state;
    v(s.loaded), v(s.system), v(s.version), v(s.detail), v(s.count), v(s.shortage), v(s.rules), v(s.limits);
    v(s.unsettled), v(s.notInUse), v(s.files), v(s.copies);
    v(m.confinement.known), v(m.confinement.missing), v(m.confinement.essentialMissing);
  }
};
template <>
struct MessageFields<CallBreach> {
  static constexpr char kTag = 'B';
  static void visit(auto& v, auto& m) { v(m.call); }
};
template <>
struct MessageFields<OutOfProcessorTime> {
  static constexpr char kTag = 'O';
  static void visit(auto&, auto&) {}
};
template <>
struct MessageFields<WorkerHello> {
  static constexpr char kTag = 'H';
  static void visit(auto& v, auto& m) { v(m.pid); }
};
template <>
struct MessageFields<ScanRequest> {
  static constexpr char kTag = 'R';
  static void visit(auto& v, auto& m) {
    auto& o = m.options;
    v(m.id), v(m.name), v(o.archives), v(o.maxLayers), v(o.maxArchiveBytes), v(o.archiveFormats);
    v(o.enabledEngines), v(o.hashesWanted), v(o.heuristics);
  }
};
template <>
struct MessageFields<Detection> {
  static void visit(auto& v, auto& m) { v(m.name), v(m.engineCode), v(m.riskType), v(m.riskTypeName); }
};
template <>
struct MessageFields<ScanAnswer> {
  static constexpr char kTag = 'A';
  // Not workerDied: only the agent knows that.
  static void visit(auto& v, auto& m) {
    auto& r = m.verdict;
    v(m.id), v(r.outcome), v(r.reason), v(r.detections), v(r.md5), v(r.sha1), v(r.sha256);
  }
};

/// Long texts and lists are cut.
template <class M>
std::string encode(const M& message);
/// Nothing for a message of another kind, a cut one, or one that is too long: do not trust its sender.
template <class M>
std::optional<M> decode(std::string_view packet);

inline constexpr std::size_t kLongestPacket = 64 * 1024;

}  // namespace agent
