#include "app/install/install_commit.hpp"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "app/brand/brand.hpp"
#include "app/brand/theme_folder.hpp"
#include "app/install/installation_record.hpp"
#include "app/install/setup_marker.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/icon_file.hpp"
#include "domain/paths.hpp"
#include "platform/file/mounts.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// Moves aside what is at the place, and moves a prepared tree there.
void put_in_place(const HeldDirectory& from, const std::string& prepared, const HeldDirectory& to,
                  const std::string& place, const HeldDirectory& staging, const std::string& aside) {
  if (to.type_of(place)) {
    const Problem problem = to.try_move(place, staging, aside);
    if (problem == Cause::other_volume) {
      to.remove_tree(place);
    } else {
      require(!problem, "file_write", "Cannot move " + path_utf8(to.path() / path_from_utf8(place)) + " into place");
    }
  }
  from.move(prepared, to, place);
}

void require_no_directory(const HeldDirectory& directory, const std::filesystem::path& record) {
  require(directory.type_of(name_of(record)) != EntryType::directory, "unsafe_path",
          "Setup cannot write " + path_utf8(record) + ": a directory has that name; move it away and try again");
}

// The image of the icon for an entry of the desktop's menu. Empty where a package has none, and where shortcuts are no
// such entries.
std::string_view menu_image(const NativePackage& package) {
  if (os::shortcut_form() != os::ShortcutForm::desktop_entry) {
    return {};
  }
  return largest_png_image(package.brand_icon).value_or(std::string_view());
}

// A directory must be writable for its owner to be moved to another. This run does not change another user's directory.
void make_movable(const HeldDirectory& directory, const std::filesystem::path& tree) {
  require(directory.make_movable(name_of(tree)), "unsafe_path",
          "Setup cannot replace " + path_utf8(tree) + ": it belongs to another user; move it away and try again");
}

// Accepts only a scratch tree that holds nothing but what this run has prepared. Remains that a former run could not
// remove would keep this one from removing the marker.
void require_no_remains(const HeldDirectory& staging) {
  const StagingPaths places(staging.path());
  const std::array prepared = {name_of(places.bootstrap), name_of(places.launcher_root), name_of(places.trust)};
  for (const std::string& name : staging.names()) {
    require(std::find(prepared.begin(), prepared.end(), name) != prepared.end(), "unsafe_path",
            "Setup cannot clear " + path_utf8(staging.path() / path_from_utf8(name)) + "; remove it and try again");
  }
}

class Commit {
 public:
  Commit(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package, const InstallPlan& plan)
      : root_(folders.root),
        native_(folders.native),
        staging_(folders.staging),
        staged_(folders.staging.path()),
        paths_(paths),
        package_(package),
        plan_(plan) {}

  void run() const {
    write_setup_marker(root_);
    if (plan_.replace_bootstrap) {
      replace_bootstrap();
    }
    if (plan_.replace_launcher) {
      replace_launcher();
    }
    if (plan_.replace_trust) {
      put_in_place(staging_, name_of(staged_.trust), root_, name_of(paths_.trust), staging_,
                   name_of(staged_.old_trust));
    }
    write_repository();
    write_or_remove(brand_icon_path(paths_.root), package_.brand_icon);
    write_or_remove(paths_.menu_icon, menu_image(package_));
    replace_theme();
    write_installation(native_, package_);
    remove_staging();
    remove_setup_marker(root_);
    // So that a power cut does not bring the marker back after success was reported.
    root_.flush();
  }

 private:
  void replace_bootstrap() const {
    put_in_place(staging_, name_of(staged_.bootstrap), native_, name_of(paths_.bootstrap_directory), staging_,
                 name_of(staged_.old_bootstrap));
    native_.write(name_of(paths_.bootstrap_manifest), package_.bootstrap_manifest_json);
    // No update of the former bootstrap applies to this one.
    for (const std::filesystem::path& trace : paths_.bootstrap_update_traces) {
      native_.remove_tree_quietly(name_of(trace));
    }
  }

