// How the publishing program talks to its users.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "domain/display_text.hpp"

namespace ravok {

// Writes the text to standard output as it is. Fails with "output_failed".
void print(const std::string& text);

// Writes lines to standard output, each with its end and escaped for a terminal. Fails with "output_failed".
void say(const std::vector<std::string>& lines);

// Writes a line to standard error, escaped for a terminal.
void complain(const std::string& line);

// A line on a terminal that tells how far some work is, and is cleared when the object goes. Shows nothing elsewhere.
class ProgressLine {
 public:
  // `work` names what is done, such as "Packing". Without `shown`, nothing is shown on a terminal either.
  explicit ProgressLine(std::string work, bool shown = true);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Shows a part in percent.
  void show(std::uint64_t done, std::uint64_t total);

  // Shows a number that grows, in steps of a thousand.
  void show_count(std::uint64_t count);

 private:
  std::string work_;
  bool terminal_;
  std::int64_t last_ = -1;
};

}  // namespace ravok
