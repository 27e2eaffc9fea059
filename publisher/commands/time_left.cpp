#include "publisher/commands/time_left.hpp"

#include <chrono>
#include <cstdint>

#include "domain/display_text.hpp"

namespace ravok {

std::string time_left(TufTime expires, TufTime at) {
  if (expires <= at) {
    return "expired";
  }
  const auto hours = std::chrono::floor<std::chrono::hours>(expires - at).count();
  if (hours < 1) {
    return "less than an hour";
  }
  return hours < 24 ? shown_count(static_cast<std::uint64_t>(hours), "hour")
                    : shown_count(static_cast<std::uint64_t>(hours / 24), "day");
}

std::int64_t days_left(TufTime expires, TufTime at) {
  return std::chrono::floor<std::chrono::days>(expires - at).count();
}

}  // namespace ravok
