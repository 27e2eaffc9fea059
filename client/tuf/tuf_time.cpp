#include "tuf/tuf_time.hpp"

#include <charconv>
#include <string>
#include <system_error>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

unsigned read_number(std::string_view text) {
  require(are_digits(text), "invalid_expiry", "Timestamp fields must contain decimal digits");
  unsigned number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  require(result.ec == std::errc(), "invalid_expiry", "Invalid timestamp digits");
  return number;
}

bool has_time_form(std::string_view text) {
  if (text.size() < 20 || text.size() > 30 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text.back() != 'Z') {
    return false;
  }
  return text.size() == 20 || (text.size() >= 22 && text[19] == '.');
}

// The first six digits after the dot count; a shorter fraction is padded with zeros.
std::chrono::microseconds read_fraction(std::string_view digits) {
  require(are_digits(digits), "invalid_expiry", "Invalid fractional second");
  std::string counted(digits.substr(0, 6));
  counted.resize(6, '0');
  return std::chrono::microseconds(read_number(counted));
}

}  // namespace

TufTime parse_tuf_time(std::string_view text) {
  namespace time = std::chrono;
  require(has_time_form(text), "invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
  const unsigned year = read_number(text.substr(0, 4));
  const unsigned month = read_number(text.substr(5, 2));
  const unsigned day = read_number(text.substr(8, 2));
  const unsigned hour = read_number(text.substr(11, 2));
  const unsigned minute = read_number(text.substr(14, 2));
  const unsigned second = read_number(text.substr(17, 2));
  const time::year_month_day date(time::year(static_cast<int>(year)), time::month(month), time::day(day));
  require(date.ok() && hour < 24 && minute < 60 && second < 60, "invalid_expiry", "Invalid UTC calendar time");
  const TufTime whole = time::sys_days(date) + time::hours(hour) + time::minutes(minute) + time::seconds(second);
  return text.size() == 20 ? whole : whole + read_fraction(text.substr(20, text.size() - 21));
}

bool has_passed(TufTime time) {
  // Compares in microseconds: in the clock's own unit, a distant time would overflow.
  return time <= std::chrono::floor<TufTime::duration>(std::chrono::system_clock::now());
}

}  // namespace ravok
