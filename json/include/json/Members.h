#pragma once

/// Lists the data members of a struct once, for all that reads, writes or describes the struct:
///   JSON_MEMBERS(pid, name);
/// gives `static void members(auto& self, auto& visit)`, which calls visit("pid", self.pid), then
/// visit("name", self.name). self may be const. The key is the name of the member. At most 16 members.
#define JSON_MEMBERS(...)                        \
  static void members(auto& self, auto& visit) { \
    JSON_RESCAN(JSON_VISIT(__VA_ARGS__))         \
  }                                              \
  static_assert(true)

// The preprocessor has no loop: each rescan expands one more JSON_VISIT.
#define JSON_VISIT(member, ...) \
  visit(#member, self.member);  \
  __VA_OPT__(JSON_VISIT_REST JSON_NO_ARGUMENTS(__VA_ARGS__))
#define JSON_VISIT_REST() JSON_VISIT
#define JSON_NO_ARGUMENTS ()
#define JSON_RESCAN(...) JSON_RESCAN_4(JSON_RESCAN_4(JSON_RESCAN_4(JSON_RESCAN_4(__VA_ARGS__))))
#define JSON_RESCAN_4(...) JSON_RESCAN_1(JSON_RESCAN_1(JSON_RESCAN_1(JSON_RESCAN_1(__VA_ARGS__))))
#define JSON_RESCAN_1(...) __VA_ARGS__
