#include "app/download/torn_write.hpp"

#include <cstddef>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "support/download_builder.hpp"

namespace ravok::torn_write_test {
namespace {

using testing::archive_receipt;
using testing::checkpoint_of;
using testing::descriptor_receipt;

TEST(InitialWritePrefix, HoldsForEveryPrefixOfAReceipt) {
  for (const Json& receipt : {archive_receipt(), descriptor_receipt('2', "complete")}) {
    const std::string text = receipt.dump();
    for (std::size_t length = 0; length <= text.size(); ++length) {
      EXPECT_TRUE(initial_write_prefix(text.substr(0, length))) << length;
    }
  }
}

TEST(InitialWritePrefix, NeedsTheFirstKey) {
  EXPECT_TRUE(initial_write_prefix(R"({"authori)"));
  EXPECT_FALSE(initial_write_prefix(R"({"authority)"));
  EXPECT_TRUE(initial_write_prefix(R"({"authorization":)"));
  EXPECT_FALSE(initial_write_prefix(R"({"authorization";)"));
  EXPECT_FALSE(initial_write_prefix(R"( {"authorization":)"));
  EXPECT_FALSE(initial_write_prefix(std::string(1, '\0')));
}

TEST(InitialWritePrefix, FailsForAnotherKindOrSchema) {
  const std::string start = R"({"authorization":{},)";
  for (const char* rest : {R"("kind":)", R"("kind":"rav)", R"("kind":"ravok-launcher-download")",
                           R"("kind":"ravok-launcher-download",)", R"("schema_version":)", R"("schema_version":1)",
                           R"("schema_version":1,)", R"("kind")", R"("schema_version")", "anything else"}) {
    EXPECT_TRUE(initial_write_prefix(start + rest)) << rest;
  }
  for (const char* rest :
       {R"("kind":"ravok-target-resume",)", R"("kind":"x)", R"("kind": )", R"("kind":1)",
        R"("kind":"ravok-launcher-download"})", R"("kind":"ravok-launcher-download2)", R"("schema_version":2)",
        R"("schema_version":10)", R"("schema_version":1})", R"("schema_version":-)"}) {
    EXPECT_FALSE(initial_write_prefix(start + rest)) << rest;
  }
}

TEST(ResumeWriteStart, HoldsForEveryPrefixOfACheckpoint) {
  for (const Json& receipt : {archive_receipt(), descriptor_receipt()}) {
    const Json state = checkpoint_of(receipt);
    const std::string text = state.dump();
    for (std::size_t length = 0; length <= text.size(); ++length) {
      EXPECT_TRUE(is_resume_write_start(text.substr(0, length), receipt, std::nullopt)) << length;
      EXPECT_TRUE(is_resume_write_start(text.substr(0, length), receipt, state.at("identity"))) << length;
    }
    EXPECT_FALSE(is_resume_write_start(text + " ", receipt, std::nullopt));
    EXPECT_FALSE(is_resume_write_start(text + '\0', receipt, std::nullopt));
  }
}

TEST(ResumeWriteStart, FailsForEveryMemberOfAnotherDownload) {
  const Json receipt = archive_receipt();
  const auto whole = [&](const char* key, const Json& value) {
    Json state = checkpoint_of(receipt);
    state[key] = value;
    return state.dump();
  };
  constexpr auto largest = std::numeric_limits<std::uint64_t>::max();
  EXPECT_TRUE(is_resume_write_start(whole("identity", {0, largest}), receipt, std::nullopt));
  EXPECT_TRUE(is_resume_write_start(whole("received", 7), receipt, std::nullopt));
  for (const std::string& text :
       {whole("authorization", testing::description_of("CONTENT")), whole("identity", {1, 2, 3}),
        whole("identity", {-1, 2}), whole("kind", "ravok-target-resume2"), whole("prefix_sha256", std::string(64, 'A')),
        whole("prefix_sha256", std::string(63, 'a')), whole("received", 8), whole("received", -1),
        whole("schema_version", 2), whole("scope_sha256", std::string(64, 'a')), whole("target", "other"),
        whole("temporary", "other")}) {
    EXPECT_FALSE(is_resume_write_start(text, receipt, std::nullopt)) << text;
  }
  EXPECT_FALSE(is_resume_write_start(whole("identity", {1, 2}), receipt, checkpoint_of(receipt).at("identity")));
}

TEST(ResumeWriteStart, FailsForNumbersThatAreNeverWritten) {
  const Json receipt = archive_receipt();
  const std::string text = checkpoint_of(receipt).dump();
  const std::string start = text.substr(0, text.find("[") + 1);
  EXPECT_TRUE(is_resume_write_start(start + "18446744073709551615,0", receipt, std::nullopt));
  EXPECT_TRUE(is_resume_write_start(start + "0,", receipt, std::nullopt));
  for (const char* rest : {"18446744073709551616", "00", "01,", "-", "+1", " 1", "1.", "1,,", "]", ",", "x"}) {
    EXPECT_FALSE(is_resume_write_start(start + rest, receipt, std::nullopt)) << rest;
  }
}

}  // namespace
}  // namespace ravok::torn_write_test
