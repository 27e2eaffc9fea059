#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/file/file_digest.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "support/process_memory.hpp"
#include "support/tuf_place.hpp"
#include "transport/https.hpp"

namespace ravok::target_memory_test {
namespace {

using testing::NginxServer;

constexpr std::uint64_t mebibyte = 1 << 20;

TEST(TargetMemory, OfADownloadDoesNotGrowWithTheTarget) {
  if (!NginxServer::is_installed()) {
    GTEST_SKIP() << "nginx is not installed";
  }
  constexpr std::uint64_t size = 1024 * mebibyte;
  const testing::TemporaryRoot root;
  const testing::CertificateAuthority authority;
  root.write("authority.pem", authority.root());
  const std::filesystem::path served = root.write("served", "");
  std::filesystem::resize_file(served, size);
  testing::TufPlace place;
  place.repository.consistent = false;
  place.repository.targets().describe("target",
                                      {{"length", size}, {"hashes", {{"sha256", digest_file(served, "sha256")}}}});
  place.begin();
  const NginxServer server(authority.issue(), "location = /target { alias " + served.native() + "; }");
  HttpsTransport targets(server.url(), root / "authority.pem");
  TufClient client(place.directory, place.transport, targets, place.limits, [&] { return place.now; });
  client.refresh();
  const TufDownloadOptions options{.scope = "test", .admission = {}};
  const std::uint64_t peak = testing::peak_of([&] { client.download("target", root / "files", {}, {}, options); });
  EXPECT_EQ(std::filesystem::file_size(root / "files/target"), size) << server.complaints();
  EXPECT_GT(peak, 0u);
  EXPECT_LE(peak, 8 * mebibyte);
  RecordProperty("peak_bytes", std::to_string(peak));
}

}  // namespace
}  // namespace ravok::target_memory_test
