#include "app/download/resume_evidence.hpp"

#include <cstddef>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "tuf/resume_state.hpp"

namespace ravok::resume_evidence_test {
namespace {

using testing::archive_receipt;
using testing::checkpoint_of;
using testing::failure_of;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* unknown_name = "Unknown resume metadata name or bound was preserved";
constexpr const char* unknown_bytes = "Unknown resume-write bytes were preserved";
constexpr const char* other_contract = "Torn resume write shows a different or future contract";
constexpr const char* unknown_metadata = "Unknown resume metadata was preserved";
constexpr const char* unowned = "Unowned resume evidence was preserved";
constexpr const char* differs = "Resume metadata differs from its owning receipt";
constexpr const char* disagree = "Resume checkpoints disagree about native file ownership";

const std::string record = text_at(archive_receipt(), "temporary") + ".resume.json";

std::string write_of(char digit) { return record + testing::write_ending(digit); }
std::string checkpoint(std::uint64_t received = 3) { return checkpoint_of(archive_receipt(), received).dump(); }

Json parse(const EvidenceFiles& files) { return parse_target_download_resume_files(archive_receipt(), files); }

void expect_refused(const EvidenceFiles& files, const char* message) {
  EXPECT_FAILURE(parse(files), code, message) << Json(files).dump(1, ' ', true, Json::error_handler_t::replace);
}

std::string with(const std::string& pointer, const Json& value) {
  Json state = checkpoint_of(archive_receipt());
  state[Json::json_pointer(pointer)] = value;
  return state.dump();
}

TEST(ResumeEvidence, TellsOfEachFile) {
  EXPECT_EQ(parse({}), Json::array());
  EXPECT_EQ(parse({{record, checkpoint()}}), (Json::array({{{"name", record},
                                                            {"length", checkpoint().size()},
                                                            {"sha256", digest(checkpoint(), "sha256")},
                                                            {"kind", "metadata"}}})));
  const Json entries = parse({{write_of('a'), checkpoint(7)}, {record, checkpoint(0)}, {write_of('0'), "{"}});
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries.at(0).at("name"), record);
  EXPECT_EQ(entries.at(1).at("name"), write_of('0'));
  EXPECT_EQ(entries.at(2).at("name"), write_of('a'));
}

TEST(ResumeEvidence, BelongsToAReceiptInEitherPhase) {
  for (const Json& receipt : {archive_receipt('1', "complete"), testing::descriptor_receipt()}) {
    const std::string name = text_at(receipt, "temporary") + ".resume.json";
    EXPECT_EQ(parse_target_download_resume_files(receipt, {{name, checkpoint_of(receipt).dump()}}).size(), 1u);
  }
  EXPECT_FAILURE(parse_target_download_resume_files(Json::object(), {}), code,
                 "Unknown target download receipt was preserved");
}

TEST(ResumeEvidence, IsAtMost64Files) {
  EvidenceFiles files;
  for (std::size_t i = 0; i < 64; ++i) {
    std::string id(32, '0');
    id[0] = "0123456789abcdef"[i / 16];
    id[1] = "0123456789abcdef"[i % 16];
    files[record + "." + id + ".tmp"] = checkpoint(i % 8);
  }
  EXPECT_EQ(parse(files).size(), 64u);
  files["unknown name"] = "not parsed";
  EXPECT_FAILURE(parse(files), "size_limit", "Frozen resume evidence exceeds its bound");
}

TEST(ResumeEvidence, HasKnownNamesAndBoundedTexts) {
  for (const std::string& name :
       {text_at(archive_receipt(), "temporary"), text_at(archive_receipt('2'), "temporary") + ".resume.json",
        record + "x", write_of('A'), record.substr(record.rfind('/') + 1), std::string()}) {
    expect_refused({{name, checkpoint()}}, unknown_name);
  }
  const std::string padded = checkpoint() + std::string(maximum_resume_state_bytes - checkpoint().size(), ' ');
  EXPECT_EQ(parse({{record, padded}}).size(), 1u);
  expect_refused({{record, padded + " "}}, unknown_name);
}

TEST(ResumeEvidence, PassesOtherFailuresOfTheParserOn) {
  EXPECT_FAILURE(parse({{record, R"({"kind":1,"kind":1})"}}), "duplicate_key", "JSON contains a duplicate object key");
  EXPECT_FAILURE(parse({{write_of('a'), "1.5"}}), "invalid_number",
                 "Floating point numbers are not allowed in protocol data");
  EXPECT_FAILURE(parse({{record, std::string(66, '[') + std::string(66, ']')}}), "depth_limit",
                 "JSON nesting exceeds 64 levels");
}

TEST(ResumeEvidence, OfAnUnknownFormIsPreserved) {
  for (const std::string& text :
       {std::string("null"), std::string("[]"), std::string("{}"), std::string("1"), with("/schema_version", 2),
        with("/kind", "ravok-launcher-download"), with("/tenth", 1), with("/received", 8), with("/received", -1),
        with("/identity", {1}), with("/prefix_sha256", "x"), with("/temporary", "other"), with("/temporary", 1)}) {
    expect_refused({{record, text}}, unknown_metadata);
    expect_refused({{write_of('a'), text}}, unknown_metadata);
  }
}

TEST(ResumeEvidence, OfAnotherPartialFileIsNotOwned) {
  expect_refused({{record, checkpoint_of(archive_receipt('2')).dump()}}, unowned);
  expect_refused({{record, checkpoint_of(testing::descriptor_receipt()).dump()}}, unowned);
}

TEST(ResumeEvidence, DescribesTheDownloadOfItsReceipt) {
  for (const std::string& text :
       {with("/target", "launcher/other"), with("/authorization/length", 8),
        with("/authorization/hashes/sha256", std::string(64, 'b')), with("/scope_sha256", std::string(64, 'b'))}) {
    expect_refused({{record, text}}, differs);
  }
  Json other_reference = archive_receipt();
  other_reference["reference"]["build_id"] = "build-2";
  expect_refused({{record, checkpoint_of(other_reference).dump()}}, differs);
}

TEST(ResumeEvidence, IsOfOneFileOnDisk) {
  EXPECT_EQ(parse({{record, checkpoint(0)}, {write_of('a'), checkpoint(7)}}).size(), 2u);
  expect_refused({{record, checkpoint()}, {write_of('a'), with("/identity", {1, 2})}}, disagree);
  expect_refused({{record, checkpoint()}, {write_of('a'), with("/identity", {1234567, 64769})}}, disagree);
}

// The property of torn writes: each prefix of a checkpoint is accepted in a write, alone or beside the checkpoint, and
// in no case under the name of the checkpoint itself.
TEST(ResumeEvidence, ExplainsEveryTornWrite) {
  for (const std::uint64_t received : {std::uint64_t{0}, std::uint64_t{7}}) {
    const std::string written = checkpoint(received);
    for (std::size_t length = 0; length < written.size(); ++length) {
      const std::string torn = written.substr(0, length);
      EXPECT_EQ(parse({{write_of('a'), torn}}).size(), 1u) << torn;
      EXPECT_EQ(parse({{record, checkpoint()}, {write_of('a'), torn}}).size(), 2u) << torn;
      expect_refused({{record, torn}}, unknown_bytes);
    }
  }
}

TEST(ResumeEvidence, RefusesATornWriteOfAnotherContract) {
  const auto torn = [](const std::string& text) { return text.substr(0, text.size() - 1); };
  for (const std::string& text :
       {with("/schema_version", 2), with("/kind", "other"), with("/target", "other"), with("/received", 8),
        with("/authorization/length", 8), with("/scope_sha256", std::string(64, 'b'))}) {
    expect_refused({{write_of('a'), torn(text)}}, other_contract);
  }
  EXPECT_EQ(parse({{write_of('a'), torn(with("/identity", {1, 2}))}}).size(), 1u);
  expect_refused({{record, checkpoint()}, {write_of('a'), torn(with("/identity", {1, 2}))}}, other_contract);
  for (const char* text : {R"({"authority)", " {", "[", "x"}) {
    expect_refused({{write_of('a'), text}}, unknown_bytes);
  }
  for (const std::string& behind : {std::string(1, '\0'), std::string("\0x", 2), std::string("{}")}) {
    expect_refused({{record, checkpoint() + behind}}, unknown_bytes);
    expect_refused({{write_of('a'), checkpoint() + behind}}, other_contract);
  }
}

// The property of changed bytes: with any one byte changed, a checkpoint is refused, or only its identity, its count or
// its digest has become another one.
TEST(ResumeEvidence, KeepsItsMeaningWithOneByteChanged) {
  const std::string text = checkpoint();
  std::size_t refused = 0;
  for (std::size_t place = 0; place < text.size(); ++place) {
    for (const char byte : {'\0', '0', 'f', 'z', '"', '}', ' ', '\x80'}) {
      std::string changed = text;
      changed[place] = byte;
      if (changed == text) {
        continue;
      }
      const auto failure = failure_of([&] { parse({{record, changed}}); });
      if (failure) {
        ++refused;
        EXPECT_TRUE(failure->code == code || failure->code == "invalid_number") << failure->what() << changed;
        continue;
      }
      Json state = Json::parse(changed);
      for (const char* key : {"identity", "received", "prefix_sha256"}) {
        state[key] = checkpoint_of(archive_receipt()).at(key);
      }
      EXPECT_EQ(state, checkpoint_of(archive_receipt())) << changed;
    }
  }
  EXPECT_GT(refused, text.size() * 4);
}

}  // namespace
}  // namespace ravok::resume_evidence_test
