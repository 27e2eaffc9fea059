// The one line on a terminal that tells how far a long piece of work is.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ravok {

// Returns what the line says: the work alone where there is no total, and otherwise both sizes in words.
std::string transfer_text(std::string_view work, std::uint64_t done, std::uint64_t total);

// Writes to standard error, where that is a terminal, and nothing elsewhere. The line is cleared when the object goes.
class TransferLine {
 public:
  // Without `shown`, nothing is shown on a terminal either.
  explicit TransferLine(bool shown);
  ~TransferLine();
  TransferLine(const TransferLine&) = delete;
  TransferLine& operator=(const TransferLine&) = delete;

  // Begins with other work, which is named as in "Downloading the launcher".
  void begin(std::string_view work);

  // Shows how much of the work is done, in bytes.
  void show(std::uint64_t done, std::uint64_t total);

  // Takes the line away, so that something else can be written.
  void clear() noexcept;

 private:
  void write(std::string text);

  const bool terminal_;
  std::string work_;
  std::string shown_;
};

}  // namespace ravok
