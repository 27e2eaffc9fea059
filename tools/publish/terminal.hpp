// What the publishing program says to the people before it.
#pragma once

#include <cstdint>
#include <string>

namespace ravok {

// Returns a size in bytes as people read it.
std::string shown_size(std::uint64_t bytes);

// Writes to standard output. Fails with "output_failed".
void say(const std::string& text);

// One line on a terminal that counts up to a hundred, and is gone with the object; nothing elsewhere.
class ProgressLine {
 public:
  // `work` names what is done, such as "Packing".
  explicit ProgressLine(std::string work);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(std::uint64_t done, std::uint64_t total);

 private:
  std::string work_;
  bool terminal_;
  int last_ = -1;
};

}  // namespace ravok
