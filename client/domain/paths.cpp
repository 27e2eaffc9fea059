#include "domain/paths.hpp"

#include <algorithm>

#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_path_bytes = 4096;
constexpr std::size_t maximum_component_bytes = 255;

char upper_case(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool is_portable_byte(char c) {
  return static_cast<unsigned char>(c) >= 32 && std::string_view("<>\"|?*").find(c) == std::string_view::npos;
}

bool is_reserved_stem(std::string_view component) {
  std::string stem(component.substr(0, component.find('.')));
  std::transform(stem.begin(), stem.end(), stem.begin(), upper_case);
  if (stem == "CON" || stem == "PRN" || stem == "AUX" || stem == "NUL") {
    return true;
  }
  return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) && stem[3] >= '1' && stem[3] <= '9';
}

void require_safe_component(std::string_view component, bool portable) {
  require(!component.empty() && component != "." && component != ".." && component.size() <= maximum_component_bytes &&
              component.find(':') == std::string_view::npos,
          "unsafe_path", "Path contains an unsafe component");
  if (portable) {
    require(component.back() != ' ' && component.back() != '.' &&
                std::all_of(component.begin(), component.end(), is_portable_byte),
            "unsafe_path", "Path is not portable across supported platforms");
    require(!is_reserved_stem(component), "unsafe_path", "Path uses a reserved platform name");
  }
}

}  // namespace

std::filesystem::path path_from_utf8(std::string_view text) {
  require(text.find('\0') == std::string_view::npos, "unsafe_path", "Native path contains a NUL byte");
  return std::filesystem::path(std::string(text));
}

std::string path_utf8(const std::filesystem::path& path) { return path.native(); }

std::size_t native_length(std::string_view text) { return path_from_utf8(text).native().size(); }

void validate_relative_path(std::string_view path, bool portable) {
  require(!path.empty() && path.size() <= maximum_path_bytes && path.front() != '/' &&
              path.find('\\') == std::string_view::npos && path.find('\0') == std::string_view::npos,
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

std::filesystem::path without_end_separator(const std::filesystem::path& path) {
  return path.has_filename() || path == path.root_path() ? path : path.parent_path();
}

}  // namespace ravok
