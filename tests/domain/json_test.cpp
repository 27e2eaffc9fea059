#include "domain/json.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/reference_json.hpp"

namespace ravok::json_test {
namespace {

constexpr std::uint64_t limit = 1 << 20;
constexpr const char* too_deep = "JSON nesting exceeds 64 levels";
constexpr const char* duplicate = "JSON contains a duplicate object key";
constexpr const char* floating = "Floating point numbers are not allowed in protocol data";

std::string nested(std::size_t levels, std::string_view open, std::string_view inner, std::string_view close) {
  std::string text;
  for (std::size_t i = 0; i < levels; ++i) {
    text += open;
  }
  text += inner;
  for (std::size_t i = 0; i < levels; ++i) {
    text += close;
  }
  return text;
}

// The failure that the JSON library itself has for this text.
std::string library_message(std::string_view text) {
  try {
    const Json value = Json::parse(text);
  } catch (const Json::exception& problem) {
    return problem.what();
  }
  return "none";
}

TEST(ParseJson, ReadsEveryKindOfValue) {
  const Json value = parse_json(R"( {"a":[1,-2,true,false,null,"x\u00e4"],"b":{},"c":[]} )", limit);
  EXPECT_EQ(value, (Json{{"a", {1, -2, true, false, nullptr, "xä"}}, {"b", Json::object()}, {"c", Json::array()}}));
  EXPECT_EQ(parse_json("7", limit), Json(7));
  EXPECT_EQ(parse_json("\"x\"", limit), Json("x"));
  EXPECT_EQ(parse_json("null", limit), Json(nullptr));
}

TEST(ParseJson, KeepsKeysInAscendingByteOrder) {
  EXPECT_EQ(parse_json(R"({"b":1,"a":2,"ä":3,"B":4,"":5})", limit).dump(), R"({"":5,"B":4,"a":2,"b":1,"ä":3})");
}

TEST(ParseJson, AcceptsExactlyTheLimitAndRefusesOneByteMore) {
  EXPECT_EQ(parse_json("[1, 2]", 6), (Json{1, 2}));
  EXPECT_FAILURE(parse_json("[1, 2]", 5), "size_limit", "JSON exceeds its size limit");
}

TEST(ParseJson, ChecksTheSizeBeforeItLooksAtTheText) {
  EXPECT_FAILURE(parse_json("not json", 7), "size_limit", "JSON exceeds its size limit");
}

TEST(ParseJson, AcceptsScalarsInside64Containers) {
  EXPECT_NO_THROW(parse_json(nested(64, "[", "1", "]"), limit));
  EXPECT_FAILURE(parse_json(nested(65, "[", "1", "]"), limit), "depth_limit", too_deep);
  EXPECT_NO_THROW(parse_json(nested(64, "{\"a\":", "1", "}"), limit));
  EXPECT_FAILURE(parse_json(nested(65, "{\"a\":", "1", "}"), limit), "depth_limit", too_deep);
}

TEST(ParseJson, AcceptsAnEmptyContainerAsThe65thLevel) {
  EXPECT_NO_THROW(parse_json(nested(65, "[", "", "]"), limit));
  EXPECT_FAILURE(parse_json(nested(66, "[", "", "]"), limit), "depth_limit", too_deep);
  EXPECT_NO_THROW(parse_json(nested(64, "[", "{}", "]"), limit));
  EXPECT_FAILURE(parse_json(nested(64, "[", "{\"a\":[]}", "]"), limit), "depth_limit", too_deep);
}

TEST(ParseJson, RefusesDuplicateKeysAtAnyDepth) {
  EXPECT_FAILURE(parse_json(R"({"a":1,"a":2})", limit), "duplicate_key", duplicate);
  EXPECT_FAILURE(parse_json(R"([[{"x":{"a":1,"b":2,"a":1}}]])", limit), "duplicate_key", duplicate);
}

TEST(ParseJson, ComparesKeysAfterDecodingEscapes) {
  EXPECT_FAILURE(parse_json(R"({"a":1,"\u0061":2})", limit), "duplicate_key", duplicate);
  EXPECT_FAILURE(parse_json(R"({"/":1,"\/":2})", limit), "duplicate_key", duplicate);
}

TEST(ParseJson, LetsOtherObjectsRepeatAKey) {
  EXPECT_EQ(parse_json(R"([{"a":1},{"a":2}])", limit), (Json{{{"a", 1}}, {{"a", 2}}}));
  EXPECT_NO_THROW(parse_json(R"({"a":{"a":{"a":1}},"b":{"a":1}})", limit));
}

TEST(ParseJson, ReadsTheWholeRangeOf64BitsAndNothingBeyond) {
  EXPECT_EQ(parse_json("18446744073709551615", limit).get<std::uint64_t>(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(parse_json("-9223372036854775808", limit).get<std::int64_t>(), std::numeric_limits<std::int64_t>::min());
  EXPECT_FAILURE(parse_json("18446744073709551616", limit), "invalid_number", floating);
  EXPECT_FAILURE(parse_json("-9223372036854775809", limit), "invalid_number", floating);
}

TEST(ParseJson, RefusesFloatingPointAtAnyDepth) {
  for (const char* text : {"1.5", "1.0", "1e3", "[[[[1.5]]]]", R"({"a":[{"b":-0.0}]})"}) {
    EXPECT_FAILURE(parse_json(text, limit), "invalid_number", floating) << text;
  }
}

TEST(ParseJson, ChecksTheDepthBeforeTheNumber) {
  EXPECT_FAILURE(parse_json(nested(65, "[", "1.5", "]"), limit), "depth_limit", too_deep);
}

TEST(ParseJson, GivesTheLibrarysOwnWordsForWhatIsNotJson) {
  for (const char* text : {"", "[1,]", "// x", "/* x */ 1", "{} {}", "{\"a\"}", "\"\xff\"", "\"\n\"", "[1", "nul",
                           "1e400", "1e999", "{,}", "'a'", "01", "+1", "\"\\ud800\""}) {
    ASSERT_NE(library_message(text), "none") << text;
    EXPECT_FAILURE(parse_json(text, limit), "invalid_json", library_message(text)) << text;
  }
}

TEST(ParseJson, RefusesEveryByteBehindTheValueButWhiteSpace) {
  for (const std::string value : {"{}", "[1]", "\"x\"", "true"}) {
    for (int byte = 0; byte < 256; ++byte) {
      const char c = static_cast<char>(byte);
      const bool white_space = c == ' ' || c == '\t' || c == '\n' || c == '\r';
      for (const std::string& tail : {std::string(1, c), c + std::string("garbage"), "\n" + std::string(1, c) + " "}) {
        const auto failure = testing::failure_of([&] { parse_json(value + tail, limit); });
        const bool accepted = white_space && tail.find('g') == std::string::npos;
        EXPECT_EQ(failure ? failure->code : "none", accepted ? "none" : "invalid_json") << value << " and " << byte;
      }
    }
  }
}

TEST(ParseJson, RefusesEveryByteAheadOfTheValueButWhiteSpace) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool white_space = c == ' ' || c == '\t' || c == '\n' || c == '\r';
    const auto failure = testing::failure_of([&] { parse_json(c + std::string("{}"), limit); });
    EXPECT_EQ(failure ? failure->code : "none", white_space ? "none" : "invalid_json") << byte;
  }
  EXPECT_EQ(parse_json("\xEF\xBB\xBF{}", limit), Json::object());
}

TEST(ParseJson, RefusesANulWhereverItStands) {
  const auto with_nul = [](std::string text) {
    std::replace(text.begin(), text.end(), '#', '\0');
    return text;
  };
  EXPECT_FAILURE(parse_json(with_nul("{}#garbage"), limit), "invalid_json",
                 "[json.exception.parse_error.101] parse error at byte 3: syntax error while parsing value - invalid "
                 "literal; last read: '<U+0000>'; expected end of input");
  for (const char* text : {"#", "#{}", "{}#", "{} #", "7#", "7#8", "{}#{}", "[1#]", "[1,#2]", "{\"a\"#:1}",
                           "{\"a\":1#}", "\"a#b\"", "{\"a#b\":1}", "\"a\\#\"", "tr#ue", "1#.5", "-#"}) {
    const auto failure = testing::failure_of([&] { parse_json(with_nul(text), limit); });
    EXPECT_EQ(failure ? failure->code : "none", "invalid_json") << text;
  }
  EXPECT_EQ(parse_json("\"a\\u0000b\"", limit), Json(std::string("a\0b", 3)));
}

TEST(ParseJson, KeepsTheFailureThatComesFirst) {
  EXPECT_FAILURE(parse_json(std::string("1.5\0x", 5), limit), "invalid_number", floating);
  EXPECT_FAILURE(parse_json(std::string("{\"a\":1,\"a\":2}\0", 14), limit), "duplicate_key", duplicate);
}

TEST(ParseJson, AgreesWithTheCallbackParser) {
  for (const std::string& text :
       {std::string("[1,{\"a\":[]},\"x\"]"), std::string("{\"a\":1,\"a\":1.5}"), std::string("{\"a\":1.5,\"a\":1}"),
        std::string("{}\0garbage", 10), std::string("[1,2] \0", 7), std::string("[\0]", 3), std::string("[1.5,"),
        nested(66, "[", "", ""), nested(70, "{\"a\":", "", ""), std::string("[{\"a\":1,\"a\"")}) {
    const auto expected = testing::failure_of([&] { testing::reference_parse_json(text, limit); });
    if (expected) {
      EXPECT_FAILURE(parse_json(text, limit), expected->code, expected->what()) << text;
    } else {
      EXPECT_EQ(parse_json(text, limit), testing::reference_parse_json(text, limit)) << text;
    }
  }
}

TEST(ParseJson, RefusesTenMebibytesOfBracketsAtTheirDepth) {
  EXPECT_FAILURE(parse_json(std::string(10 << 20, '['), 10 << 20), "depth_limit", too_deep);
}

TEST(CanonicalJson, SortsKeysAndEscapesOnlyQuotesAndBackslashes) {
  const Json value = {{"b", {1, -2}}, {"a", "x\"y\n"}};
  EXPECT_EQ(canonical_json(value), "{\"a\":\"x\\\"y\n\",\"b\":[1,-2]}");
  EXPECT_EQ(canonical_json(Json("\\\x01\t\x7fä/\"")), "\"\\\\\x01\t\x7fä/\\\"\"");
  EXPECT_EQ(canonical_json(Json{{"q\"", "\\"}}), "{\"q\\\"\":\"\\\\\"}");
}

TEST(CanonicalJson, KeepsBytesThatAreNotUtf8) { EXPECT_EQ(canonical_json(Json("\xff\xfe")), "\"\xff\xfe\""); }

TEST(CanonicalJson, WritesLiteralsAndEmptyContainers) {
  EXPECT_EQ(canonical_json(Json{nullptr, true, false, Json::object(), Json::array(), ""}),
            "[null,true,false,{},[],\"\"]");
}

TEST(CanonicalJson, WritesIntegersInFull) {
  EXPECT_EQ(canonical_json(Json{std::numeric_limits<std::int64_t>::min(), 0, std::numeric_limits<std::int64_t>::max(),
                                std::numeric_limits<std::uint64_t>::max()}),
            "[-9223372036854775808,0,9223372036854775807,18446744073709551615]");
}

TEST(CanonicalJson, OrdersKeysByUnsignedBytes) {
  EXPECT_EQ(canonical_json(Json{{"\xff", 1}, {"z", 2}, {"Z", 3}, {"", 4}}), "{\"\":4,\"Z\":3,\"z\":2,\"\xff\":1}");
}

TEST(CanonicalJson, RefusesWhatHasNoCanonicalForm) {
  constexpr const char* message = "Cannot canonicalize floating point data";
  EXPECT_FAILURE(canonical_json(Json(1.0)), "invalid_number", message);
  EXPECT_FAILURE(canonical_json(Json{{"a", {1, 2.5}}}), "invalid_number", message);
  EXPECT_FAILURE(canonical_json(Json::binary({1, 2})), "invalid_number", message);
  EXPECT_FAILURE(canonical_json(Json(Json::value_t::discarded)), "invalid_number", message);
}

TEST(PositiveVersion, ReadsIntegersFromOne) {
  EXPECT_EQ(positive_version(parse_json("1", limit)), 1u);
  EXPECT_EQ(positive_version(Json(std::int64_t{5})), 5u);
  EXPECT_EQ(positive_version(parse_json("18446744073709551615", limit)), std::numeric_limits<std::uint64_t>::max());
}

TEST(PositiveVersion, RefusesZeroInItsOwnWords) {
  EXPECT_FAILURE(positive_version(parse_json("0", limit)), "invalid_version", "Metadata version must be positive");
}

TEST(PositiveVersion, RefusesEverythingElse) {
  for (const Json& value : {Json(-1), Json("1"), Json(nullptr), Json(true), Json(1.0), Json::array(), Json::object(),
                            Json(std::int64_t{0})}) {
    EXPECT_FAILURE(positive_version(value), "invalid_version", "Metadata version must be a positive integer") << value;
  }
}

TEST(SizeValue, ReadsIntegersFromZero) {
  EXPECT_EQ(size_value(parse_json("0", limit)), 0u);
  EXPECT_EQ(size_value(Json(std::int64_t{0})), 0u);
  EXPECT_EQ(size_value(parse_json("18446744073709551615", limit)), std::numeric_limits<std::uint64_t>::max());
}

TEST(SizeValue, RefusesEverythingElse) {
  for (const Json& value : {Json(-1), Json("1"), Json(nullptr), Json(0.0), Json::array(), Json(false)}) {
    EXPECT_FAILURE(size_value(value), "invalid_manifest", "Manifest length must be a non-negative integer") << value;
  }
}

TEST(Sha256, ReadsSixtyFourLowerCaseDigits) {
  const std::string digest = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
  EXPECT_EQ(sha256(Json(digest)), digest);
}

TEST(Sha256, RefusesAnyOtherText) {
  for (const std::string& text : {std::string(), std::string(63, 'a'), std::string(65, 'a'), std::string(64, 'A'),
                                  std::string(64, 'g'), std::string(63, 'a') + '\n'}) {
    EXPECT_FAILURE(sha256(Json(text)), "invalid_manifest", "Manifest needs a lower-case SHA-256 digest") << text;
  }
}

TEST(Sha256, LeavesTheLibrarysTypeErrorForAValueThatIsNoText) {
  EXPECT_THROW(sha256(Json(1)), Json::type_error);
  EXPECT_THROW(sha256(Json(nullptr)), Json::type_error);
}

TEST(TextAt, FindsTheTextOfAKey) {
  const Json object = {{"a", "x"}, {"b", ""}, {"c", 1}};
  EXPECT_EQ(&text_at(object, "a"), object["a"].get_ptr<const std::string*>());
  EXPECT_EQ(text_at(object, "b"), "");
}

TEST(TextAt, LeavesTheLibrarysExceptionWhereThereIsNone) {
  EXPECT_THROW(text_at(Json::object(), "a"), Json::out_of_range);
  EXPECT_THROW(text_at(Json{{"a", 1}}, "a"), Json::type_error);
  EXPECT_THROW(text_at(Json{{"a", nullptr}}, "a"), Json::type_error);
  EXPECT_THROW(text_at(Json(1), "a"), Json::type_error);
}

TEST(IsInteger, KnowsTheNumberInBothIntegerTypes) {
  EXPECT_TRUE(is_integer(Json(std::int64_t{1}), 1));
  EXPECT_TRUE(is_integer(Json(std::uint64_t{1}), 1));
  EXPECT_TRUE(is_integer(Json(-1), -1));
  EXPECT_TRUE(is_integer(Json(std::uint64_t{0}), 0));
}

TEST(IsInteger, TellsOtherNumbersAndTypesApart) {
  for (const Json& value : {Json(2), Json(0), Json(-1), Json(1.0), Json("1"), Json(true), Json(nullptr), Json{1}}) {
    EXPECT_FALSE(is_integer(value, 1)) << value;
  }
  EXPECT_FALSE(is_integer(Json(0.0), 0));
  EXPECT_FALSE(is_integer(Json(false), 0));
}

TEST(IsInteger, DoesNotWrapAround) {
  EXPECT_FALSE(is_integer(Json(std::numeric_limits<std::uint64_t>::max()), -1));
  EXPECT_FALSE(is_integer(Json((std::uint64_t{1} << 32) + 1), 1));
}

TEST(HasExactly, WantsEveryKeyAndNoOther) {
  EXPECT_TRUE(has_exactly(Json{{"a", 1}, {"b", nullptr}}, {"b", "a"}));
  EXPECT_TRUE(has_exactly(Json::object(), {}));
  EXPECT_FALSE(has_exactly(Json{{"a", 1}}, {"a", "b"}));
  EXPECT_FALSE(has_exactly(Json{{"a", 1}, {"b", 2}, {"c", 3}}, {"a", "b"}));
  EXPECT_FALSE(has_exactly(Json{{"a", 1}, {"B", 2}}, {"a", "b"}));
}

TEST(HasExactly, WantsAnObject) {
  for (const Json& value : {Json(nullptr), Json(1), Json("a"), Json::array()}) {
    EXPECT_FALSE(has_exactly(value, {})) << value;
  }
  EXPECT_FALSE(has_exactly(Json::array({"a"}), {"a"}));
}

TEST(RefuseMalformed, ReturnsWhatTheWorkReturns) {
  EXPECT_EQ(refuse_malformed("code", "message", [] { return 7; }), 7);
}

TEST(RefuseMalformed, GivesEveryExceptionOfTheLibraryOneForm) {
  const Json object = Json::object();
  EXPECT_FAILURE(refuse_malformed("code", "message", [&] { return object.at("a"); }), "code", "message");
  EXPECT_FAILURE(refuse_malformed("code", "message", [&] { return object.get<int>(); }), "code", "message");
  EXPECT_FAILURE(refuse_malformed("code", "message", [] { return Json::parse("{"); }), "code", "message");
}

TEST(RefuseMalformed, LetsOtherFailuresPass) {
  EXPECT_FAILURE(refuse_malformed("code", "message", [] { fail("other", "words"); }), "other", "words");
  EXPECT_THROW(refuse_malformed("code", "message", []() -> int { throw std::bad_alloc(); }), std::bad_alloc);
}

TEST(IsText, ComparesWholeTextsAndNothingElse) {
  EXPECT_TRUE(is_text(Json("kind"), "kind"));
  EXPECT_TRUE(is_text(Json(""), ""));
  for (const Json& value : {Json("Kind"), Json("kin"), Json("kinds"), Json(std::string("kind\0", 5)), Json(), Json(1),
                            Json::array({"kind"}), Json({{"kind", "kind"}})}) {
    EXPECT_FALSE(is_text(value, "kind")) << value;
  }
}

}  // namespace
}  // namespace ravok::json_test
