#include "app/command/transfer_line.hpp"

#include <cstdio>
#include <utility>

#include "domain/display_text.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr int error_stream = 2;

}  // namespace

std::string transfer_text(std::string_view work, std::uint64_t done, std::uint64_t total) {
  std::string text = std::string(work) + "…";
  if (total != 0) {
    text += " " + shown_size(done) + " of " + shown_size(total);
  }
  return text;
}

TransferLine::TransferLine(bool shown) : terminal_(shown && os::is_terminal(error_stream)) {}

TransferLine::~TransferLine() { clear(); }

void TransferLine::begin(std::string_view work) {
  work_ = work;
  write(transfer_text(work_, 0, 0));
}

void TransferLine::show(std::uint64_t done, std::uint64_t total) { write(transfer_text(work_, done, total)); }

void TransferLine::clear() noexcept {
  if (!shown_.empty()) {
    std::fputs("\r\033[K", stderr);
    shown_.clear();
  }
}

void TransferLine::write(std::string text) {
  if (terminal_ && text != shown_) {
    // What was longer before leaves nothing behind.
    std::fprintf(stderr, "\r%s\033[K", text.c_str());
    shown_ = std::move(text);
  }
}

}  // namespace ravok
