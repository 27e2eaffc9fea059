// Whom a client trusts.

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "support/loopback_listener.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::Flaw;
using testing::ScriptedServer;
using testing::sized;
using testing::untrusted;
using testing::whole;

struct BadCertificate {
  const char* name;
  Flaw flaw;
};

void PrintTo(const BadCertificate& bad, std::ostream* out) { *out << bad.name; }

class HttpsCertificate : public testing::ScriptedPlace, public ::testing::WithParamInterface<BadCertificate> {};

// Nothing is asked of a server that is not the right one.
TEST_P(HttpsCertificate, IsRefused) {
  const ScriptedServer server(authority_.issue(GetParam().flaw), answer(sized(whole)));
  HttpsTransport transport = client(server.url());
  EXPECT_FAILURE(transport.get("file", 100), "network", untrusted);
  EXPECT_FAILURE(transport.download("file", destination(), whole.size(), {}), "network", untrusted);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  EXPECT_EQ(files(), std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Bad, HttpsCertificate,
                         ::testing::Values(BadCertificate{"Expired", Flaw::expired},
                                           BadCertificate{"NotYetValid", Flaw::not_yet_valid},
                                           BadCertificate{"OfAnotherName", Flaw::other_name},
                                           BadCertificate{"ForAnotherPurpose", Flaw::other_purpose},
                                           BadCertificate{"SelfSigned", Flaw::self_signed},
                                           BadCertificate{"WithoutIntermediate", Flaw::missing_intermediate},
                                           BadCertificate{"IssuedByAServer", Flaw::issued_by_a_server},
                                           BadCertificate{"WithASmallKey", Flaw::small_key},
                                           BadCertificate{"WithAWeakDigest", Flaw::weak_digest}),
                         [](const auto& test) { return test.param.name; });

class HttpsTrust : public testing::ScriptedPlace {};

TEST_F(HttpsTrust, ACertificateOfAnotherAuthorityIsRefused) {
  const testing::CertificateAuthority other;
  const ScriptedServer server(other.issue(), answer(sized(whole)));
  EXPECT_FAILURE(client(server.url()).get("file", 100), "network", untrusted);
  root_.write("authority.pem", authority_.root() + other.root());
  EXPECT_EQ(client(server.url()).get("file", 100).body, whole);
  EXPECT_EQ(server.requests().size(), 1u);
}

// Whether a client without demands gets through to the server with this version of TLS.
bool speaks(const ScriptedServer& server, int version) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), version);
  SSL_CTX_set_max_proto_version(context.get(), version);
  const std::unique_ptr<SSL, decltype(&SSL_free)> connection(SSL_new(context.get()), SSL_free);
  const Handle socket = testing::connect_to_loopback(server.port());
  return SSL_set_fd(connection.get(), socket.get()) == 1 && SSL_connect(connection.get()) == 1;
}

TEST_F(HttpsTrust, AServerThatSpeaksOnlyAnOldTlsIsRefused) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)), TLS1_1_VERSION);
  EXPECT_TRUE(speaks(server, TLS1_1_VERSION));
  EXPECT_FAILURE(client(server.url()).get("file", 100), "network", "SSL connect error");
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

}  // namespace
}  // namespace ravok
