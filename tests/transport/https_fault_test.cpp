// Every failure of the HTTPS library before a request. The linker leads its calls through the wrappers
// below, which fail the one that a test names.

#include <cstdlib>
#include <string>
#include <string_view>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "transport/https.hpp"

namespace {

std::string_view failing;
int starts = 0;

bool fails(std::string_view call) { return failing == call; }

}  // namespace

extern "C" {

CURLcode __real_curl_global_init(long flags);
CURLcode __wrap_curl_global_init(long flags) {
  ++starts;
  return fails("curl_global_init") || flags != CURL_GLOBAL_ALL ? CURLE_FAILED_INIT : __real_curl_global_init(flags);
}

CURLU* __real_curl_url();
CURLU* __wrap_curl_url() { return fails("curl_url") ? nullptr : __real_curl_url(); }

CURLUcode __real_curl_url_get(const CURLU* url, CURLUPart part, char** text, unsigned flags);
CURLUcode __wrap_curl_url_get(const CURLU* url, CURLUPart part, char** text, unsigned flags) {
  return fails("curl_url_get host") && part == CURLUPART_HOST ? CURLUE_NO_HOST
                                                              : __real_curl_url_get(url, part, text, flags);
}

}  // extern "C"

namespace ravok {
namespace {

class HttpsFault : public ::testing::Test {
 protected:
  void TearDown() override { failing = {}; }

  static HttpsTransport transport(const std::string& base_url) { return {base_url, {}, 0}; }
};

// The library is started once in a process, so a start that fails is tried in a child.
void expect_no_start() {
  failing = "curl_global_init";
  const auto refused = [](const char* base_url) {
    return testing::fails_with([&] { const HttpsTransport service(base_url, {}, 0); }, "transport",
                               "Cannot initialize HTTPS library");
  };
  const bool first = refused("http://example.test");
  failing = {};
  const bool second = refused("https://example.test");
  std::_Exit(first && second && starts == 1 ? 0 : 1);
}

TEST_F(HttpsFault, ALibraryThatDoesNotStartTakesNoAddressAndIsNotAskedAgain) {
  EXPECT_EXIT(expect_no_start(), ::testing::ExitedWithCode(0), "");
}

TEST_F(HttpsFault, TheLibraryStartsOnce) {
  transport("https://example.test");
  transport("https://example.test");
  EXPECT_EQ(starts, 1);
}

TEST_F(HttpsFault, AnAddressThatCannotBeParsedIsRefused) {
  failing = "curl_url";
  EXPECT_FAILURE(transport("https://example.test"), "invalid_url", "Invalid service URL");
}

TEST_F(HttpsFault, AnAddressWithoutAHostIsRefusedBeforeItsOtherParts) {
  failing = "curl_url_get host";
  EXPECT_FAILURE(transport("https://user@example.test"), "invalid_url", "URL must contain a hostname");
}

}  // namespace
}  // namespace ravok
