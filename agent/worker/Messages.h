#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"

namespace agent {

// The messages between agent, spawner, worker template and workers: one message a packet, both ends of the
// same build. A descriptor travels beside the packet.

/// Agent to spawner: fork a worker template. Agent to template: fork a worker. With one end of a Channel.
struct ForkRequest {};
/// Template to agent, after loading.
struct StateReport {
  SignatureState state;
};
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
struct MessageFields<ForkRequest> {
  static constexpr char kTag = 'F';
  static void visit(auto&, auto&) {}
};
template <>
struct MessageFields<StateReport> {
  static constexpr char kTag = 'S';
  static void visit(auto& v, auto& m) {
    v(m.state.loaded), v(m.state.system), v(m.state.version), v(m.state.detail), v(m.state.count);
  }
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
