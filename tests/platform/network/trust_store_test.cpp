#include "platform/network/trust_store.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using Places = std::vector<std::filesystem::path>;

TEST(TrustStore, HasTheFirstBundleThatIsThere) {
  const testing::TemporaryRoot root;
  const auto first = root.write("first.pem", "first");
  const auto second = root.write("second.pem", "second");
  EXPECT_EQ(read_trust_bundle(Places{first, second}), "first");
  EXPECT_EQ(read_trust_bundle(Places{root / "missing.pem", root / "missing/bundle.pem", second, first}), "second");
  EXPECT_EQ(read_trust_bundle(Places{root / "missing.pem"}), "");
  EXPECT_EQ(read_trust_bundle({}), "");
}

TEST(TrustStore, IsReachedThroughLinks) {
  const testing::TemporaryRoot root;
  root.write("extracted/pem/bundle.pem", "authorities");
  std::filesystem::create_directory_symlink("extracted/pem", root / "certs");
  std::filesystem::create_symlink("certs/bundle.pem", root / "cert.pem");
  EXPECT_EQ(read_trust_bundle(Places{root / "cert.pem"}), "authorities");
  EXPECT_EQ(read_trust_bundle(Places{root / "certs/bundle.pem"}), "authorities");
}

TEST(TrustStore, PassesOverWhatHoldsNoBundle) {
  const testing::TemporaryRoot root;
  const auto bundle = root.write("bundle.pem", "authorities");
  root.write("empty.pem", "");
  root.write("large.pem", std::string(maximum_trust_bundle_bytes + 1, 'x'));
  root.directory("directory");
  ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("missing.pem", root / "dangling.pem");
  std::filesystem::create_symlink("round.pem", root / "round.pem");
  for (const char* place : {"empty.pem", "large.pem", "directory", "pipe", "dangling.pem", "round.pem"}) {
    EXPECT_EQ(read_trust_bundle(Places{root / place}), "") << place;
    EXPECT_EQ(read_trust_bundle(Places{root / place, bundle}), "authorities") << place;
  }
}

TEST(TrustStore, TakesABundleOfEightMebibytes) {
  const testing::TemporaryRoot root;
  const auto bundle = root.write("bundle.pem", std::string(maximum_trust_bundle_bytes, 'x'));
  EXPECT_EQ(read_trust_bundle(Places{bundle}).size(), 8'388'608u);
}

TEST(TrustStore, PassesOverABundleThatThisUserCannotRead) {
  const testing::TemporaryRoot root;
  const auto hidden = root.write("hidden.pem", "hidden");
  const auto bundle = root.write("bundle.pem", "authorities");
  const testing::WithMode unreadable(hidden, 0);
  const testing::OrdinaryUser user(root);
  EXPECT_EQ(read_trust_bundle(Places{hidden, bundle}), "authorities");
}

TEST(TrustStore, HasPlacesThatNobodyNames) {
  for (const std::filesystem::path& place : os::trust_bundle_places()) {
    EXPECT_TRUE(place.is_absolute()) << place;
  }
}

}  // namespace
}  // namespace ravok
