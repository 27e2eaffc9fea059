// What the surroundings of a process name, and a request does not follow.

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include "support/loopback_listener.hpp"
#include "support/scripted_server.hpp"
#include "support/with_environment.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::head_of;
using testing::ScriptedServer;
using testing::sized;
using testing::untrusted;
using testing::whole;

class HttpsSurroundings : public testing::ScriptedPlace {};

TEST_F(HttpsSurroundings, NameNoProxy) {
  const testing::LoopbackListener proxy;
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  for (const char* const scheme : {"http", "https", "socks5h"}) {
    const std::string address = std::string(scheme) + "://localhost:" + std::to_string(proxy.port());
    const testing::WithEnvironment all("ALL_PROXY", address);
    const testing::WithEnvironment all_small("all_proxy", address);
    const testing::WithEnvironment https("HTTPS_PROXY", address);
    const testing::WithEnvironment https_small("https_proxy", address);
    const testing::WithEnvironment none("NO_PROXY", std::nullopt);
    const testing::WithEnvironment none_small("no_proxy", std::nullopt);
    EXPECT_EQ(client(server.url()).get("file", 16).body, whole) << scheme;
    EXPECT_EQ(client(server.url()).post_json("file", Json::object(), {}).body, whole) << scheme;
  }
  EXPECT_FALSE(proxy.was_reached());
}

TEST_F(HttpsSurroundings, NameNoUser) {
  root_.write("home/.netrc", "machine localhost login somebody password secret\n");
  root_.write("home/.curlrc", "user = somebody:secret\nheader = \"X-Note: told\"\nproxy = localhost:1\n");
  std::filesystem::permissions(root_ / "home/.netrc", std::filesystem::perms::owner_read);
  const testing::WithEnvironment home("HOME", root_ / "home");
  const testing::WithEnvironment curl_home("CURL_HOME", root_ / "home");
  const testing::WithEnvironment netrc("NETRC", root_ / "home/.netrc");
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  EXPECT_EQ(client(server.url()).get("file", 16).body, whole);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(head_of(server.requests()[0]),
            (std::vector<std::string>{"GET /file HTTP/1.1", "Accept: */*", host_of(server), "User-Agent: Ravok/0.1"}));
}

// What the system's C library takes from its surroundings to find names does not lead a request elsewhere.
TEST_F(HttpsSurroundings, NameNoOtherHost) {
  const std::string aliases = root_.write("aliases", "localhost elsewhere.test\n");
  const testing::WithEnvironment alias_variable("HOSTALIASES", aliases);
  const testing::WithEnvironment domain_variable("LOCALDOMAIN", "elsewhere.test");
  const testing::WithEnvironment resolver_variable("RES_OPTIONS", "ndots:15 attempts:0 timeout:0 use-vc");
  const testing::WithEnvironment multi_variable("RESOLV_MULTI", "on");
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  EXPECT_EQ(client(server.url()).get("file", 16).body, whole);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(head_of(server.requests()[0]),
            (std::vector<std::string>{"GET /file HTTP/1.1", "Accept: */*", host_of(server), "User-Agent: Ravok/0.1"}));
}

TEST_F(HttpsSurroundings, NameNoAuthority) {
  const testing::CertificateAuthority other;
  const std::string path = root_.write("other.pem", other.root());
  const std::string directory = root_.directory("others");
  root_.write("others/other.pem", other.root());
  const testing::WithEnvironment file_variable("SSL_CERT_FILE", path);
  const testing::WithEnvironment directory_variable("SSL_CERT_DIR", directory);
  const testing::WithEnvironment bundle_variable("CURL_CA_BUNDLE", path);
  const testing::WithEnvironment configuration("OPENSSL_CONF", root_ / "missing.cnf");
  const ScriptedServer server(other.issue(), answer(sized(whole)));
  EXPECT_FAILURE(client(server.url()).get("file", 16), "network", untrusted);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(HttpsSurroundings, NameNoAuthorityBesideTheSystems) {
  const testing::CertificateAuthority other;
  const std::string path = root_.write("other.pem", other.root());
  const testing::WithEnvironment file_variable("SSL_CERT_FILE", path);
  const testing::WithEnvironment bundle_variable("CURL_CA_BUNDLE", path);
  const ScriptedServer server(other.issue(), answer(sized(whole)));
  const std::optional<Error> failure = testing::failure_of([&] { HttpsTransport(server.url(), {}).get("file", 16); });
  ASSERT_TRUE(failure);
  if (failure->code == "ca_bundle") {
    GTEST_SKIP() << "this system names no authorities";
  }
  EXPECT_EQ(failure->code, "network");
  EXPECT_STREQ(failure->what(), untrusted);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

// A configuration of the TLS library in which keys of any strength will do.
constexpr const char* weak_configuration =
    "openssl_conf = all\n"
    "[all]\nssl_conf = connections\n"
    "[connections]\nsystem_default = weak\n"
    "[weak]\nCipherString = ALL:@SECLEVEL=0\n";

// What a request to a server with a small key ends with, in a process that has not used the library yet.
std::string ending_with_a_small_key(const testing::TemporaryRoot& root, bool configured_before) {
  if (configured_before) {
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  }
  // The client starts the library, and only then do the certificate and the server use it.
  HttpsTransport client("https://localhost", root / "authority.pem");
  const testing::CertificateAuthority authority;
  root.write("authority.pem", authority.root());
  const ScriptedServer server(authority.issue(testing::Flaw::small_key), answer(sized(whole)));
  client = HttpsTransport(server.url(), root / "authority.pem");
  std::string ending;
  const auto failure = testing::failure_of([&] { ending = client.get("file", 16).body; });
  return failure ? failure->code + ": " + failure->what() : ending;
}

// The library looks for its configuration when it starts, which it does once in a process.
TEST(HttpsConfiguration, OfTheSurroundingsIsNotTaken) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The test runs again from its beginning in the other process, with a directory of its own.
  const testing::TemporaryRoot root;
  const testing::WithEnvironment configuration("OPENSSL_CONF", root.write("library.cnf", weak_configuration));
  const auto leave = [&](bool configured_before, const std::string& expected) {
    const std::string ending = ending_with_a_small_key(root, configured_before);
    std::filesystem::remove_all(root.path());
    std::_Exit(ending == expected ? 0 : 1);
  };
  EXPECT_EXIT(leave(false, std::string("network: ") + untrusted), ::testing::ExitedWithCode(0), "");
  // Where somebody lets the library load it, it takes effect.
  EXPECT_EXIT(leave(true, whole), ::testing::ExitedWithCode(0), "");
}

TEST_F(HttpsSurroundings, TakeNoKeysOfTls) {
  // The library looks for the variable when it starts, which it does once in a process.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string keys = root_ / "keys";
  const testing::WithEnvironment variable("SSLKEYLOGFILE", keys);
  const auto leave = [&] {
    bool good = false;
    {
      const ScriptedServer server(authority_.issue(), answer(sized(whole)));
      good = client(server.url()).get("file", 16).body == whole && !std::filesystem::exists(keys);
    }
    std::filesystem::remove_all(root_.path());
    std::_Exit(good ? 0 : 1);
  };
  EXPECT_EXIT(leave(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ravok
