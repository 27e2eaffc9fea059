#include "platform/process/native_platform.hpp"

#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace ravok::native_platform_test {
namespace {

TEST(NativePlatform, IsOneThatDocumentsName) {
  const std::set<std::string_view> platforms = {"linux-x86_64", "windows-x86_64", "macos-aarch64"};
  EXPECT_TRUE(platforms.contains(native_platform())) << native_platform();
}

TEST(NativePlatform, NamesTheManifestOfItsLauncher) {
  EXPECT_EQ(launcher_manifest_target(), "launcher-" + std::string(native_platform()) + ".manifest.json");
}

}  // namespace
}  // namespace ravok::native_platform_test
