#include "publisher/repository_origin.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "transport/https.hpp"

namespace ravok {
namespace {

constexpr const char* not_plain = "The package origin must be a plain HTTPS origin";
constexpr const char* no_port = "The origin has a colon without a port behind it";
constexpr const char* bad_port = "The port of the origin must be a number from 1 to 65535";
constexpr const char* no_host = "The host of the origin has no letter or digit";
constexpr const char* not_ascii =
    "The host of the origin must be ASCII; write an international name in its form that begins with xn--";
constexpr const char* percent = "The origin must not contain a percent sign";

void expect_refused(const std::string& origin, const std::string& code, const std::string& message) {
  EXPECT_FAILURE(require_reachable_origin(origin), code, message) << origin;
}

TEST(RepositoryOrigin, MayHaveAPortAndAnyHost) {
  for (const char* const origin :
       {"https://updates.example.com", "https://updates.example.com:443", "https://localhost:1", "https://a:65535",
        "https://xn--bcher-kva.example", "https://10.0.0.1:8443", "https://[2001:db8::1]", "https://[::1]:8443",
        "https://a_b.example", "https://example.com.", "https://1.example"}) {
    EXPECT_NO_THROW(require_reachable_origin(origin)) << origin;
    EXPECT_NO_THROW(require_plain_origin(origin)) << origin;
  }
}

TEST(RepositoryOrigin, HasAPortBehindItsColon) {
  for (const char* const origin : {"https://updates.example.com:", "https://[::1]:", "https://a:"}) {
    expect_refused(origin, "invalid_origin", no_port);
  }
  for (const char* const origin :
       {"https://a:0", "https://a:00", "https://a:65536", "https://a:99999", "https://a:100000", "https://a:-1",
        "https://a:+1", "https://a: 1", "https://a:1 ", "https://a:0x1", "https://a:https", "https://a:1:2",
        "https://2001:db8::1", "https://[::1]:0", "https://a:99999999999999999999999"}) {
    expect_refused(origin, "invalid_origin", bad_port);
  }
}

TEST(RepositoryOrigin, HasAHostThatCanHaveAnAddress) {
  for (const char* const origin :
       {"https://-", "https://.", "https://...:443", "https://_", "https://[::]", "https://:1"}) {
    expect_refused(origin, "invalid_origin", no_host);
  }
  for (const char* const origin : {"https://b\xc3\xbc"
                                   "cher.example",
                                   "https://\xc3\xbc:443", "https://a\xff"}) {
    expect_refused(origin, "invalid_origin", not_ascii);
  }
}

TEST(RepositoryOrigin, HasAHostOfNamesOrAnAddress) {
  constexpr const char* bad_names =
      "The host of the origin must be names of 1 to 63 letters, digits and hyphens between dots, 253 characters at "
      "most";
  const std::string long_name(63, 'a');
  const std::string three = "https://" + long_name + "." + long_name + "." + long_name + ".";
  for (const std::string& origin :
       {std::string("https://a b"), std::string("https://a\\b"), std::string("https://a\nb"),
        std::string("https://a\0b", 11), std::string("https://a|b"), std::string("https://a~"),
        std::string("https://a..b"), std::string("https://.a"), std::string("https://a.."),
        std::string("https://-a.com"), std::string("https://a-.com"), "https://" + long_name + "a.com",
        three + std::string(62, 'a')}) {
    expect_refused(origin, "invalid_origin", bad_names);
  }
  EXPECT_NO_THROW(require_reachable_origin(three + std::string(61, 'a')));
  for (const char* const origin : {"https://1", "https://256.1.1.1", "https://1.2.3.4.5", "https://999999999999",
                                   "https://a.1", "https://1.2.3", "https://0001.1.1.1"}) {
    expect_refused(origin, "invalid_origin", "The host of the origin ends in a number and is no address");
  }
}

TEST(RepositoryOrigin, HasNoPercentSign) {
  for (const char* const origin :
       {"https://updates%2eexample.com", "https://%61", "https://[fe80::1%25eth0]", "https://a:%31"}) {
    expect_refused(origin, "invalid_origin", percent);
  }
}

TEST(RepositoryOrigin, IsRefusedInTheClientsWordsWhereTheClientRefusesIt) {
  for (const char* const origin :
       {"https://updates.example.com/", "https://a/path", "https://a/path:0", "https://a:0/"}) {
    expect_refused(origin, "invalid_origin", not_plain);
  }
  constexpr const char* credentials = "Service URL must not contain credentials, query, or fragment";
  for (const char* const origin : {"https://user@a", "https://user:0@a", "https://a?b", "https://a#b", "https://a?%"}) {
    expect_refused(origin, "invalid_url", credentials);
  }
  for (const char* const origin : {"", "http://a", "HTTPS://a", "a", "http://a:0", "http://%"}) {
    expect_refused(origin, "https_required", "Ravok service URLs must use HTTPS");
  }
  expect_refused("https://", "invalid_url", "URL must contain a hostname");
  for (const char* const origin : {"https://[::1", "https://a]", "https://a]:1"}) {
    expect_refused(origin, "invalid_url", "Invalid service URL");
  }
}

}  // namespace
}  // namespace ravok