  void replace_launcher() const {
    const std::optional<HeldDirectory> prepared = staging_.find_directory(name_of(staged_.launcher_root));
    require(prepared.has_value(), "unsafe_path", "The prepared launcher is gone");
    const std::string place = name_of(paths_.launcher);
    put_in_place(*prepared, place, root_, place, staging_, name_of(staged_.old_launcher));
  }

  void write_repository() const {
    std::string ca_bundle;
    if (!package_.ca_bundle.empty()) {
      root_.write(name_of(paths_.repository_ca), package_.ca_bundle);
      ca_bundle = path_utf8(paths_.repository_ca);
    }
    const Json record = {{"schema_version", 1}, {"origin", package_.origin}, {"ca_bundle", ca_bundle}};
    root_.write(name_of(paths_.repository_record), record.dump());
  }

  void write_or_remove(const std::filesystem::path& icon, std::string_view bytes) const {
    if (bytes.empty()) {
      native_.remove_quietly(name_of(icon));
    } else {
      native_.write(name_of(icon), bytes);
    }
  }

  void replace_theme() const {
    const std::string place = name_of(theme_directory(paths_.root));
    if (!package_.theme) {
      native_.remove_tree(place);
      return;
    }
    const HeldDirectory staged = staging_.private_directory(name_of(staged_.theme));
    staged.write(theme_definition_file, package_.theme->definition);
    for (const auto& [name, bytes] : package_.theme->files) {
      staged.write(name, bytes);
    }
    put_in_place(staging_, name_of(staged_.theme), native_, place, staging_, name_of(staged_.old_theme));
  }

  // Removes the former trees one by one, so that a tree that cannot be removed does not keep the others. The removal of
  // the whole folder then fails and names it.
  void remove_staging() const {
    for (const std::filesystem::path& old :
         {staged_.old_bootstrap, staged_.old_launcher, staged_.old_trust, staged_.old_theme}) {
      staging_.remove_tree_quietly(name_of(old));
    }
    native_.remove_tree(name_of(paths_.staging));
    native_.flush();
  }

  const HeldDirectory& root_;
  const HeldDirectory& native_;
  const HeldDirectory& staging_;
  const StagingPaths staged_;
  const DataPaths& paths_;
  const NativePackage& package_;
  const InstallPlan& plan_;
};

}  // namespace

void require_clear_way(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                       const InstallPlan& plan) {
  require(folders.root.is_in_place() && folders.native.is_in_place() && folders.staging.is_in_place(), "unsafe_path",
          "The data folder was changed while setup worked in it");
  require_no_directory(folders.root, paths.incomplete_marker);
  require_no_directory(folders.root, paths.repository_record);
  if (!package.ca_bundle.empty()) {
    require_no_directory(folders.root, paths.repository_ca);
  }
  require_no_directory(folders.native, paths.installation_record);
  if (plan.replace_bootstrap) {
    require_no_directory(folders.native, paths.bootstrap_manifest);
  }
  if (!package.brand_icon.empty()) {
    require_no_directory(folders.native, brand_icon_path(paths.root));
  }
  if (!menu_image(package).empty()) {
    require_no_directory(folders.native, paths.menu_icon);
  }
  require_no_remains(folders.staging);
  if (plan.replace_bootstrap) {
    make_movable(folders.native, paths.bootstrap_directory);
  }
  if (plan.replace_launcher) {
    make_movable(folders.root, paths.launcher);
  }
  if (plan.replace_trust) {
    make_movable(folders.root, paths.trust);
  }
  make_movable(folders.native, theme_directory(paths.root));
  std::vector<std::filesystem::path> replaced = {paths.native};
  if (plan.replace_launcher) {
    replaced.push_back(paths.launcher);
  }
  if (plan.replace_trust) {
    replaced.push_back(paths.trust);
  }
  require_no_mounts(folders.root.handle(), paths.root, [&](const std::filesystem::path& place) {
    return std::any_of(replaced.begin(), replaced.end(), [&](const auto& tree) { return within(place, tree); });
  });
}

void commit_install(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                    const InstallPlan& plan) {
  Commit(folders, paths, package, plan).run();
}

}  // namespace ravok
