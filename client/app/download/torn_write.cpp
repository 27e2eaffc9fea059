#include "app/download/torn_write.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "app/download/download_receipt.hpp"
#include "domain/crypto.hpp"
#include "domain/text_rules.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::string_view record_start = R"({"authorization":)";

// Whether two texts are the same as far as both reach.
bool agree(std::string_view text, std::string_view expected) {
  const std::size_t length = std::min(text.size(), expected.size());
  return text.substr(0, length) == expected.substr(0, length);
}

// Whether what follows a key, if the text holds it, agrees with the only value that it may have.
bool shows_value(std::string_view text, std::string_view key, std::string_view value) {
  const std::size_t found = text.find(key);
  return found == std::string_view::npos || agree(text.substr(found + key.size()), value);
}

// Compares a text that may end anywhere with what is expected, part by part. Once the text has ended, every further
// part agrees.
class TornText {
 public:
  explicit TornText(std::string_view text) : rest_(text) {}

  TornText& literal(std::string_view expected) {
    agrees_ = agrees_ && agree(rest_, expected);
    rest_.remove_prefix(std::min(rest_.size(), expected.size()));
    return *this;
  }

  // A number without a sign or leading zeros.
  TornText& number(std::uint64_t most) {
    if (rest_.empty()) {
      return *this;
    }
    std::uint64_t value = 0;
    const auto [end, problem] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    const auto length = static_cast<std::size_t>(end - rest_.data());
    agrees_ = agrees_ && problem == std::errc() && value <= most && (length == 1 || rest_.front() != '0');
    rest_.remove_prefix(length);
    return *this;
  }

  TornText& lower_hex_digits(std::size_t characters) {
    const std::size_t length = std::min(rest_.size(), characters);
    agrees_ = agrees_ && is_lower_hex(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return *this;
  }

  // Whether all parts agreed and nothing follows them.
  bool is_start() const { return agrees_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool agrees_ = true;
};

}  // namespace

bool is_record_start(std::string_view text) { return agree(text, record_start); }

bool initial_write_prefix(std::string_view text) {
  return is_record_start(text) && shows_value(text, R"("kind":)", '"' + std::string(download_receipt_kind) + R"(",)") &&
         shows_value(text, R"("schema_version":)", "1,");
}

bool is_resume_write_start(std::string_view text, const Json& receipt, const std::optional<Json>& identity) {
  constexpr std::uint64_t any = std::numeric_limits<std::uint64_t>::max();
  const Json& authorization = receipt.at("authorization");
  const std::string scope = target_download_resume_scope(text_at(receipt, "target"), receipt.at("reference"));
  TornText torn(text);
  torn.literal(record_start).literal(authorization.dump()).literal(R"(,"identity":)");
  if (identity) {
    torn.literal(identity->dump());
  } else {
    torn.literal("[").number(any).literal(",").number(any).literal("]");
  }
  torn.literal(R"(,"kind":)").literal(Json(resume_state_kind).dump());
  torn.literal(R"(,"prefix_sha256":")").lower_hex_digits(sha256_characters);
  torn.literal(R"(","received":)").number(authorization.at("length").get<std::uint64_t>());
  torn.literal(R"(,"schema_version":1,"scope_sha256":)").literal(Json(digest(scope, "sha256")).dump());
  torn.literal(R"(,"target":)").literal(receipt.at("target").dump());
  torn.literal(R"(,"temporary":)").literal(receipt.at("temporary").dump()).literal("}");
  return torn.is_start();
}

}  // namespace ravok
