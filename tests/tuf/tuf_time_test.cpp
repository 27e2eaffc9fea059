#include "tuf/tuf_time.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::tuf_time_test {
namespace {

constexpr const char* time_form = "Expiry must use a UTC ISO-8601 timestamp";
constexpr const char* time_digits = "Timestamp fields must contain decimal digits";
constexpr const char* no_such_time = "Invalid UTC calendar time";
constexpr const char* bad_fraction = "Invalid fractional second";

std::int64_t microseconds(std::string_view text) { return parse_tuf_time(text).time_since_epoch().count(); }

TEST(TufTime, CountsFromTheEpoch) {
  EXPECT_EQ(microseconds("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(microseconds("1969-12-31T23:59:59Z"), -1'000'000);
  EXPECT_EQ(microseconds("2001-09-09T01:46:40Z"), 1'000'000'000'000'000);
  EXPECT_EQ(microseconds("2038-01-19T03:14:08Z"), 2'147'483'648'000'000);
  EXPECT_EQ(microseconds("2028-02-29T23:59:59Z"), 1'835'481'599'000'000);
  EXPECT_EQ(microseconds("9999-12-31T23:59:59Z"), 253'402'300'799'000'000);
}

TEST(TufTime, KeepsSixDigitsOfAFractionWithoutRounding) {
  EXPECT_EQ(microseconds("1970-01-01T00:00:00.1Z"), 100'000);
  EXPECT_EQ(microseconds("1970-01-01T00:00:00.05Z"), 50'000);
  EXPECT_EQ(microseconds("1970-01-01T00:00:00.000001Z"), 1);
  EXPECT_EQ(microseconds("1970-01-01T00:00:00.0000019Z"), 1);
  EXPECT_EQ(microseconds("1970-01-01T00:00:00.999999999Z"), 999'999);
  EXPECT_EQ(microseconds("1969-12-31T23:59:59.999999Z"), -1);
  EXPECT_EQ(microseconds("2028-02-29T23:59:59.999999999Z"), 1'835'481'599'999'999);
}

TEST(TufTime, KnowsTheCalendar) {
  for (const char* text : {"2000-02-29T00:00:00Z", "2400-02-29T00:00:00Z", "2030-04-30T00:00:00Z",
                           "2030-12-31T23:59:59Z", "2030-01-31T00:00:00Z"}) {
    EXPECT_NO_THROW(parse_tuf_time(text)) << text;
  }
  for (const char* text :
       {"2030-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2100-02-29T00:00:00Z", "2000-02-30T00:00:00Z",
        "2030-00-01T00:00:00Z", "2030-13-01T00:00:00Z", "2030-01-00T00:00:00Z", "2030-01-32T00:00:00Z",
        "2030-04-31T00:00:00Z", "2030-01-01T24:00:00Z", "2030-01-01T00:60:00Z", "2030-01-01T00:00:60Z",
        "2030-01-01T99:99:99Z", "2030-99-99T00:00:00Z", "2030-02-29T00:00:00.xZ"}) {
    EXPECT_FAILURE(parse_tuf_time(text), "invalid_expiry", no_such_time) << text;
  }
}

TEST(TufTime, HasOneForm) {
  for (const char* text : {"",
                           "Z",
                           "2030-01-01T00:00:00",
                           "2030-01-01T00:00:00z",
                           "2030-01-01t00:00:00Z",
                           "2030-01-01 00:00:00Z",
                           "2030-01-01T00:00:00+00:00",
                           "2030/01-01T00:00:00Z",
                           "2030-01/01T00:00:00Z",
                           "2030-01-01T00.00:00Z",
                           "2030-01-01T00:00.00Z",
                           "2030-01-01T00:00:00.Z",
                           "2030-01-01T00:00:00,5Z",
                           "2030-01-01T00:00:000Z",
                           "2030-01-01T00:00:0005Z",
                           "2030-01-01T00:00:00.0123456789Z",
                           "2030-01-01T00:00:00Z\n",
                           " 2030-01-01T00:00:00Z",
                           "12030-01-01T00:00:00Z",
                           "2030-1-01T00:00:00Z",
                           "2030-01-01T00:00Z"}) {
    EXPECT_FAILURE(parse_tuf_time(text), "invalid_expiry", time_form) << text;
  }
}

TEST(TufTime, ReadsDigitsOnly) {
  for (const std::size_t place : {0U, 3U, 5U, 6U, 8U, 9U, 11U, 12U, 14U, 15U, 17U, 18U}) {
    for (const char c : {' ', '+', '-', '/', ':', 'a', '\0', '\xb2'}) {
      std::string text = "2030-01-01T00:00:00Z";
      text[place] = c;
      EXPECT_FAILURE(parse_tuf_time(text), "invalid_expiry", time_digits) << text;
    }
  }
  for (const char* text : {"2030-01-01T00:00:00.xZ", "2030-01-01T00:00:00.1 Z", "2030-01-01T00:00:00.-1Z",
                           "2030-01-01T00:00:00.1.2Z", "2030-01-01T00:00:00.1234567xZ", "2030-01-01T00:00:00.1ZZ"}) {
    EXPECT_FAILURE(parse_tuf_time(text), "invalid_expiry", bad_fraction) << text;
  }
}

TEST(TufTime, HasPassedOnceTheSystemsClockIsThere) {
  EXPECT_TRUE(has_passed(parse_tuf_time("2020-01-01T00:00:00Z")));
  EXPECT_TRUE(has_passed(parse_tuf_time("0001-01-01T00:00:00Z")));
  EXPECT_FALSE(has_passed(parse_tuf_time("9999-12-31T23:59:59Z")));
  const auto now = std::chrono::floor<TufTime::duration>(std::chrono::system_clock::now());
  EXPECT_TRUE(has_passed(now - std::chrono::hours(24)));
  EXPECT_FALSE(has_passed(now + std::chrono::hours(24)));
}

}  // namespace
}  // namespace ravok::tuf_time_test
