// The times that are written into the documents of a repository.
#pragma once

#include <cstdint>
#include <string>

#include "tuf/tuf_time.hpp"

namespace ravok {

// Returns what time it is.
TufTime present_tuf_time();

// Returns the time as documents tell it, in whole seconds, such as "2030-01-31T23:59:59Z".
std::string tuf_time_text(TufTime time);

// Returns the day of a time, such as "2030-01-31".
std::string tuf_day_text(TufTime time);

// Returns the time so many days later.
TufTime days_after(TufTime time, std::uint64_t days);

// Accepts only a time that a document may be given: 1 to 36,500 days. Fails with "invalid_expiry".
void require_days(std::uint64_t days);

}  // namespace ravok
