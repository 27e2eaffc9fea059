#include "app/maintenance/maintenance_runtime.hpp"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::maintenance_runtime_test {
namespace {

using testing::TemporaryRoot;

constexpr const char* temporary_copy = "A temporary maintenance helper cannot start Ravok";

TEST(MaintenanceRuntimeImage, IsRefusedInATemporaryCopyAtAnyDepth) {
  for (const char* const program :
       {"/ravok-maintenance-/program", "/ravok-maintenance-1/program", "/tmp/ravok-maintenance-1/program",
        "/tmp/ravok-maintenance-1/bin/program", "/tmp/ravok-maintenance-1/a/b/c/program",
        "/ravok-maintenance-1/ravok-maintenance-2/program", "/tmp/ravok-maintenance-ready-1/program",
        "ravok-maintenance-1/program", "/tmp/ravok-maintenance-\xff/program", "/tmp/ravok-maintenance-1//program"}) {
    EXPECT_FAILURE(require_maintenance_runtime_image(program), "maintenance_copy", temporary_copy) << program;
  }
}

TEST(MaintenanceRuntimeImage, PassesEverywhereElse) {
  for (const char* const program :
       {"/program", "program", "", "/", "/tmp/ravok-maintenance", "/tmp/ravok-maintenance-1",
        "/tmp/ravok-maintenance/program", "/tmp/Ravok-maintenance-1/program", "/tmp/a-ravok-maintenance-1/program",
        "/tmp/ravok-maintenanc-e/program", "/tmp/ravok_maintenance-1/program"}) {
    EXPECT_NO_THROW(require_maintenance_runtime_image(program)) << program;
  }
}

TEST(MaintenanceRuntimeImage, LooksAtTheNameAloneAndNotAtTheDisk) {
  const TemporaryRoot root;
  root.directory("ravok-maintenance-1");
  std::filesystem::create_directory_symlink("ravok-maintenance-1", root / "link");
  root.write("ravok-maintenance-1/program", "");
  EXPECT_NO_THROW(require_maintenance_runtime_image(root / "link/program"));
  EXPECT_FAILURE(require_maintenance_runtime_image(root / "ravok-maintenance-1/missing/program"), "maintenance_copy",
                 temporary_copy);
}

TEST(MaintenanceRuntimeImage, LiesInAtMost256Folders) {
  std::string path = "/";
  for (int folder = 0; folder < 256; ++folder) {
    path += "x/";
  }
  EXPECT_NO_THROW(require_maintenance_runtime_image(path + "program"));
  EXPECT_FAILURE(require_maintenance_runtime_image(path + "x/program"), "unsafe_path", "Native image path is too deep");
  // The nearest folders are looked at first.
  EXPECT_FAILURE(require_maintenance_runtime_image(path + "x/ravok-maintenance-1/program"), "maintenance_copy",
                 temporary_copy);
}

}  // namespace
}  // namespace ravok::maintenance_runtime_test
