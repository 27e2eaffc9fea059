#include "publisher/commands/terminal.hpp"

#include <cstdio>
#include <new>
#include <utility>

#include "domain/error.hpp"
#include "platform/os.hpp"

namespace ravok {

void print(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  require(std::fflush(stdout) == 0 && std::ferror(stdout) == 0, "output_failed", "Cannot write to standard output");
}

void say(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += shown_text(line) + "\n";
  }
  print(text);
}

void complain(const std::string& line) {
  try {
    std::fputs((shown_text(line) + "\n").c_str(), stderr);
  } catch (const std::bad_alloc&) {
    std::fputs("Out of memory\n", stderr);
  }
}

ProgressLine::ProgressLine(std::string work, bool shown)
    : work_(std::move(work)), terminal_(shown && os::is_terminal(2)) {}

ProgressLine::~ProgressLine() {
  if (last_ >= 0) {
    std::fputs("\r\033[K", stderr);
  }
}

void ProgressLine::show(std::uint64_t done, std::uint64_t total) {
  const int percent = total == 0 ? 100 : static_cast<int>(static_cast<double>(done) * 100 / static_cast<double>(total));
  if (terminal_ && percent != last_) {
    std::fprintf(stderr, "\r%s… %d %%", work_.c_str(), percent);
    last_ = percent;
  }
}

void ProgressLine::show_count(std::uint64_t count) {
  constexpr std::uint64_t step = 1000;
  const auto steps = static_cast<std::int64_t>(count / step);
  if (terminal_ && steps != last_) {
    std::fprintf(stderr, "\r%s… %llu", work_.c_str(), static_cast<unsigned long long>(count));
    last_ = steps;
  }
}

}  // namespace ravok
