#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"

namespace agent {

/// What agent, template and workers say to each other: one message a packet, never across machines or
/// versions. Descriptors travel beside the packet.
struct ForkRequest {
};                    ///< agent to spawner: a template, to template: a worker; with its end of a socket pair
struct StateReport {  ///< template to agent, once it has loaded
  SignatureState state;
};
struct WorkerHello {  ///< worker to agent, first of all; with a pidfd of itself
  std::int32_t pid = 0;
};
struct ScanRequest {  ///< agent to worker; with the open file
  std::uint64_t id = 0;
  std::string name;
  ScanOptions options;
};
struct ScanAnswer {
  std::uint64_t id = 0;
  Verdict verdict;
};

// Each message's first byte, and its fields, once for both directions.
template <class M>
struct MessageFields;

template <>
struct MessageFields<ForkRequest> {
  static constexpr char kTag = 'F';
  template <class Visitor, class M>
  static void visit(Visitor&, M&) {}
};
template <>
struct MessageFields<StateReport> {
  static constexpr char kTag = 'S';
  template <class Visitor, class M>
  static void visit(Visitor& v, M& m) {
    v(m.state.loaded), v(m.state.system), v(m.state.version), v(m.state.detail), v(m.state.count);
  }
};
template <>
struct MessageFields<WorkerHello> {
  static constexpr char kTag = 'H';
  template <class Visitor, class M>
  static void visit(Visitor& v, M& m) {
    v(m.pid);
  }
};
template <>
struct MessageFields<ScanRequest> {
  static constexpr char kTag = 'R';
  template <class Visitor, class M>
  static void visit(Visitor& v, M& m) {
    auto& o = m.options;
    v(m.id), v(m.name), v(o.archives), v(o.maxLayers), v(o.maxArchiveBytes), v(o.archiveFormats);
    v(o.enabledEngines), v(o.hashesWanted), v(o.heuristics);
  }
};
template <>
struct MessageFields<Detection> {
  template <class Visitor, class M>
  static void visit(Visitor& v, M& m) {
    v(m.name), v(m.engineCode), v(m.riskType), v(m.riskTypeName);
  }
};
template <>
struct MessageFields<ScanAnswer> {
  static constexpr char kTag = 'A';
  template <class Visitor, class M>
  static void visit(Visitor& v, M& m) {
    auto& r = m.verdict;
    v(m.id), v(r.outcome), v(r.reason), v(r.detections), v(r.md5), v(r.sha1), v(r.sha256);
  }
};

/// Texts are cut to what a packet holds.
template <class M>
std::string encode(const M& message);
/// Nothing for any other message, or one that is cut or too long: the sender is not to be trusted then.
template <class M>
std::optional<M> decode(std::string_view packet);

inline constexpr std::size_t kLongestPacket = 64 * 1024;

}  // namespace agent
