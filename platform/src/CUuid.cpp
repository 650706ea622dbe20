#include <uuid/uuid.h>

#include <array>

#include "platform/Text.h"

int CUuid::generate(std::string& out) {
  uuid_t raw;
  uuid_generate_random(raw);
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_lower(raw, text.data());
  out = text.data();
  return 0;
}
