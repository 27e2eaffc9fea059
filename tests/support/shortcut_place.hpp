// An installed client and the places around it, for tests of its shortcuts.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "domain/json.hpp"
#include "platform/shortcut/shortcut_rules.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::testing {

class ShortcutPlace {
 public:
  // `base` is the name of the directory, below one of the test's own, that holds the data folder "data" and the
  // user's home "home" with a folder "Desktop".
  explicit ShortcutPlace(const std::string& base = "place")
      : base_(root_.directory(base)), home_("HOME", home().native()), data_home_("XDG_DATA_HOME", std::nullopt) {
    root_.directory(base + "/home/Desktop");
    root_.write(base + "/data/bootstrap/bin/ravok-bootstrap", "program");
  }

  const TemporaryRoot& root() const { return root_; }
  const std::filesystem::path& base() const { return base_; }
  std::filesystem::path home() const { return base_ / "home"; }
  std::filesystem::path desktop() const { return home() / "Desktop"; }
  std::filesystem::path data() const { return base_ / "data"; }
  std::filesystem::path bootstrap() const { return data() / "bootstrap/bin/ravok-bootstrap"; }
  std::filesystem::path ledger() const { return data() / "native/shortcuts.json"; }

  DesktopShortcut shortcut(const std::string& game = "game", const std::string& name = "The Game") const {
    return {bootstrap(), data(), game, name};
  }

  // Write and read a file by its whole path.
  std::filesystem::path write(const std::filesystem::path& path, std::string_view content) const {
    return root_.write(path.lexically_relative(root_.path()).native(), content);
  }
  std::string read(const std::filesystem::path& path) const {
    return root_.read(path.lexically_relative(root_.path()).native());
  }

  // Replaces the ledger by this content, whatever it says.
  void write_ledger(std::string_view content) const {
    std::filesystem::create_directory(data() / "native");
    std::filesystem::permissions(data() / "native", std::filesystem::perms::owner_all);
    write(ledger(), content);
    std::filesystem::permissions(ledger(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }

 private:
  const TemporaryRoot root_;
  const std::filesystem::path base_;
  const WithEnvironment home_;
  const WithEnvironment data_home_;
};

// Makes a link to a directory that counts as a user's. A link of user 0 would count as the system's, so it is given to
// another user.
inline void make_users_link(const std::filesystem::path& target, const std::filesystem::path& link) {
  std::filesystem::create_directory_symlink(target, link);
  if (is_root()) {
    EXPECT_EQ(lchown(link.c_str(), 65534, 65534), 0);
  }
}

// A ledger with these rows, each a path, a game, a name and a digest.
inline Json ledger_document(const Json& entries) {
  return {{"schema_version", 1}, {"kind", "ravok-shortcuts"}, {"entries", entries}};
}

inline Json ledger_entry(const std::filesystem::path& path, const std::string& sha256 = std::string(64, 'a')) {
  return {{"path", path.native()}, {"game", "game"}, {"name", "The Game"}, {"sha256", sha256}};
}

}  // namespace ravok::testing
