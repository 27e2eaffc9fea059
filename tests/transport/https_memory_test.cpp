#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "support/process_memory.hpp"
#include "support/temporary_root.hpp"
#include "transport/https.hpp"

namespace ravok::https_memory_test {
namespace {

using testing::CertificateAuthority;
using testing::NginxServer;
using testing::TemporaryRoot;

constexpr std::uint64_t mebibyte = 1 << 20;

class HttpsMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
    root_.write("authority.pem", authority_.root());
  }

  // Returns what a client takes beyond what it has when it is idle.
  std::uint64_t peak_of_download(std::uint64_t size) const {
    const std::filesystem::path served = root_.write("served", "");
    std::filesystem::resize_file(served, size);
    const NginxServer server(authority_.issue(), "location = /file { alias " + served.native() + "; }");
    HttpsTransport client(server.url(), root_ / "authority.pem");
    const std::uint64_t peak = testing::peak_of([&] { client.download("file", root_ / "files/file", size, {}); });
    EXPECT_EQ(std::filesystem::file_size(root_ / "files/file"), size);
    return peak;
  }

 private:
  const TemporaryRoot root_;
  const CertificateAuthority authority_;
};

TEST_F(HttpsMemory, OfADownloadDoesNotGrowWithTheFile) {
  const std::uint64_t peak = peak_of_download(1024 * mebibyte);
  EXPECT_GT(peak, 0u);
  EXPECT_LE(peak, 8 * mebibyte);
  RecordProperty("peak_bytes", std::to_string(peak));
}

}  // namespace
}  // namespace ravok::https_memory_test
