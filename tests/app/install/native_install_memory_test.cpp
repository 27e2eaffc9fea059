#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_package.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/publish_snapshot.hpp"
#include "publisher/signing/publish_key.hpp"
#include "support/process_memory.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::native_install_memory_test {
namespace {

using testing::peak_of;
using testing::TemporaryRoot;

constexpr std::uint64_t mebibyte = 1 << 20;
constexpr std::uint64_t allowance = 32 * mebibyte;
// The level that the snapshots are packed with, and the window that it gives the decoder.
constexpr int level = 3;
constexpr std::uint64_t window = 2 * mebibyte;
constexpr std::size_t file_bytes = 100'000;

// A product of 300 MB in 3,000 files.
class LargeInstall : public ::testing::Test {
 protected:
  void SetUp() override {
    PackagePublication publication;
    publication.output = root_ / "package";
    publication.bootstrap_manifest = snapshot(SnapshotKind::bootstrap, "bootstrap", {"bin/ravok-bootstrap"}, 100);
    publication.launcher_manifest = snapshot(SnapshotKind::launcher, "launcher", {"bin/launcher", "bin/window"}, 2900);
    publication.root = root_ / "root.json";
    publication.origin = "https://games.example";
    publish_key(root_ / "key", "ed25519");
    const RolePublication role = {{root_ / "key"}, 1};
    publish_root({publication.root, "2999-12-31T23:59:59Z", role, role, role, role});
    seal_ = publish_package(publication, {}).seal;
  }

  std::uint64_t peak_of_setup(bool repair) const {
    return peak_of([&] { NativeInstaller::install({root_ / "package", root_ / "data", repair, false}, seal_, {}); });
  }

  const TemporaryRoot root_;

 private:
  std::filesystem::path snapshot(SnapshotKind kind, const std::string& name, const std::vector<std::string>& programs,
                                 int files) const {
    const std::filesystem::path tree = root_ / name;
    for (const std::string& program : programs) {
      const std::filesystem::path path = root_.write(name + "/" + program, testing::noise(file_bytes));
      std::filesystem::permissions(path, std::filesystem::perms(0755));
    }
    for (int i = static_cast<int>(programs.size()); i < files; ++i) {
      root_.write(name + "/data-" + std::to_string(i % 30) + "/file-" + std::to_string(i),
                  testing::noise(file_bytes, static_cast<std::uint32_t>(i)));
    }
    SnapshotPublication publication;
    publication.kind = kind;
    publication.tree = tree;
    publication.output = root_.path();
    publication.build_id = "build-1";
    publication.platform = native_platform();
    publication.executable = programs.front();
    publication.gui_executable = programs.size() > 1 ? programs.back() : "";
    publication.level = level;
    return publish_snapshot(publication, {}).manifest;
  }

  const testing::WithEnvironment home_{"HOME", root_.directory("home").native()};
  const testing::WithEnvironment data_home_{"XDG_DATA_HOME", std::nullopt};
  std::string seal_;
};

TEST_F(LargeInstall, TakesLittleMemory) {
  const std::uint64_t install = peak_of_setup(false);
  EXPECT_GT(install, 0u);
  EXPECT_LE(install, window + allowance);
  const std::uint64_t repair = peak_of_setup(true);
  EXPECT_GT(repair, 0u);
  EXPECT_LE(repair, window + allowance);
  RecordProperty("install_bytes", std::to_string(install));
  RecordProperty("repair_bytes", std::to_string(repair));
  EXPECT_TRUE(NativeInstaller::status(root_ / "data").installed);
}

}  // namespace
}  // namespace ravok::native_install_memory_test
