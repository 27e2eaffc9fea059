// How much time is left until something expires.
#pragma once

#include <cstdint>
#include <string>

#include "tuf/tuf_time.hpp"

namespace ravok {

// Returns how much time is left at `at`, such as "12 days", "5 hours" or "less than an hour"; "expired" when none is.
std::string time_left(TufTime expires, TufTime at);

// Returns the same in whole days, rounded down; negative for a time that has passed.
std::int64_t days_left(TufTime expires, TufTime at);

}  // namespace ravok
