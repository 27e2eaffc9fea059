#include "platform/file/path_keys.hpp"

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

void require_place(bool condition, std::string_view before, std::string_view after) {
  if (!condition) {
    fail("unsafe_path", std::string(before) + std::string(os::system_name()) + std::string(after));
  }
}

std::vector<std::string> names_of(const std::filesystem::path& path) {
  std::vector<std::string> names;
  for (const std::filesystem::path& name : path.relative_path()) {
    if (!name.empty()) {
      names.push_back(path_utf8(name));
    }
  }
  return names;
}

// The deepest existing level of a path, and the names below it that do not exist.
struct Reach {
  Handle deepest;
  Status status;
  std::vector<std::string> missing;
};

Reach walk(const std::filesystem::path& path, bool leaf) {
  Result<Handle> anchor = os::open(path.root_path(), os::OpenAs::directory);
  require_place(anchor.has_value(), "Cannot anchor ", " setup ancestry");
  Handle deepest = *std::move(anchor);
  const std::vector<std::string> names = names_of(resolve_system_links(path));
  require_place(names.size() <= maximum_path_levels, "", " setup ancestry exceeds its bound");
  auto name = names.begin();
  for (; name != names.end(); ++name) {
    const bool may_be_file = leaf && name + 1 == names.end();
    const bool ordinary = *name != "." && *name != "..";
    require_place(ordinary, "", " setup ancestry is linked, unavailable or changed");
    Result<Handle> next = may_be_file ? os::open_at(deepest.get(), name->c_str(), os::OpenAs::file)
                                      : posix_files::open_level(deepest.get(), name->c_str());
    if (!next && next.problem() == Cause::missing) {
      break;
    }
    require_place(next.has_value(), "", " setup ancestry is linked, unavailable or changed");
    deepest = *std::move(next);
  }
  const auto status = status_of(deepest.get());
  require_place(status.has_value(), "Cannot identify the existing ", " setup ancestor");
  return {std::move(deepest), *status, {name, names.end()}};
}

std::filesystem::path physical(int descriptor) {
  const auto path = os::descriptor_path(descriptor);
  require_place(path.has_value(), "Cannot resolve the physical ", " setup path");
  require_place(!has_nul(*path), "", " setup ancestry has no stable physical path");
  return path_from_utf8(*path);
}

Reach walk_to_mount(const os::Volume& volume) {
  const std::filesystem::path mount = path_from_utf8(volume.mount_path);
  require_place(mount.is_absolute() && mount.lexically_normal() == mount, "Unknown ", " volume mount path");
  Reach mounted = walk(mount, false);
  require_place(mounted.missing.empty() && os::local_volume(mounted.deepest.get()).id == volume.id, "",
                " setup volume changed during inspection");
  return mounted;
}

// The names below the volume's mount, each as the directory that holds it compares names, and how
// the last directory compares them.
struct ComparedNames {
  std::vector<std::string> names;
  bool case_sensitive;
};

ComparedNames compared_names(const Reach& place, const Reach& mounted) {
  const std::filesystem::path relative =
      physical(place.deepest.get()).lexically_relative(physical(mounted.deepest.get()));
  require_place(!relative.empty() && *relative.begin() != "..", "", " setup path escaped its mounted volume");
  ComparedNames compared{{}, os::compares_case(mounted.deepest.get())};
  Result<Handle> directory = posix_files::open_level(mounted.deepest.get(), ".");
  for (const std::string& name : relative == "." ? std::vector<std::string>() : names_of("/" / relative)) {
    require_place(directory.has_value(), "", " setup ancestry is linked, unavailable or changed");
    compared.names.push_back(os::compared_name(name, compared.case_sensitive));
    // The last level may be a file. Then it cannot be opened as a directory, and nothing below it is looked up.
    directory = posix_files::open_level(directory->get(), name.c_str());
    if (directory) {
      compared.case_sensitive = os::compares_case(directory->get());
    }
  }
  // A new directory compares names as the one does that it is made in.
  for (const std::string& name : place.missing) {
    compared.names.push_back(os::compared_name(name, compared.case_sensitive));
  }
  return compared;
}

bool same_walk(const Reach& first, const Reach& second) {
  return same_file(first.status, second.status) && first.missing == second.missing;
}

std::string key(const std::filesystem::path& path, bool leaf) {
  require_place(is_bounded_path(path), "", " setup needs a bounded ordinary destination");
  const std::filesystem::path normal = path.lexically_normal();
  require_place(path.is_absolute() && path_utf8(normal).size() <= maximum_path_bytes, "",
                " setup needs a bounded absolute destination");

  const Reach place = walk(normal, leaf);
  const os::Volume volume = os::local_volume(place.deepest.get());
  const ComparedNames compared = compared_names(place, walk_to_mount(volume));

  const Reach again = walk(normal, leaf);
  require_place(same_walk(place, again) && os::local_volume(again.deepest.get()).id == volume.id, "",
                " setup ancestry or volume changed during inspection");

  std::string result =
      std::string(os::path_key_form()) + "/" + volume.identity + (compared.case_sensitive ? "/s" : "/i");
  // Names above the mounted part come from the system and not from the caller, so they need no comparison form.
  for (const std::string& name : names_of(path_from_utf8(volume.mounted_below))) {
    result += "/" + name;
  }
  for (const std::string& name : compared.names) {
    result += "/" + name;
  }
  return names_of(path_from_utf8(volume.mounted_below)).empty() && compared.names.empty() ? result + "/" : result;
}

}  // namespace

namespace path_keys {

std::string path_key(const std::filesystem::path& path) { return key(path, true); }

std::string directory_key(const std::filesystem::path& path) { return key(path, false); }

}  // namespace path_keys

}  // namespace ravok
