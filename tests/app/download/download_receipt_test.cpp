#include "app/download/download_receipt.hpp"

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/download_builder.hpp"
#include "support/failure.hpp"

namespace ravok::download_receipt_test {
namespace {

using testing::archive_receipt;
using testing::descriptor_receipt;
using testing::nonce_of;
using testing::write_ending;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* unknown = "Unknown target download receipt was preserved";
constexpr const char* other_temporary = "Download temporary path differs from its owned nonce";
constexpr const char* bounds = "Download authorization exceeds its known bounds";
constexpr const char* other_hash = "Unknown download hash contract was preserved";
constexpr const char* invented = "Descriptor download must not invent an installed reference";
constexpr const char* no_identity = "Archive download has no known manifest identity";

Json with(Json receipt, const std::string& pointer, const Json& value) {
  receipt[Json::json_pointer(pointer)] = value;
  return receipt;
}

Json with(const std::string& pointer, const Json& value) { return with(archive_receipt(), pointer, value); }

// A receipt of another target, whose partial file has the name that belongs to it.
Json of_target(const std::string& target) {
  return with(with("/target", target), "/temporary", target + "." + nonce_of('1') + ".partial");
}

void expect_refused(const Json& receipt, const char* message) {
  EXPECT_FAILURE(validate_target_download_receipt(receipt), code, message) << receipt.dump();
}

TEST(DownloadReceipt, IsAcceptedAsTheSystemWritesIt) {
  for (const char* phase : {"prepared", "complete"}) {
    for (const Json& receipt : {archive_receipt('1', phase), descriptor_receipt('1', phase)}) {
      EXPECT_NO_THROW(validate_target_download_receipt(parse_json(receipt.dump(), maximum_receipt_bytes)));
      EXPECT_TRUE(receipt.dump().starts_with(R"({"authorization":)"));
    }
  }
}

TEST(DownloadReceipt, IsMadeOfItsEightMembers) {
  const Json receipt = archive_receipt('1', "complete");
  const Json& authorization = receipt.at("authorization");
  const DownloadSubject subject = {.target = text_at(receipt, "target"),
                                   .nonce = nonce_of('1'),
                                   .length = authorization.at("length"),
                                   .hashes = authorization.at("hashes"),
                                   .reference = receipt.at("reference")};
  EXPECT_EQ(make_download_receipt(subject, download_phase::complete), receipt);
  EXPECT_EQ(receipt_in_phase(receipt, download_phase::prepared), archive_receipt());
  EXPECT_TRUE(describe_same_download(receipt, archive_receipt()));
  EXPECT_FALSE(describe_same_download(receipt, archive_receipt('2')));
}

TEST(DownloadReceipt, HasExactlyItsMembers) {
  const Json whole = archive_receipt();
  for (const auto& [key, value] : whole.items()) {
    Json changed = whole;
    EXPECT_EQ(changed.erase(key), 1u);
    expect_refused(changed, unknown);
  }
  expect_refused(with("/ninth", 1), unknown);
  for (const Json& other : {Json(nullptr), Json(1), Json("text"), Json::array(), Json::object(), Json(true)}) {
    expect_refused(other, unknown);
  }
}

TEST(DownloadReceipt, HasValuesOfTheirTypesOnly) {
  const std::vector<Json> others = {nullptr, true, -1, 2, 1.0, "text", Json::array(), Json::object()};
  for (const char* key : {"schema_version", "kind", "nonce", "target", "temporary", "phase"}) {
    for (const Json& other : others) {
      const bool is_text = other.is_string() && (std::string(key) == "target" || std::string(key) == "temporary");
      expect_refused(with(std::string("/") + key, other), is_text ? other_temporary : unknown);
    }
  }
  for (const Json& other : others) {
    expect_refused(with("/authorization", other), bounds);
    expect_refused(with("/reference", other), no_identity);
  }
}

TEST(DownloadReceipt, HasANonceASafeTargetAndAKnownPhase) {
  for (const std::string& nonce :
       {std::string(31, '1'), std::string(33, '1'), std::string(32, 'A'), std::string(31, '1') + "g", std::string()}) {
    expect_refused(with("/nonce", nonce), unknown);
  }
  for (const char* target : {"", "/file", "../file", "folder/../file", "folder//file", "folder/", "a\\b", "c:file",
                             "con", "file.", "file ", "a|b", "a\nb"}) {
    expect_refused(of_target(target), unknown);
  }
  for (const char* phase : {"", "resumed", "Prepared", "complete "}) {
    expect_refused(with("/phase", phase), unknown);
  }
}

TEST(DownloadReceipt, NamesItsOwnPartialFile) {
  const std::string target = "launcher/archive.tar.zst";
  for (const std::string& name :
       {target, target + "." + nonce_of('2') + ".partial", "archive.tar.zst." + nonce_of('1') + ".partial",
        target + "." + nonce_of('1') + ".part", target + nonce_of('1') + ".partial", "../" + target, std::string()}) {
    expect_refused(with("/temporary", name), other_temporary);
  }
}

TEST(DownloadReceipt, KeepsToTheBoundsOfItsAuthorization) {
  EXPECT_NO_THROW(validate_target_download_receipt(with("/authorization/length", 0)));
  EXPECT_NO_THROW(validate_target_download_receipt(with("/authorization/length", 1'073'741'824)));
  expect_refused(with("/authorization/length", 1'073'741'825), bounds);
  EXPECT_NO_THROW(validate_target_download_receipt(with(descriptor_receipt(), "/authorization/length", 524'288)));
  expect_refused(with(descriptor_receipt(), "/authorization/length", 524'289), bounds);
  for (const Json& length : std::vector<Json>{-1, 1.0, "7", nullptr, true, UINT64_MAX}) {
    expect_refused(with("/authorization/length", length), bounds);
  }
  expect_refused(with("/authorization/third", 1), bounds);
  for (const char* key : {"length", "hashes"}) {
    Json changed = archive_receipt();
    changed["authorization"].erase(key);
    expect_refused(changed, bounds);
  }
  for (const Json& hashes : std::vector<Json>{Json::object(), Json::array(), {"sha256"}, "sha256", nullptr}) {
    expect_refused(with("/authorization/hashes", hashes), bounds);
  }
}

TEST(DownloadReceipt, HasKnownHashesInLowerCase) {
  EXPECT_NO_THROW(validate_target_download_receipt(with("/authorization/hashes/sha512", std::string(128, 'f'))));
  EXPECT_NO_THROW(
      validate_target_download_receipt(with("/authorization/hashes", Json{{"sha512", std::string(128, 'f')}})));
  for (const Json& value : std::vector<Json>{std::string(63, 'a'), std::string(65, 'a'), std::string(64, 'A'),
                                             std::string(64, 'g'), std::string(128, 'a'), "", 7, nullptr}) {
    expect_refused(with("/authorization/hashes/sha256", value), other_hash);
  }
  for (const Json& value : std::vector<Json>{std::string(64, 'a'), std::string(128, 'A'), std::string(129, 'a'), 7}) {
    expect_refused(with("/authorization/hashes/sha512", value), other_hash);
  }
  for (const char* algorithm : {"md5", "SHA256", "sha384", ""}) {
    expect_refused(with(std::string("/authorization/hashes/") + algorithm, std::string(64, 'a')), other_hash);
  }
}

TEST(DownloadReceipt, OfTheManifestHasNoReference) {
  for (const Json& reference : std::vector<Json>{testing::archive_reference(), Json::object(), "build-1", false}) {
    expect_refused(with(descriptor_receipt(), "/reference", reference), invented);
  }
}

TEST(DownloadReceipt, OfAnArchiveNamesAVersion) {
  for (const char* key : {"manifest_sha256", "build_id"}) {
    Json changed = archive_receipt();
    changed["reference"].erase(key);
    expect_refused(changed, no_identity);
    for (const Json& value : std::vector<Json>{nullptr, 1, "", "A", Json::object(), std::string(81, 'a')}) {
      expect_refused(with(std::string("/reference/") + key, value), no_identity);
    }
  }
  expect_refused(with("/reference/manifest_sha256", std::string(64, 'A')), no_identity);
  for (const char* build : {"..", "con", "build.", "build_1"}) {
    expect_refused(with("/reference/build_id", build), no_identity);
  }
}

TEST(DownloadReceipt, IsRefusedInTheOrderOfTheChecks) {
  Json changed = with("/reference", nullptr);
  expect_refused(changed, no_identity);
  changed["authorization"]["hashes"]["md5"] = "x";
  expect_refused(changed, other_hash);
  changed["authorization"]["length"] = -1;
  expect_refused(changed, bounds);
  changed["temporary"] = "other";
  expect_refused(changed, other_temporary);
  changed["phase"] = "other";
  expect_refused(changed, unknown);
}

TEST(DownloadReceipt, HasATextOfAtMost16KiB) {
  Json longest = with("/reference/note", "");
  longest["reference"]["note"] = std::string(maximum_receipt_bytes - longest.dump().size(), 'n');
  EXPECT_EQ(longest.dump().size(), maximum_receipt_bytes);
  EXPECT_NO_THROW(validate_target_download_receipt(longest));
  longest["reference"]["note"] = text_at(longest.at("reference"), "note") + "n";
  EXPECT_FAILURE(validate_target_download_receipt(longest), "size_limit",
                 "Download receipt exceeds its bounded format");
}

TEST(DownloadReceipt, ThatCannotBeWrittenIsMalformed) {
  EXPECT_FAILURE(validate_target_download_receipt(of_target("file\xff")), code,
                 "Malformed target download receipt was preserved");
}

TEST(ReceiptFileNames, AreTheReceiptAndTheWritesOfIt) {
  const std::string name = nonce_of('a') + ".json";
  EXPECT_EQ(receipt_file_name(nonce_of('a')), name);
  EXPECT_TRUE(target_download_file_name(name, nonce_of('a')));
  EXPECT_TRUE(target_download_file_name(name + write_ending('0'), nonce_of('a')));
  EXPECT_EQ((name + write_ending('0')).size(), 74u);
  for (const std::string& other :
       {nonce_of('b') + ".json", nonce_of('a'), name + "x", name + ".tmp", name + write_ending('A'),
        name + write_ending('0') + write_ending('0'), "x" + name, std::string()}) {
    EXPECT_FALSE(target_download_file_name(other, nonce_of('a'))) << other;
  }
  for (const std::string& nonce : {std::string(), std::string(31, 'a'), std::string(33, 'a'), std::string(32, 'A')}) {
    EXPECT_FALSE(target_download_file_name(nonce + ".json", nonce)) << nonce;
  }
}

TEST(ResumeFileNames, AreTheCheckpointAndTheWritesOfIt) {
  const std::string partial = "game." + nonce_of('a') + ".partial";
  const std::string name = partial + ".resume.json";
  EXPECT_TRUE(target_download_resume_file_name(name, partial));
  EXPECT_TRUE(target_download_resume_file_name(name + write_ending('0'), partial));
  EXPECT_EQ(write_ending('0').size(), 37u);
  for (const std::string& other : {partial, name + "x", name + ".tmp", name + write_ending('A'), "x" + name,
                                   "game." + nonce_of('b') + ".partial.resume.json", std::string()}) {
    EXPECT_FALSE(target_download_resume_file_name(other, partial)) << other;
  }
}

TEST(ResumeScope, BindsTargetAndReference) {
  EXPECT_EQ(target_download_resume_scope("file", nullptr),
            R"({"kind":"ravok-launcher-download","reference":null,"target":"file"})");
  EXPECT_EQ(target_download_resume_scope("fi\"le", {{"manifest_sha256", "b"}, {"build_id", "a"}}),
            R"({"kind":"ravok-launcher-download","reference":{"build_id":"a","manifest_sha256":"b"},)"
            R"("target":"fi\"le"})");
  EXPECT_FAILURE(target_download_resume_scope("file", {{"build_id", 1.5}}), "invalid_number",
                 "Cannot canonicalize floating point data");
}

}  // namespace
}  // namespace ravok::download_receipt_test
