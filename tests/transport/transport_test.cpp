#include "transport/transport.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

// A transport that has only what every one must have.
class PlainTransport : public Transport {
 public:
  TransportResponse get(std::string_view path, std::uint64_t limit) override {
    return {static_cast<long>(limit), std::string(path)};
  }
  void download(std::string_view, const std::filesystem::path&, std::uint64_t, const ProgressCallback&) override {}
};

TEST(Transport, GetsAComponentAsAPath) {
  PlainTransport plain;
  Transport& transport = plain;
  const TransportResponse response = transport.get_component("../a", 12);
  EXPECT_EQ(response.body, "../a");
  EXPECT_EQ(response.status, 12);
}

TEST(Transport, DoesNotResume) {
  const testing::TemporaryRoot root;
  AllocatedFile file(root / "file", 10, {});
  PlainTransport plain;
  Transport& transport = plain;
  EXPECT_FALSE(transport.supports_resumption());
  EXPECT_FAILURE(transport.download_into("a", file, 0, {}, {}, {}), "download_resume_unsupported",
                 "This transport cannot resume target downloads");
  EXPECT_EQ(file.written(), 0u);
}

}  // namespace
}  // namespace ravok
