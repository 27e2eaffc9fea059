#include "platform/file/managed_paths.hpp"

#include <cstdlib>
#include <string>
#include <system_error>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr int maximum_system_links = 16;
constexpr std::size_t maximum_target_bytes = 4095;

// Whether only the system's own user can have made an entry in the directory.
bool is_system_directory(const std::filesystem::path& path) {
  const auto status = target_status_of(path);
  return status && status->is_of_system && (status->permissions & permissions::others_write) == 0;
}

std::filesystem::path read_system_link(const std::filesystem::path& path) {
  const Result<std::string> target = os::link_target(path, maximum_target_bytes);
  require(target && !target->empty(), "unsafe_path", "Cannot read a system link");
  return path_from_utf8(*target);
}

struct LinkWalk {
  std::filesystem::path path;
  bool finished;
};

// Walks to the first system link and replaces it by its target. Finished where there is none.
LinkWalk walk_to_system_link(const std::filesystem::path& path, int& followed) {
  std::filesystem::path result = path.root_path();
  const std::filesystem::path relative = path.relative_path();
  for (auto component = relative.begin(); component != relative.end(); ++component) {
    const std::filesystem::path candidate = result / *component;
    const auto status = link_status_of(candidate);
    if (!status) {
      for (; component != relative.end(); ++component) {
        result /= *component;
      }
      return {result, true};
    }
    if (!is_link(*status) || !status->is_of_system || !is_system_directory(result)) {
      result = candidate;
      continue;
    }
    ++followed;
    require(followed <= maximum_system_links, "unsafe_path", "Too many system links in a path");
    std::filesystem::path next = result / read_system_link(candidate);
    for (++component; component != relative.end(); ++component) {
      next /= *component;
    }
    return {next.lexically_normal(), false};
  }
  return {result, true};
}

}  // namespace

std::filesystem::path safe_join(const std::filesystem::path& root, std::string_view relative, bool portable) {
  validate_relative_path(relative, portable);
  std::filesystem::path joined = root;
  for (const std::filesystem::path& component : path_from_utf8(relative)) {
    joined /= component;
    const auto status = link_status_of(joined);
    require(!status || !is_link(*status), "unsafe_path", "Managed path contains a symbolic link");
  }
  return joined;
}

void require_answer(const Problem& problem, const std::filesystem::path& path) {
  if (problem && !(problem == Cause::missing) && !(problem == Cause::not_a_directory)) {
    fail(problem == Cause::denied || problem == Cause::not_permitted ? "permissions" : "file_system",
         "Cannot look at " + path_utf8(path) + ": " + problem_text(problem));
  }
}

bool is_there(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  require_answer(status.problem(), path);
  return status.has_value();
}

std::filesystem::path resolve_system_links(const std::filesystem::path& path) {
  std::error_code problem;
  const std::filesystem::path absolute = std::filesystem::absolute(path, problem);
  require(!problem, "unsafe_path", "Cannot make a path absolute");
  LinkWalk walk{absolute.lexically_normal(), false};
  int followed = 0;
  while (!walk.finished) {
    walk = walk_to_system_link(walk.path, followed);
  }
  return walk.path;
}

std::filesystem::path user_data_root() {
  const char* const home = std::getenv("HOME");
  require(home != nullptr && std::filesystem::path(home).has_root_directory(), "user_path",
          "HOME must identify an absolute user directory");
  return std::filesystem::path(home) / os::data_root_below_home();
}

void require_path_room(const std::filesystem::path&, const std::filesystem::path&, std::size_t) {}

}  // namespace ravok
