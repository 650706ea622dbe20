#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Members.h"
#include "json/Record.h"

/// The records of the quarantine and of the trust and reject lists. Paths have the wire form
/// (json::encodePath). Not thread-safe.
namespace JsonReflect {

/// One quarantined item in the answer of getIsolationInfo.
class IsolationItem : public Record<IsolationItem> {
 public:
  std::string filemd5_repaired;   ///< MD5 of the file after repair
  std::int32_t uid = 0;           ///< owner of the file
  std::string filetype_src;       ///< type of the file before quarantine
  std::int64_t isolate_time = 0;  ///< seconds since 1970-01-01
  std::string uuid;               ///< the UID of the item, for a restore
  std::string filemd5_src;        ///< MD5 of the file before quarantine
  std::string risk_type_name;
  std::int32_t gid = 0;      ///< owning group of the file
  std::int32_t mode = 0;     ///< permission bits of the file
  std::string filepath_src;  ///< a path: the original place of the file
  std::int64_t size = 0;     ///< bytes
  std::int32_t risk_type = 0;
  std::int32_t engine_type = 0;  ///< json::Engine::code
  std::string virus_name;        ///< name of the detection

  JSON_MEMBERS(filemd5_repaired, uid, filetype_src, isolate_time, uuid, filemd5_src, risk_type_name, gid,
               mode, filepath_src, size, risk_type, engine_type, virus_name);
};

/// "params" of startDeIsolate.
class DeIsolateParams : public Record<DeIsolateParams> {
 public:
  std::int32_t action = 0;  ///< json::RestoreAction
  std::int32_t item_number = 0;
  bool is_all = false;             ///< restore everything
  std::string custom_path;         ///< a path: the target folder; empty: the original folder
  std::vector<std::string> items;  ///< UIDs

  JSON_MEMBERS(action, item_number, is_all, custom_path, items);
};

/// One entry of the trust or reject list in the answer of getRegionInfo.
class FilterRegionItem : public Record<FilterRegionItem> {
 public:
  std::int32_t valid_statue = 0;  ///< json::RegionValidity
  std::int32_t domain = 0;        ///< json::RegionDomain
  std::string uuid;
  std::int32_t item_type = 0;    ///< json::RegionItemType
  std::int32_t exist_state = 0;  ///< whether the item exists on disk
  std::string item;              ///< a path, name, extension or hash
  std::int64_t modify_time = 0;  ///< seconds since 1970-01-01
  std::int64_t file_size = 0;    ///< bytes
  std::string md5;
  std::int64_t add_time = 0;  ///< seconds since 1970-01-01

  JSON_MEMBERS(valid_statue, domain, uuid, item_type, exist_state, item, modify_time, file_size, md5,
               add_time);
};

}  // namespace JsonReflect
