#include "app/brand/brand.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "app/brand/theme_folder.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

constexpr std::string_view brand_code = "invalid_native_package";
constexpr std::string_view default_name = "Ravok";
constexpr std::size_t maximum_name_bytes = 64;
constexpr std::size_t maximum_id_bytes = 80;
constexpr std::size_t maximum_publisher_bytes = 128;
constexpr std::size_t minimum_icon_bytes = 22;
constexpr std::string_view icon_start("\0\0\1\0", 4);

std::string text_field(const Json& document, const std::string& key, std::size_t bound) {
  require(document.contains(key) && document.at(key).is_string(), brand_code, "Brand needs a " + key);
  const std::string& text = document.at(key).get_ref<const std::string&>();
  require(!text.empty() && text.size() <= bound && std::none_of(text.begin(), text.end(), is_control), brand_code,
          "Brand " + key + " must be 1 to " + std::to_string(bound) + " bytes of plain text");
  return text;
}

std::string& current_name() {
  static std::string name(default_name);
  return name;
}

std::filesystem::path& current_icon() {
  static std::filesystem::path icon;
  return icon;
}

}  // namespace

void validate_brand_name(std::string_view name) {
  const bool well_formed = !name.empty() && name.size() <= maximum_name_bytes && name.front() != ' ' &&
                           name.back() != ' ' && name.back() != '.' &&
                           std::none_of(name.begin(), name.end(), is_control) &&
                           name.find_first_of("<>:\"/\\|?*") == std::string_view::npos;
  require(well_formed, brand_code,
          "A brand name is 1 to 64 bytes and also names a folder: no control characters, none of < > : \" / \\ | ? *, "
          "and no leading space or trailing space or dot");
  require(!is_device_name(name), brand_code, "A brand name cannot be a Windows device name");
}

void validate_brand_icon(std::string_view bytes) {
  require(bytes.size() >= minimum_icon_bytes && bytes.starts_with(icon_start), brand_code,
          "The brand icon is not an .ico file");
}

Brand parse_brand(const Json& document) {
  require(document.is_object() && document.size() == 4 && document.contains("icon") && document.at("icon").is_boolean(),
          brand_code, "Brand has unknown or missing fields");
  Brand brand;
  brand.name = text_field(document, "name", maximum_name_bytes);
  brand.id = text_field(document, "id", maximum_id_bytes);
  brand.publisher = text_field(document, "publisher", maximum_publisher_bytes);
  brand.icon = document.at("icon").get<bool>();
  validate_brand_name(brand.name);
  validate_identifier(brand.id);
  return brand;
}

Json brand_json(const Brand& brand) {
  return {{"name", brand.name}, {"id", brand.id}, {"publisher", brand.publisher}, {"icon", brand.icon}};
}

std::optional<Brand> installed_brand(const std::filesystem::path& root) {
  // Somebody may have put a link in the place of the folder: it is not followed.
  const DataPaths paths(root);
  const auto native = link_status_of(paths.native);
  if (!native || !is_directory(*native)) {
    return std::nullopt;
  }
  try {
    const Json record =
        parse_json(read_file(paths.installation_record, maximum_setup_record_bytes), maximum_setup_record_bytes);
    if (record.is_object() && record.contains("brand")) {
      return parse_brand(record.at("brand"));
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    // A damaged record must not stop the repair that would replace it.
  }
  return std::nullopt;
}

void use_installed_brand(const std::filesystem::path& root) {
  const std::optional<Brand> brand = installed_brand(root);
  if (!brand) {
    return;
  }
  set_product_name(brand->name);
  use_installed_theme(root);
  std::error_code ignored;
  if (brand->icon && std::filesystem::is_regular_file(brand_icon_path(root), ignored)) {
    set_product_icon(brand_icon_path(root));
  }
}

std::filesystem::path brand_icon_path(const std::filesystem::path& root) { return DataPaths(root).brand_icon; }

const std::string& product_name() { return current_name(); }

void set_product_name(std::string name) { current_name() = std::move(name); }

const std::filesystem::path& product_icon() { return current_icon(); }

void set_product_icon(std::filesystem::path icon) { current_icon() = std::move(icon); }

std::string branded(std::string_view text) {
  if (product_name() == default_name) {
    return std::string(text);
  }
  std::string result;
  std::size_t done = 0;
  for (std::size_t at = text.find(default_name); at != std::string_view::npos;) {
    const std::size_t end = at + default_name.size();
    const bool is_word =
        (at == 0 || !is_letter_or_digit(text[at - 1])) && (end == text.size() || !is_letter_or_digit(text[end]));
    if (is_word) {
      result.append(text, done, at - done).append(product_name());
      done = end;
    }
    at = text.find(default_name, is_word ? end : at + 1);
  }
  return result.append(text, done);
}

std::string uninstall_entry_key(const std::optional<Brand>& brand) {
  return brand ? std::string(default_name) + "." + brand->id : std::string(default_name);
}

void register_uninstall_entry(const UninstallEntry&) {}

void remove_uninstall_entry(std::string_view) {}

}  // namespace ravok
