#pragma once

#include "json/JsonSerializerObject.h"

namespace JsonReflect {

/// Reads and writes a record by its one list of members. A record R derives from Record<R> and has
///   template <class Self, class Visitor> static void members(Self& self, Visitor& visit);
/// which calls visit(key, self.member) for each member in order. Members are bool,
/// std::int32_t, std::int64_t, std::string, other records, and vectors of strings or records.
template <class R>
class Record : public JsonSerializerObject {
 public:
  void Serialize(Json::Value& out) const override;
  void Deserialize(const Json::Value& in) override;
};

}  // namespace JsonReflect
