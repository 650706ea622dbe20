#pragma once

#include "json/JsonSerializerObject.h"

namespace JsonReflect {

/// Reads and writes a record by its list of members (Members.h). A record R derives from Record<R>. Members
/// are bool, std::int32_t, std::int64_t, std::string, other records, and vectors of strings or records.
template <class R>
class Record : public JsonSerializerObject {
 public:
  void Serialize(Json::Value& out) const override;
  void Deserialize(const Json::Value& in) override;
};

}  // namespace JsonReflect
