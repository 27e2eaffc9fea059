// The times of a repository's documents, and whether they have passed.
#pragma once

#include <chrono>
#include <string_view>

namespace ravok {

using TufTime = std::chrono::sys_time<std::chrono::microseconds>;

// Returns the time of a text such as "2030-01-31T23:59:59Z". A fraction of the seconds may have up to nine digits, of
// which the first six count. Fails with "invalid_expiry".
TufTime parse_tuf_time(std::string_view text);

// Whether the time is now or in the past.
bool has_passed(TufTime time);

}  // namespace ravok
