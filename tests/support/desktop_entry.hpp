// A reader of desktop entries by the rules of the Desktop Entry standard, independent of the writer.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ravok::testing {

// Returns a value with its escapes replaced by what they stand for.
inline std::string desktop_value(std::string_view written) {
  static const std::map<char, char> escapes = {{'s', ' '}, {'n', '\n'}, {'t', '\t'}, {'r', '\r'}, {'\\', '\\'}};
  std::string value;
  for (std::size_t i = 0; i < written.size(); ++i) {
    if (written[i] != '\\') {
      value += written[i];
      continue;
    }
    const auto escape = ++i < written.size() ? escapes.find(written[i]) : escapes.end();
    if (escape == escapes.end()) {
      throw std::runtime_error("An escape is unknown");
    }
    value += escape->second;
  }
  return value;
}

// Returns the values of an entry's only group by their keys, with their escapes replaced.
inline std::map<std::string, std::string> desktop_entry(std::string_view text) {
  std::map<std::string, std::string> values;
  bool in_group = false;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
      throw std::runtime_error("The last line has no end");
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!in_group) {
      in_group = line == "[Desktop Entry]";
      if (!in_group) {
        throw std::runtime_error("The group is missing");
      }
      continue;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos ||
        line.substr(0, equals).find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-") !=
            std::string_view::npos) {
      throw std::runtime_error("A line is no pair");
    }
    // Blanks after the equals sign do not belong to the value.
    std::string_view value = line.substr(equals + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    if (!values.emplace(line.substr(0, equals), desktop_value(value)).second) {
      throw std::runtime_error("A key stands twice");
    }
  }
  return values;
}

// Returns the arguments of a command line, the program first. Knows no field code except the percent sign.
inline std::vector<std::string> exec_arguments(std::string_view line) {
  constexpr std::string_view behind_backslash = "\"`$\\";
  constexpr std::string_view reserved = "\t\n\"'\\><~|&;$*?#()`";
  std::vector<std::string> arguments;
  std::size_t at = 0;
  const auto next = [&] {
    if (at == line.size()) {
      throw std::runtime_error("A quotation does not end");
    }
    return line[at++];
  };
  const auto percent_checked = [&](char c) {
    if (c == '%' && next() != '%') {
      throw std::runtime_error("A field code");
    }
    return c;
  };
  while (at < line.size()) {
    if (line[at] == ' ') {
      ++at;
      continue;
    }
    std::string argument;
    if (line[at] == '"') {
      ++at;
      for (char c = next(); c != '"'; c = next()) {
        if (c == '\\') {
          c = next();
          if (behind_backslash.find(c) == std::string_view::npos) {
            throw std::runtime_error("A backslash before what needs none");
          }
          argument += c;
        } else if (c == '`' || c == '$') {
          throw std::runtime_error("A character in quotes that needs a backslash");
        } else {
          argument += percent_checked(c);
        }
      }
      if (at < line.size() && line[at] != ' ') {
        throw std::runtime_error("An argument is quoted in part");
      }
    } else {
      while (at < line.size() && line[at] != ' ') {
        const char c = next();
        if (reserved.find(c) != std::string_view::npos) {
          throw std::runtime_error("A reserved character without quotes");
        }
        argument += percent_checked(c);
      }
    }
    arguments.push_back(argument);
  }
  return arguments;
}

// Returns the arguments that an entry starts its program with, the program first.
inline std::vector<std::string> started_by(std::string_view text) {
  return exec_arguments(desktop_entry(text).at("Exec"));
}

}  // namespace ravok::testing
