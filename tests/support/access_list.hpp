// Access lists in the form in which the kernel stores them, valid or not.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ravok::testing {

struct AccessEntry {
  std::uint16_t tag;
  std::uint16_t permissions;
  std::uint32_t id = 0xffffffff;  // nobody in particular
};

inline std::string stored_access_list(const std::vector<AccessEntry>& entries, std::uint32_t version = 2) {
  std::string list(reinterpret_cast<const char*>(&version), sizeof version);
  for (const AccessEntry& entry : entries) {
    list.append(reinterpret_cast<const char*>(&entry), sizeof entry);
  }
  return list;
}

}  // namespace ravok::testing
