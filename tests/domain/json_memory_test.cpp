#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "support/allocation_meter.hpp"
#include "support/failure.hpp"

namespace ravok::json_memory_test {
namespace {

constexpr std::size_t limit = 16 << 20;
// Bytes held for each byte of text: the densest texts are lists of empty objects, whose three
// bytes become a value, a map and their allocations.
constexpr std::size_t most_bytes_per_byte = 40;

struct Parsed {
  std::size_t peak;
  std::string code;  // empty when the text was accepted
};

Parsed parse(const std::string& text) {
  Parsed parsed;
  parsed.peak = testing::peak_bytes([&] {
    const auto failure = testing::failure_of([&] { parse_json(text, limit); });
    parsed.code = failure ? failure->code : "";
  });
  return parsed;
}

std::string repeated(std::string_view piece, std::size_t bytes) {
  std::string text;
  while (text.size() + piece.size() < bytes) {
    text += piece;
  }
  return text;
}

TEST(ParseJsonMemory, OversizedTextTakesNothing) {
  const Parsed parsed = parse(std::string(limit + 1, ' '));
  EXPECT_EQ(parsed.code, "size_limit");
  EXPECT_LT(parsed.peak, 4096u);
}

TEST(ParseJsonMemory, TenMebibytesOfBracketsTakeNoMoreThanTheirRefusal) {
  const Parsed parsed = parse(std::string(10 << 20, '['));
  EXPECT_EQ(parsed.code, "depth_limit");
  EXPECT_LT(parsed.peak, 65536u);
}

TEST(ParseJsonMemory, TenMebibytesOfOpenObjectsTakeNoMoreThanTheirRefusal) {
  const Parsed parsed = parse(repeated("{\"a\":", 10 << 20));
  EXPECT_EQ(parsed.code, "depth_limit");
  EXPECT_LT(parsed.peak, 65536u);
}

TEST(ParseJsonMemory, AMillionKeysStayInProportionToTheText) {
  std::string text = "{";
  for (int i = 0; i < 1000000; ++i) {
    text += "\"" + std::to_string(i) + "\":1,";
  }
  text.back() = '}';
  const Parsed parsed = parse(text);
  EXPECT_EQ(parsed.code, "");
  EXPECT_LT(parsed.peak, text.size() * most_bytes_per_byte);
}

TEST(ParseJsonMemory, AMillionKeysWithOneRepeatedByEscapeAreRefused) {
  std::string text = "{";
  for (int i = 0; i < 1000000; ++i) {
    text += "\"" + std::to_string(i) + "\":1,";
  }
  text += "\"\\u0037\":1}";
  const Parsed parsed = parse(text);
  EXPECT_EQ(parsed.code, "duplicate_key");
  EXPECT_LT(parsed.peak, text.size() * most_bytes_per_byte);
}

TEST(ParseJsonMemory, TheDensestListsStayInProportionToTheText) {
  for (const char* piece : {"1,", "[],", "{},", "\"\",", "{\"\":{}},", "[[[[[]]]]],"}) {
    const std::string text = "[" + repeated(piece, limit - 2) + "1]";
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.code, "") << piece;
    EXPECT_LT(parsed.peak, text.size() * most_bytes_per_byte) << piece;
  }
}

}  // namespace
}  // namespace ravok::json_memory_test
