#include "tuf/resume_state.hpp"

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"

namespace ravok::resume_state_test {
namespace {

using testing::archive_receipt;
using testing::checkpoint_of;
using testing::nonce_of;

constexpr const char* code = "download_resume_state";
constexpr const char* unknown = "Unknown partial-download state was preserved; clear the disposable cache to retry";
constexpr const char* bounds = "Invalid partial-download bounds";
constexpr const char* other_nonce = "Partial-download nonce differs from its path";

Json state() { return checkpoint_of(archive_receipt()); }
std::string partial() { return text_at(state(), "temporary"); }

Json with(const std::string& pointer, const Json& value) {
  Json changed = state();
  changed[Json::json_pointer(pointer)] = value;
  return changed;
}

void expect_refused(const Json& changed, const char* message) {
  EXPECT_FAILURE(resume_shape(changed, partial()), code, message) << changed.dump();
  EXPECT_FAILURE(validate_target_resume_state(changed, partial()), code, message) << changed.dump();
}

TEST(ResumeState, IsAcceptedAsTheSystemWritesIt) {
  const std::string text = state().dump();
  EXPECT_NO_THROW(resume_shape(parse_json(text, maximum_resume_state_bytes), partial()));
  EXPECT_NO_THROW(validate_target_resume_state(parse_json(text, maximum_resume_state_bytes), partial()));
  EXPECT_TRUE(text.starts_with(R"({"authorization":)"));
}

TEST(ResumeState, IsMadeOfItsNineMembers) {
  const Json receipt = archive_receipt();
  const ResumeSubject subject = {.target = text_at(receipt, "target"),
                                 .temporary = text_at(receipt, "temporary"),
                                 .authorization = receipt.at("authorization"),
                                 .scope_sha256 = digest(testing::scope_of(receipt), "sha256"),
                                 .device = 64769,
                                 .inode = 1234567};
  EXPECT_EQ(make_resume_state(subject, 3, digest("con", "sha256")), state());
  EXPECT_EQ(resume_state_text(state()), state().dump());
}

TEST(ResumeState, HasExactlyItsMembers) {
  const Json whole = state();
  for (const auto& [key, value] : whole.items()) {
    Json changed = whole;
    EXPECT_EQ(changed.erase(key), 1u);
    expect_refused(changed, unknown);
  }
  expect_refused(with("/tenth", 1), unknown);
  for (const Json& other : {Json(nullptr), Json(1), Json("text"), Json::array(), Json::object(), Json(true)}) {
    expect_refused(other, unknown);
  }
}

TEST(ResumeState, HasValuesOfTheirTypesOnly) {
  const std::vector<Json> others = {nullptr, true, -1, 1.0, "text", Json::array(), Json::object()};
  const Json whole = state();
  for (const auto& [key, value] : whole.items()) {
    for (const Json& other : others) {
      if (other == Json::object() && key == "authorization") {
        expect_refused(with("/" + key, other), bounds);
      } else if (other == "text" && key == "temporary") {
        expect_refused(with("/" + key, other), other_nonce);
      } else if (other == "text" && key == "target") {
        EXPECT_NO_THROW(resume_shape(with("/" + key, other), partial()));
      } else {
        expect_refused(with("/" + key, other), unknown);
      }
    }
  }
  for (const Json& other : std::vector<Json>{2, 0, 1.0, "1"}) {
    expect_refused(with("/schema_version", other), unknown);
  }
  expect_refused(with("/kind", "ravok-launcher-download"), unknown);
}

TEST(ResumeState, KeepsToTheFormOfDigestsIdentityAndTarget) {
  for (const char* key : {"/scope_sha256", "/prefix_sha256"}) {
    for (const std::string& text :
         {std::string(63, 'a'), std::string(65, 'a'), std::string(64, 'A'), std::string(63, 'a') + "g"}) {
      expect_refused(with(key, text), unknown);
    }
  }
  for (const Json& identity : std::vector<Json>{{1}, {1, 2, 3}, {1, -2}, {-1, 2}, {1, "2"}, {1, 2.0}, {nullptr, 1}}) {
    expect_refused(with("/identity", identity), unknown);
  }
  for (const char* target : {"", "/file", "../file", "folder/../file", "folder//file", "folder/", "a\\b", "c:file"}) {
    expect_refused(with("/target", target), unknown);
  }
  EXPECT_NO_THROW(resume_shape(with("/identity", {0, UINT64_MAX}), partial()));
}

TEST(ResumeState, KeepsToTheBoundsOfItsAuthorization) {
  expect_refused(with("/authorization/third", 1), bounds);
  for (const char* key : {"length", "hashes"}) {
    Json changed = state();
    changed["authorization"].erase(key);
    expect_refused(changed, bounds);
  }
  for (const Json& length : std::vector<Json>{-1, 1.0, "7", nullptr, 2}) {
    expect_refused(with("/authorization/length", length), bounds);
  }
  for (const Json& hashes : std::vector<Json>{Json::object(), Json::array(), {"sha256"}, "sha256", nullptr}) {
    expect_refused(with("/authorization/hashes", hashes), bounds);
  }
  expect_refused(with("/received", 8), bounds);
  EXPECT_NO_THROW(resume_shape(with("/received", 7), partial()));
  EXPECT_NO_THROW(resume_shape(with("/received", 0), partial()));
}

TEST(ResumeState, BelongsToTheOnePartialFileThatItNames) {
  const std::string target = "launcher/archive.tar.zst";
  for (const std::string& name : {partial_name(target, nonce_of('2')), partial_name("launcher/other", nonce_of('1')),
                                  target, target + ".partial", std::string()}) {
    EXPECT_FAILURE(resume_shape(state(), name), code, other_nonce) << name;
  }
  for (const std::string& nonce : {std::string(31, '1'), std::string(33, '1'), std::string(32, 'A'), std::string()}) {
    const std::string name = partial_name(target, nonce);
    EXPECT_FAILURE(resume_shape(with("/temporary", name), name), code, other_nonce) << name;
  }
  EXPECT_NO_THROW(resume_shape(state(), partial_name("archive.tar.zst", nonce_of('1'))));
  EXPECT_FAILURE(resume_shape(state(), partial_name("other/archive.tar.zst", nonce_of('1'))), code, other_nonce);
}

TEST(ResumeState, IsRefusedInTheOrderOfTheChecks) {
  Json changed = with("/received", 8);
  changed["temporary"] = "other";
  expect_refused(changed, bounds);
  changed["kind"] = "other";
  expect_refused(changed, unknown);
}

TEST(ResumeStateText, IsBounded) {
  Json long_state = with("/target", "");
  long_state["target"] = std::string(maximum_resume_state_bytes - long_state.dump().size(), 't');
  EXPECT_EQ(resume_state_text(long_state).size(), maximum_resume_state_bytes);
  long_state["target"] = text_at(long_state, "target") + "t";
  EXPECT_FAILURE(resume_state_text(long_state), "size_limit", "Partial-download state exceeds its bound");
}

TEST(PartialNames, AreMadeOfTargetAndNonce) {
  EXPECT_EQ(partial_name("folder/game", nonce_of('a')), "folder/game." + nonce_of('a') + ".partial");
  EXPECT_EQ(resume_state_name("game.partial"), "game.partial.resume.json");
  EXPECT_EQ(partial_nonce("folder/game." + nonce_of('a') + ".partial", "folder/game"), nonce_of('a'));
  for (const std::string& name :
       {"game." + nonce_of('A') + ".partial", "game." + nonce_of('a'), "game" + nonce_of('a') + ".partial",
        "game-" + nonce_of('a') + ".partial", "game.." + nonce_of('a') + ".partial",
        "other." + nonce_of('a') + ".partial", "game." + nonce_of('a') + "a.partial",
        "game." + nonce_of('a') + ".partiaL", std::string("game"), std::string()}) {
    EXPECT_EQ(partial_nonce(name, "game"), "") << name;
  }
}

TEST(RecordFiles, AreTheRecordAndTheWritesOfIt) {
  const std::string write = "record.json" + testing::write_ending('a');
  EXPECT_TRUE(is_record_file("record.json", "record.json"));
  EXPECT_TRUE(is_record_file(write, "record.json"));
  for (const std::string& name :
       {std::string(), std::string("record.jso"), std::string("record.jsonx"), write + "x", write + ".tmp",
        "record.json" + testing::write_ending('A'), "record.json" + testing::write_ending('g'),
        write.substr(0, write.size() - 1), write.substr(0, write.size() - 1) + "x", "x" + write,
        "record.json" + std::string(32, 'a') + ".tmp"}) {
    EXPECT_FALSE(is_record_file(name, "record.json")) << name;
  }
}

}  // namespace
}  // namespace ravok::resume_state_test
