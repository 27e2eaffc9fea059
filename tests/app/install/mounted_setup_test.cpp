// Setup in a data folder with volumes mounted inside, and on an overlay whose lower layer holds the installation.

#include <chrono>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/mounted_volume.hpp"

namespace ravok {
namespace {

using testing::MountedVolume;
using testing::run_quietly;
using testing::TreeState;

class MountedSetup : public ::testing::Test {
 protected:
  MountedSetup() {
    player = place.write_player_data();
    place.install();
  }

  NativeUninstallResult uninstall(bool remove_data = false) const {
    return NativeInstaller::uninstall({place.data(), remove_data, std::chrono::milliseconds(0)}, {});
  }

  std::string mounted_at(const std::string& name) const {
    return "A volume is mounted at " + (place.data() / name).native() + "; unmount it and try again";
  }

  // The state without what a refused setup may have written: the locks, the scratch tree and the record of how it
  // ended.
  TreeState lasting() const {
    TreeState state = place.state();
    std::erase_if(state, [](const auto& node) {
      return node.first == "native/setup-status.json" || node.first.ends_with(".lock") ||
             node.first.starts_with("native/staging");
    });
    return state;
  }

  testing::InstallPlace place;
  TreeState player;
};

TEST_F(MountedSetup, IsNotRemovedFromBelowAVolume) {
  const std::string name = "native/bootstrap/volume";
  const MountedVolume volume(place.root().directory("data/" + name), "tmpfs", "size=1m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  place.write(name + "/mine", "mine");
  const TreeState before = lasting();
  EXPECT_FAILURE(uninstall(), "unsafe_path", mounted_at(name));
  EXPECT_FAILURE(uninstall(true), "unsafe_path", mounted_at(name));
  EXPECT_TRUE(testing::same_tree(lasting(), before));
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

TEST_F(MountedSetup, IsRemovedAroundAVolumeOfThePlayers) {
  const MountedVolume volume(place.root().directory("data/userdata/library"), "tmpfs", "size=1m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  place.write("userdata/library/mine", "mine");
  EXPECT_FAILURE(uninstall(true), "unsafe_path", mounted_at("userdata/library"));
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
  EXPECT_EQ(uninstall().kept.size(), 2u);
  EXPECT_EQ(place.read("userdata/library/mine"), "mine");
  EXPECT_FALSE(std::filesystem::exists(place.paths().native));
}

TEST_F(MountedSetup, IsNotRepairedOverAVolumeAndSaysSoBeforeItBegins) {
  const std::string name = "launcher/downloads/volume";
  const MountedVolume volume(place.root().directory("data/" + name), "tmpfs", "size=1m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  place.write(name + "/mine", "mine");
  // A repair that keeps the launcher has nothing against a volume in it.
  place.write("trust/root.json", "{");
  EXPECT_EQ(place.repair().replaced, std::vector<std::string>{"trust"});
  place.write("launcher/installation.json", "{");
  const TreeState before = lasting();
  EXPECT_FAILURE(place.repair(), "unsafe_path", mounted_at(name));
  EXPECT_TRUE(testing::same_tree(lasting(), before));
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

// An overlay cannot move a directory that lies in its lower layer.
class OverlaidSetup : public MountedSetup {
 protected:
  OverlaidSetup() {
    for (const char* name : {"upper", "work"}) {
      place.root().directory("layers/" + std::string(name));
    }
    mounted = run_quietly("mount -t tmpfs tmpfs '" + (place.root() / "layers").native() + "'");
    std::filesystem::create_directories(place.root() / "layers/upper");
    std::filesystem::create_directories(place.root() / "layers/work");
    std::filesystem::rename(place.data(), place.root() / "lower");
    place.root().directory("data");
    std::filesystem::permissions(place.data(), std::filesystem::perms::owner_all);
    overlaid = mounted && run_quietly("mount -t overlay overlay -o lowerdir='" + (place.root() / "lower").native() +
                                      "',upperdir='" + (place.root() / "layers/upper").native() + "',workdir='" +
                                      (place.root() / "layers/work").native() + "',redirect_dir=off '" +
                                      place.data().native() + "'");
  }
  ~OverlaidSetup() override {
    if (overlaid) {
      run_quietly("umount '" + place.data().native() + "'");
    }
    if (mounted) {
      run_quietly("umount '" + (place.root() / "layers").native() + "'");
    }
  }

  bool mounted = false;
  bool overlaid = false;
};

TEST_F(OverlaidSetup, IsRepairedInFull) {
  if (!overlaid) {
    GTEST_SKIP() << "needs leave to mount an overlay";
  }
  const TreeState below = testing::tree_state(place.root() / "lower");
  EXPECT_EQ(place.repair().replaced, std::vector<std::string>());
  place.write("native/bootstrap/data/notes", "other");
  place.write("launcher/installation.json", "{");
  place.write("trust/root.json", "{");
  EXPECT_EQ(place.repair().replaced, (std::vector<std::string>{"bootstrap", "launcher", "trust"}));
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
  EXPECT_EQ(place.repair().replaced, std::vector<std::string>());
  EXPECT_TRUE(testing::same_tree(place.player_data(), player));
  EXPECT_TRUE(testing::same_tree(testing::tree_state(place.root() / "lower"), below));
}

TEST_F(OverlaidSetup, IsRemovedInFull) {
  if (!overlaid) {
    GTEST_SKIP() << "needs leave to mount an overlay";
  }
  EXPECT_EQ(uninstall().kept.size(), 2u);
  EXPECT_TRUE(testing::same_tree(place.state(), player));
}

}  // namespace
}  // namespace ravok
