// The strict parser agrees, value for value and failure for failure, with the JSON library's
// callback parser; what it accepts can be written and read again.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "property.hpp"
#include "support/reference_json.hpp"

namespace {

struct Outcome {
  std::optional<ravok::Json> value;
  std::string code;
  std::string message;
};

template <typename Parser>
Outcome outcome(Parser parser, std::string_view text, std::uint64_t limit) {
  try {
    return {parser(text, limit), "", ""};
  } catch (const ravok::Error& error) {
    return {std::nullopt, error.code, error.what()};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ravok::fuzz::must_hold;
  constexpr std::uint64_t limit = 65536;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Outcome ours = outcome(ravok::parse_json, text, limit);
  const Outcome reference = outcome(ravok::testing::reference_parse_json, text, limit);
  must_hold(ours.code == reference.code, "the code of a refusal is the reference's");
  must_hold(ours.message == reference.message, "the message of a refusal is the reference's");
  must_hold(ours.value == reference.value, "the value is the reference's");
  if (ours.value) {
    const std::string dumped = ours.value->dump();
    must_hold(ravok::parse_json(dumped, dumped.size()) == *ours.value, "what is written reads as the same value");
    const std::string canonical = ravok::canonical_json(*ours.value);
    bool printable = true;
    for (const char c : canonical) {
      printable = printable && static_cast<unsigned char>(c) >= 32;
    }
    must_hold(!printable || ravok::parse_json(canonical, canonical.size()) == *ours.value,
              "canonical text without control characters reads as the same value");
  }
  return 0;
}
