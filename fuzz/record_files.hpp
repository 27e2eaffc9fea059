// Makes a record and what a crash leaves of its writes out of one input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace ravok::fuzz {

// Returns the content of files by their names: the first line of the input is that of the record itself, which is
// missing where the line is empty, and the others are those of writes of it.
inline std::map<std::string, std::string> record_files(const std::string& record, std::string_view input) {
  std::map<std::string, std::string> files;
  for (std::size_t number = 0; !input.empty() || number == 0; ++number) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    const std::string digits = std::to_string(number);
    const std::string ending = "." + std::string(32 - digits.size(), '0') + digits + ".tmp";
    if (number > 0 || end > 0) {
      files.emplace(record + (number == 0 ? "" : ending), input.substr(0, end));
    }
    input.remove_prefix(std::min(end + 1, input.size()));
  }
  return files;
}

}  // namespace ravok::fuzz
