#include "app/download/receipt_group.hpp"

#include <cstddef>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "app/download/download_receipt.hpp"
#include "domain/crypto.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"

namespace ravok::receipt_group_test {
namespace {

using testing::archive_receipt;
using testing::descriptor_receipt;
using testing::failure_of;
using testing::nonce_of;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* invalid = "Invalid frozen download receipt group";
constexpr const char* unknown_write = "Unknown download receipt write was preserved";
constexpr const char* unknown_bytes = "Unrecognized receipt-write bytes were preserved";
constexpr const char* other_torn = "Torn receipt write does not match its known download";
constexpr const char* disagree = "Atomic receipt writes disagree about their owned download";
constexpr const char* overlap = "Download target and partial ownership overlap; preserve them";

const std::string record = nonce_of('1') + ".json";
const std::string nonce = nonce_of('1');

std::string write_of(char digit) { return record + testing::write_ending(digit); }
std::string prepared() { return archive_receipt().dump(); }
std::string complete() { return archive_receipt('1', "complete").dump(); }

Json parse(const EvidenceFiles& files) { return parse_target_download_receipt_group(nonce, files); }

void expect_refused(const EvidenceFiles& files, const char* message) {
  EXPECT_FAILURE(parse(files), code, message) << Json(files).dump(1, ' ', true, Json::error_handler_t::replace);
}

TEST(ReceiptGroup, TellsOfItsReceiptAndItsFiles) {
  const Json group = parse({{record, prepared()}});
  EXPECT_EQ(
      group,
      (Json{{"nonce", nonce},
            {"receipt", archive_receipt()},
            {"receipt_sha256", digest(prepared(), "sha256")},
            {"files", {{{"name", record}, {"length", prepared().size()}, {"sha256", digest(prepared(), "sha256")}}}},
            {"resume_files", Json::array()}}));
}

TEST(ReceiptGroup, SortsItsFilesByName) {
  const Json group = parse({{write_of('b'), ""}, {record, prepared()}, {write_of('a'), prepared()}});
  ASSERT_EQ(group.at("files").size(), 3u);
  EXPECT_EQ(group.at("files").at(0).at("name"), record);
  EXPECT_EQ(group.at("files").at(1).at("name"), write_of('a'));
  EXPECT_EQ(group.at("files").at(2).at("name"), write_of('b'));
  EXPECT_EQ(group.at("files").at(2).at("length"), 0);
  EXPECT_EQ(receipt_file_of(group), record);
  EXPECT_EQ(receipt_in_force_of(group), record);
}

TEST(ReceiptGroup, HasACompleteReceiptInForceWhereverItIs) {
  const Json group = parse({{record, prepared()}, {write_of('a'), complete()}, {write_of('b'), prepared()}});
  EXPECT_EQ(group.at("receipt"), archive_receipt('1', "complete"));
  EXPECT_EQ(group.at("receipt_sha256"), digest(prepared(), "sha256"));
  EXPECT_EQ(receipt_file_of(group), record);
  EXPECT_EQ(receipt_in_force_of(group), write_of('a'));
  EXPECT_EQ(parse({{record, complete()}, {write_of('a'), prepared()}}).at("receipt"), archive_receipt('1', "complete"));
}

TEST(ReceiptGroup, MayHaveItsReceiptInAWriteAlone) {
  const Json group = parse({{write_of('a'), prepared()}, {write_of('b'), prepared().substr(0, 20)}});
  EXPECT_EQ(group.at("receipt"), archive_receipt());
  EXPECT_EQ(group.at("receipt_sha256"), digest(prepared(), "sha256"));
  EXPECT_EQ(receipt_file_of(group), write_of('a'));
}

TEST(ReceiptGroup, HasANonceAndOneTo64Files) {
  for (const std::string& other :
       {std::string(), std::string(31, '1'), std::string(33, '1'), std::string(32, 'A'), std::string(32, 'g')}) {
    EXPECT_FAILURE(parse_target_download_receipt_group(other, {{other + ".json", prepared()}}), code, invalid);
  }
  expect_refused({}, invalid);
  EvidenceFiles files = {{record, prepared()}};
  for (std::size_t i = 1; i < 64; ++i) {
    std::string id(32, '0');
    id[0] = "0123456789abcdef"[i / 16];
    id[1] = "0123456789abcdef"[i % 16];
    files[record + "." + id + ".tmp"] = prepared().substr(0, i);
  }
  EXPECT_EQ(parse(files).at("files").size(), 64u);
  files[write_of('f')] = "not parsed";
  expect_refused(files, invalid);
}

TEST(ReceiptGroup, HasKnownNamesAndBoundedTexts) {
  for (const std::string& name : {nonce_of('2') + ".json", nonce, record + "x", write_of('A'), std::string()}) {
    expect_refused({{record, prepared()}, {name, prepared()}}, unknown_write);
  }
  const std::string padded = prepared() + std::string(maximum_receipt_bytes - prepared().size(), ' ');
  EXPECT_EQ(parse({{record, padded}}).at("receipt"), archive_receipt());
  expect_refused({{record, padded + " "}}, unknown_write);
  expect_refused({{record, prepared()}, {write_of('a'), padded + " "}}, unknown_write);
}

TEST(ReceiptGroup, PassesOtherFailuresOfTheParserOn) {
  const std::string deep = std::string(66, '[') + std::string(66, ']');
  for (const std::string& name : {record, write_of('a')}) {
    const auto with = [&](const std::string& text) {
      EvidenceFiles files = {{record, prepared()}};
      files[name] = text;
      return files;
    };
    EXPECT_FAILURE(parse(with(R"({"authorization":{},"authorization":{}})")), "duplicate_key",
                   "JSON contains a duplicate object key");
    EXPECT_FAILURE(parse(with(R"({"authorization":1.5})")), "invalid_number",
                   "Floating point numbers are not allowed in protocol data");
    EXPECT_FAILURE(parse(with(deep)), "depth_limit", "JSON nesting exceeds 64 levels");
  }
}

TEST(ReceiptGroup, IsValidatedReceiptByReceipt) {
  Json later = archive_receipt();
  later["schema_version"] = 2;
  expect_refused({{record, prepared()}, {write_of('a'), later.dump()}},
                 "Unknown target download receipt was preserved");
  expect_refused({{record, archive_receipt('2').dump()}},
                 "Download receipt filename differs from its ownership identity");
  expect_refused({{record, prepared()}, {write_of('a'), archive_receipt('2').dump()}},
                 "Download receipt filename differs from its ownership identity");
}

TEST(ReceiptGroup, DescribesOneDownload) {
  Json other_length = archive_receipt();
  other_length["authorization"]["length"] = 8;
  Json other_build = archive_receipt('1', "complete");
  other_build["reference"]["build_id"] = "build-2";
  for (const Json& other : {other_length, other_build, descriptor_receipt()}) {
    expect_refused({{record, prepared()}, {write_of('a'), other.dump()}}, disagree);
    expect_refused({{record, complete()}, {write_of('a'), other.dump()}}, disagree);
  }
}

// The property of torn writes: beside the receipt, every prefix of it in either phase is accepted and leaves the
// receipt in force; in the place of the receipt itself, no true prefix is.
TEST(ReceiptGroup, ExplainsEveryTornWriteBesideItsReceipt) {
  for (const std::string& whole : {prepared(), complete()}) {
    for (const std::string& written : {prepared(), complete()}) {
      for (std::size_t length = 0; length < written.size(); ++length) {
        const Json group = parse({{record, whole}, {write_of('a'), written.substr(0, length)}});
        EXPECT_EQ(group.at("receipt").dump(), whole) << length;
        EXPECT_EQ(group.at("files").size(), 2u);
        expect_refused({{record, written.substr(0, length)}}, unknown_bytes);
        expect_refused({{write_of('a'), written.substr(0, length)}}, invalid);
      }
    }
  }
}

TEST(ReceiptGroup, RefusesATornWriteOfAnotherDownload) {
  const std::string other = archive_receipt('2').dump();
  const std::string same_start = prepared().substr(0, 3);
  EXPECT_NO_THROW(parse({{record, prepared()}, {write_of('a'), same_start}}));
  expect_refused({{record, prepared()}, {write_of('a'), other.substr(0, other.size() - 1)}}, other_torn);
  Json other_target = archive_receipt('1', "complete");
  other_target["target"] = "launcher/brchive.tar.zst";
  expect_refused(
      {{record, prepared()}, {write_of('a'), other_target.dump().substr(0, other_target.dump().size() - 40)}},
      other_torn);
  expect_refused({{record, prepared()}, {write_of('a'), R"({"authority)"}}, unknown_bytes);
  expect_refused({{record, prepared()}, {write_of('a'), R"({"authorization":{},"schema_version":2)"}}, unknown_bytes);
  expect_refused({{record, prepared()}, {write_of('a'), R"({"authorization":{},"kind":"other",)"}}, unknown_bytes);
}

TEST(ReceiptGroup, RefusesBytesBehindTheReceipt) {
  for (const std::string& behind : {std::string(1, '\0'), std::string("\0x", 2), std::string("{}"), std::string("x")}) {
    expect_refused({{record, prepared() + behind}}, unknown_bytes);
    expect_refused({{record, prepared()}, {write_of('a'), prepared() + behind}}, other_torn);
  }
}

// The property of changed bytes: with any one byte of a file changed, the group is refused, or its receipt is a valid
// one for its nonce that differs from the former one.
TEST(ReceiptGroup, IsNeverTakenForTheSameWithOneByteChanged) {
  const std::string text = prepared();
  std::size_t refused = 0;
  for (std::size_t place = 0; place < text.size(); ++place) {
    for (const char byte : {'\0', '0', 'f', 'z', '"', '}', ' ', '\x80'}) {
      std::string changed = text;
      changed[place] = byte;
      if (changed == text) {
        continue;
      }
      std::optional<Json> group;
      const auto failure = failure_of([&] { group = parse({{record, changed}}); });
      EXPECT_EQ(failure.has_value(), !group.has_value());
      if (failure) {
        ++refused;
        EXPECT_TRUE(failure->code == code || failure->code == "invalid_number") << failure->what() << changed;
        continue;
      }
      EXPECT_NE(group->at("receipt"), archive_receipt()) << changed;
      EXPECT_EQ(group->at("receipt").dump(), changed);
    }
  }
  EXPECT_GT(refused, text.size() * 4);
}

Json groups_of(const std::vector<Json>& receipts) {
  Json groups = Json::array();
  for (const Json& receipt : receipts) {
    groups.push_back({{"receipt", receipt}});
  }
  return groups;
}

TEST(SeparateDownloads, ShareNoTargetAndNoPartial) {
  EXPECT_NO_THROW(require_separate_downloads(Json::array()));
  EXPECT_NO_THROW(require_separate_downloads(groups_of({archive_receipt('1'), descriptor_receipt('2')})));
  EXPECT_FAILURE(require_separate_downloads(groups_of({archive_receipt('1'), archive_receipt('2')})), code, overlap);
  EXPECT_FAILURE(require_separate_downloads(groups_of({archive_receipt('1', "complete"), archive_receipt('2')})), code,
                 overlap);
  const Json first = archive_receipt('1');
  Json second = archive_receipt('2');
  second["target"] = first.at("temporary");
  second["temporary"] = text_at(second, "target") + "." + nonce_of('2') + ".partial";
  EXPECT_NO_THROW(validate_target_download_receipt(second));
  EXPECT_FAILURE(require_separate_downloads(groups_of({first, second})), code, overlap);
  EXPECT_FAILURE(require_separate_downloads(groups_of({second, first})), code, overlap);
}

}  // namespace
}  // namespace ravok::receipt_group_test
