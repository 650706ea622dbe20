#include <uuid/uuid.h>

#include <array>

#include "platform/Text.h"

std::string CUuid::generate() {
  uuid_t raw;
  uuid_generate_random(raw);
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_lower(raw, text.data());
  return text.data();
}
