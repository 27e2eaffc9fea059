#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "app/install/native_package.hpp"
#include "support/package_builder.hpp"
#include "support/process_memory.hpp"
#include "support/temporary_root.hpp"

namespace ravok::native_package_memory_test {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

TEST(NativePackageMemory, IsBoundedForLargeArchives) {
  const testing::TemporaryRoot root;
  const std::string seal = testing::write_large_package(root / "package", 300 * mebibyte);
  const std::uint64_t peak = testing::peak_of([&] {
    const NativePackage package = read_native_package(root / "package", seal, {});
    if (package.bootstrap.archive_length + package.launcher.archive_length != 300 * mebibyte) {
      std::abort();
    }
  });
  EXPECT_GT(peak, 0u);
  EXPECT_LE(peak, 24 * mebibyte);
}

}  // namespace
}  // namespace ravok::native_package_memory_test
