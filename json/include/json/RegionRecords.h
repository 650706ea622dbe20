#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Record.h"

/// The records of the quarantine and of the trust and reject lists. Texts that are paths hold the wire form
/// (json::encodePath). Not thread-safe.
namespace JsonReflect {

/// One quarantined item, as getIsolationInfo lists it.
class IsolationItem : public Record<IsolationItem> {
 public:
  std::string filemd5_repaired;   ///< MD5 of the file after repair
  std::int32_t uid = 0;           ///< owner of the file
  std::string filetype_src;       ///< type of the file before quarantine
  std::int64_t isolate_time = 0;  ///< seconds since 1970-01-01
  std::string uuid;               ///< the item's UID, which a restore takes
  std::string filemd5_src;        ///< MD5 of the file before quarantine
  std::string risk_type_name;
  std::int32_t gid = 0;      ///< owning group of the file
  std::int32_t mode = 0;     ///< permission bits of the file
  std::string filepath_src;  ///< where the file was; a path
  std::int64_t size = 0;     ///< bytes
  std::int32_t risk_type = 0;
  std::int32_t engine_type = 0;  ///< json::Engine::code
  std::string virus_name;        ///< name of the detection

  template <class Self, class Visitor>
  static void members(Self& self, Visitor& visit);
};

/// "params" of startDeIsolate.
class DeIsolateParams : public Record<DeIsolateParams> {
 public:
  std::int32_t action = 0;  ///< 1 restore only, 2 restore and trust
  std::int32_t item_number = 0;
  bool is_all = false;             ///< restore everything
  std::string custom_path;         ///< folder to restore to; empty: where the file was; a path
  std::vector<std::string> items;  ///< UIDs

  template <class Self, class Visitor>
  static void members(Self& self, Visitor& visit);
};

/// One entry of the trust or reject list, as getRegionInfo lists it.
class FilterRegionItem : public Record<FilterRegionItem> {
 public:
  std::int32_t valid_statue = 0;  ///< 0 valid, 1 valid for ever, else invalid
  std::int32_t domain = 0;        ///< 0 personal, 1 global
  std::string uuid;
  std::int32_t item_type = 0;    ///< 0 path, 1 folder, 2 extension, 3 MD5, 4 name, 5 SHA1, 6 SHA256
  std::int32_t exist_state = 0;  ///< whether the item exists on disk
  std::string item;              ///< a path, name, extension or hash
  std::int64_t modify_time = 0;  ///< seconds since 1970-01-01
  std::int64_t file_size = 0;    ///< bytes
  std::string md5;
  std::int64_t add_time = 0;  ///< seconds since 1970-01-01

  template <class Self, class Visitor>
  static void members(Self& self, Visitor& visit);
};

}  // namespace JsonReflect
