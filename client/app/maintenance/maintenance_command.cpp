#include "app/maintenance/maintenance_command.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string_view>

#include "app/brand/brand.hpp"
#include "app/install/json_paths.hpp"
#include "app/install/native_install.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

constexpr std::string_view json_option = "--json";
constexpr std::string_view remove_data_option = "--remove-data";

// How many arguments name a command of the client's own: "self" and the word behind it.
constexpr std::ptrdiff_t own_words = 2;

bool is_own_command(const std::vector<std::string>& arguments, std::string_view word) {
  return arguments.size() >= own_words && arguments[0] == "self" && arguments[1] == word;
}

Json create_shortcut_of(const std::filesystem::path& data_root, const std::string& game) {
  // The client's own shortcut has the product's name.
  if (const std::optional<Brand> brand = installed_brand(data_root)) {
    set_product_name(brand->name);
  }
  const std::filesystem::path made = NativeInstaller::create_shortcut(data_root, game, "", {});
  return {{"schema_version", 1}, {"created", paths_json({made})}};
}

Json remove_shortcuts_of(const std::filesystem::path& data_root) {
  const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(data_root);
  return {{"schema_version", 1}, {"removed", paths_json(removal.removed)}, {"changed", paths_json(removal.changed)}};
}

}  // namespace

std::vector<std::string> without_json(const std::vector<std::string>& arguments, bool& found) {
  std::vector<std::string> others;
  std::remove_copy(arguments.begin(), arguments.end(), std::back_inserter(others), json_option);
  found = found || others.size() != arguments.size();
  return others;
}

std::vector<std::string> with_json_first(const std::vector<std::string>& arguments) {
  bool json = false;
  std::vector<std::string> words = without_json(arguments, json);
  if (!json || !(is_own_command(words, "uninstall") || is_own_command(words, "shortcut"))) {
    return arguments;
  }
  words.insert(words.begin(), std::string(json_option));
  return words;
}

std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const std::filesystem::path& data_root) {
  bool json = false;
  const std::vector<std::string> command = without_json(arguments, json);
  if (!is_own_command(command, "uninstall")) {
    return {};
  }
  std::vector<std::string> translated = {"uninstall", "--data-dir", path_utf8(data_root)};
  for (auto argument = command.begin() + own_words; argument != command.end(); ++argument) {
    require(*argument == remove_data_option, "usage", "Use self uninstall [--remove-data]");
    translated.push_back(*argument);
  }
  if (json) {
    translated.emplace_back(json_option);
  }
  return translated;
}

Json native_maintenance_control(const std::filesystem::path& data_root, const std::vector<std::string>& arguments) {
  bool json = false;
  const std::vector<std::string> command = without_json(arguments, json);
  if (!is_own_command(command, "shortcut")) {
    return nullptr;
  }
  const std::vector<std::string> tail(command.begin() + own_words, command.end());
  if (tail == std::vector<std::string>{"remove"}) {
    return remove_shortcuts_of(data_root);
  }
  const bool for_game = tail.size() == 3 && tail[1] == "--game" && !tail[2].empty();
  require((tail.size() == 1 || for_game) && tail[0] == "create", "usage",
          "Use self shortcut create [--game GAME] or self shortcut remove");
  const std::string game = for_game ? tail[2] : "";
  if (for_game) {
    validate_identifier(game);
  }
  return create_shortcut_of(data_root, game);
}

}  // namespace ravok
