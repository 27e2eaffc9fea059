// The check of a repository on a real server.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publisher/checked_site.hpp"
#include "support/nginx_server.hpp"
#include "transport/network_place.hpp"

namespace ravok {
namespace {

using testing::CheckedSite;
using testing::NginxServer;
using testing::texts_of;
using Texts = std::vector<std::string>;

class RepositoryServerCheck : public testing::NetworkPlace {
 protected:
  void SetUp() override {
    if (!NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
  }

  void serve(const NginxServer& server) {
    site_.repository.publish();
    for (const auto& [name, text] : site_.repository.metadata()) {
      server.serve("tuf/metadata/" + name, text);
    }
    for (const auto& [name, bytes] : site_.repository.target_files()) {
      server.serve("tuf/targets/" + name, bytes);
    }
  }

  RepositoryCheck check(const NginxServer& server, CheckDepth depth = CheckDepth::whole) const {
    const std::string address = server.url();
    return check_server(address.substr(0, address.size() - 1), root_ / "authority.pem",
                        site_.options("2030-01-01T00:00:00Z", depth), {});
  }

  CheckedSite site_;
};

TEST_F(RepositoryServerCheck, FindsASoundRepositorySound) {
  const NginxServer server(authority_.issue());
  site_.repository.rotate("root");
  serve(server);
  for (const CheckDepth depth : {CheckDepth::metadata, CheckDepth::quick, CheckDepth::whole}) {
    const RepositoryCheck found = check(server, depth);
    EXPECT_EQ(texts_of(found.walk.problems), Texts()) << server.complaints();
    EXPECT_EQ(texts_of(found.walk.notices), Texts());
    EXPECT_TRUE(found.works());
    EXPECT_FALSE(found.is_listed);
    EXPECT_EQ(found.target_files, 4u);
    EXPECT_EQ(found.releases.size(), depth == CheckDepth::metadata ? 0u : 2u);
  }
}

TEST_F(RepositoryServerCheck, TellsOfTargetsThatAreMissingCutOrChanged) {
  const NginxServer server(authority_.issue());
  site_.repository.targets().add("empty", "");
  serve(server);
  const std::string file = site_.target("games/one.tar.zst");
  const std::string about = "games | " + file + " | ";
  server.serve(file, site_.game_archive.substr(1));
  EXPECT_EQ(check(server, CheckDepth::quick).walk.problems.at(0).code, "length_mismatch");
  EXPECT_EQ(check(server).walk.problems.at(0).code, "length_mismatch");
  server.serve(file, site_.game_archive.substr(1) + "?");
  EXPECT_EQ(texts_of(check(server, CheckDepth::quick).walk.problems), Texts());
  EXPECT_EQ(texts_of(check(server).walk.problems),
            (Texts{about + "hash_mismatch | Target hash does not match signed metadata"}));
}

TEST_F(RepositoryServerCheck, TellsOfFilesThatTheServerDoesNotGive) {
  const std::string archive = "location ~ one.tar.zst$ { return 404; }";
  const NginxServer server(authority_.issue(), archive);
  serve(server);
  const Texts problems = {"games | " + site_.target("games/one.tar.zst") +
                          " | http_status | Download failed with status 404"};
  EXPECT_EQ(texts_of(check(server, CheckDepth::quick).walk.problems), problems);
  EXPECT_EQ(texts_of(check(server).walk.problems), problems);
  EXPECT_EQ(texts_of(check(server, CheckDepth::metadata).walk.problems), Texts());
}

TEST_F(RepositoryServerCheck, TellsOfAServerThatSendsClientsElsewhere) {
  const NginxServer server(authority_.issue(), "location / { return 302 /other; }");
  serve(server);
  EXPECT_EQ(texts_of(check(server).walk.problems),
            (Texts{"root | tuf/metadata/2.root.json | redirect_rejected | Server redirects are not permitted"}));
}

TEST_F(RepositoryServerCheck, TellsOfAServerThatSendsNoParts) {
  const NginxServer server(authority_.issue(), "max_ranges 0;");
  serve(server);
  const RepositoryCheck found = check(server, CheckDepth::quick);
  EXPECT_TRUE(found.works());
  EXPECT_EQ(texts_of(found.walk.notices), (Texts{" |  | no_byte_ranges | The server sends no parts of files, so a "
                                                 "download that breaks off begins again"}));
}

TEST_F(RepositoryServerCheck, TellsOfAServerThatClientsDoNotTrust) {
  const testing::CertificateAuthority other;
  const NginxServer server(other.issue());
  serve(server);
  const RepositoryCheck found = check(server);
  EXPECT_FALSE(found.works());
  ASSERT_EQ(found.walk.problems.size(), 1u);
  EXPECT_EQ(found.walk.problems.front().code, "network");
}

TEST_F(RepositoryServerCheck, RefusesCertificatesThatCannotBeRead) {
  const NginxServer server(authority_.issue());
  serve(server);
  const std::string address = server.url();
  EXPECT_EQ(testing::failure_of([&] {
              check_server(address.substr(0, address.size() - 1), root_ / "missing.pem", site_.options(), {});
            })
                .value_or(Error("", ""))
                .code,
            "file_read");
}

}  // namespace
}  // namespace ravok
