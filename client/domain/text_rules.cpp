#include "domain/text_rules.hpp"

#include <array>

namespace ravok {
namespace {

std::string changed(std::string_view text, char (*change)(char)) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), change);
  return result;
}

}  // namespace

std::string lower(std::string_view text) { return changed(text, lower); }

std::string upper(std::string_view text) { return changed(text, upper); }

bool is_device_name(std::string_view name) {
  constexpr std::array<std::string_view, 4> devices = {"CON", "PRN", "AUX", "NUL"};
  const std::string stem = upper(name.substr(0, name.find('.')));
  const bool numbered =
      stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) && stem[3] >= '1' && stem[3] <= '9';
  return numbered || std::find(devices.begin(), devices.end(), stem) != devices.end();
}

}  // namespace ravok
