#include "publisher/repository/repository_time.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t most_days = 36'500;

}  // namespace

TufTime present_tuf_time() { return std::chrono::floor<TufTime::duration>(std::chrono::system_clock::now()); }

std::string tuf_time_text(TufTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::chrono::hh_mm_ss day(seconds - std::chrono::floor<std::chrono::days>(seconds));
  std::array<char, 32> text{};
  const int size = std::snprintf(text.data(), text.size(), "T%02d:%02d:%02dZ", static_cast<int>(day.hours().count()),
                                 static_cast<int>(day.minutes().count()), static_cast<int>(day.seconds().count()));
  return tuf_day_text(time) + std::string(text.data(), static_cast<std::size_t>(size));
}

std::string tuf_day_text(TufTime time) {
  const std::chrono::year_month_day date(std::chrono::floor<std::chrono::days>(time));
  std::array<char, 32> text{};
  const int size = std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(date.year()),
                                 static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return {text.data(), static_cast<std::size_t>(size)};
}

TufTime days_after(TufTime time, std::uint64_t days) {
  return time + std::chrono::days(static_cast<std::chrono::days::rep>(days));
}

void require_days(std::uint64_t days) {
  require(days >= 1 && days <= most_days, "invalid_expiry",
          "Documents are valid for 1 to " + std::to_string(most_days) + " days, not " + std::to_string(days));
}

}  // namespace ravok
