#include "domain/paths.hpp"

#include <algorithm>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_component_bytes = 255;

bool is_portable_byte(char c) {
  return static_cast<unsigned char>(c) >= 32 && std::string_view("<>\"|?*").find(c) == std::string_view::npos;
}

void require_safe_component(std::string_view component, bool portable) {
  require(!component.empty() && component != "." && component != ".." && component.size() <= maximum_component_bytes &&
              component.find(':') == std::string_view::npos,
          "unsafe_path", "Path contains an unsafe component");
  if (portable) {
    require(component.back() != ' ' && component.back() != '.' &&
                std::all_of(component.begin(), component.end(), is_portable_byte),
            "unsafe_path", "Path is not portable across supported platforms");
    require(!is_device_name(component), "unsafe_path", "Path uses a reserved platform name");
  }
}

}  // namespace

std::filesystem::path path_from_utf8(std::string_view text) {
  require(!has_nul(text), "unsafe_path", "Native path contains a NUL byte");
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string path_utf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

std::size_t native_length(std::string_view text) { return path_from_utf8(text).native().size(); }

bool is_bounded_path_text(std::string_view text) {
  return !text.empty() && text.size() <= maximum_path_bytes && !has_nul(text);
}

bool is_bounded_path(const std::filesystem::path& path) { return is_bounded_path_text(path_utf8(path)); }

bool is_bounded_below_root(const std::filesystem::path& path) {
  return path != path.root_path() && is_bounded_path(path);
}

void validate_relative_path(std::string_view path, bool portable) {
  require(!path.empty() && path.size() <= maximum_path_bytes && path.front() != '/' &&
              path.find('\\') == std::string_view::npos && !has_nul(path),
          "unsafe_path", "Path must be a safe relative path");
  std::string_view rest = path;
  while (true) {
    const std::size_t end = rest.find('/');
    require_safe_component(rest.substr(0, end), portable);
    if (end == std::string_view::npos) {
      return;
    }
    rest.remove_prefix(end + 1);
    require(!rest.empty(), "unsafe_path", "Trailing path separator is not allowed");
  }
}

std::string name_of(const std::filesystem::path& path) { return path_utf8(path.filename()); }

std::filesystem::path folder_of(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

std::filesystem::path without_end_separator(const std::filesystem::path& path) {
  return path.has_filename() || path == path.root_path() ? path : path.parent_path();
}

}  // namespace ravok
