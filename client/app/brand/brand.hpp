// Another name for the client: declared in the initial package, kept in the installation's record, and
// read back at each start.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

struct Brand {
  std::string name;       // what users see; also names a folder
  std::string id;         // an identifier
  std::string publisher;  // plain text of 1 to 128 bytes
  bool icon = false;      // whether the brand has an icon file

  bool operator==(const Brand&) const = default;
};

// How a platform lists an installation for its removal.
struct UninstallEntry {
  std::string key;
  std::string display_name;
  std::string publisher;
  std::string version;  // install leaves it empty
  std::string install_location;
  std::string executable;
  std::string icon;
};

// Accepts only a name of 1 to 64 bytes that can also be a folder's on every platform. Fails with
// "invalid_native_package".
void validate_brand_name(std::string_view name);

// Accepts only bytes that begin as an .ico file does and are long enough for one. Fails with "invalid_native_package".
void validate_brand_icon(std::string_view bytes);

// Returns the brand of an object of exactly four keys. Fails with "invalid_native_package", and for its ID with
// "invalid_identity" or "unsafe_path".
Brand parse_brand(const Json& document);

// Returns the object that parse_brand reads.
Json brand_json(const Brand& brand);

// Returns the brand in the installation record below `root`; none where the record is missing, damaged or without a
// brand. Never fails for the content of the folder.
std::optional<Brand> installed_brand(const std::filesystem::path& root);

// Makes the brand of the installation in `root`, if it has one, that of the process: its name, its theme and its icon.
// Fails only for a theme that cannot be used, as use_installed_theme does; the name is then set all the same.
void use_installed_brand(const std::filesystem::path& root);

// Returns where the icon of a branded installation lies.
std::filesystem::path brand_icon_path(const std::filesystem::path& root);

// The name and the icon of the product in this process: at first "Ravok" and none. Not guarded: they are
// set while one thread starts up.
const std::string& product_name();
void set_product_name(std::string name);
const std::filesystem::path& product_icon();
void set_product_icon(std::filesystem::path icon);

// Returns the text with each word "Ravok" replaced by the product's name.
std::string branded(std::string_view text);

// Returns the key of the installation's uninstall entry: "Ravok", or "Ravok." and the brand's id.
std::string uninstall_entry_key(const std::optional<Brand>& brand);

// Put the installation on the platform's list of programs that the user may remove, and take it off again. Linux and
// macOS have no such list: there, both do nothing.
void register_uninstall_entry(const UninstallEntry& entry);
void remove_uninstall_entry(std::string_view key);

}  // namespace ravok
