#include "app/launcher/start_marker.hpp"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::start_marker_test {
namespace {

using testing::TemporaryRoot;

using Names = std::vector<std::string>;

TEST(ConfirmLauncherStart, RemovesTheRecordAlone) {
  const TemporaryRoot root;
  root.write("data/launcher/start-attempt.json", "{}");
  root.write("data/launcher/installation.json", "{}");
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "data/launcher/installation.json"}));
  // There is no record any more.
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "data/launcher/installation.json"}));
}

TEST(ConfirmLauncherStart, FindsTheDataFolderInEveryForm) {
  const TemporaryRoot root;
  std::filesystem::create_directory_symlink("data", root / "link");
  for (const std::filesystem::path& folder : {root / "data/", root / "data/../data", root / "link"}) {
    root.write("data/launcher/start-attempt.json", "{}");
    confirm_launcher_start(folder);
    EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "link@"})) << folder;
  }
}

TEST(ConfirmLauncherStart, RemovesALinkAndNotWhatItLeadsTo) {
  const TemporaryRoot root;
  root.directory("data/launcher");
  root.write("elsewhere", "of somebody");
  std::filesystem::create_symlink("../../elsewhere", root / "data/launcher/start-attempt.json");
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "elsewhere"}));
}

TEST(ConfirmLauncherStart, SaysSoWhenTheRecordCannotBeRemoved) {
  const TemporaryRoot root;
  root.write("data/launcher/start-attempt.json/file", "");
  EXPECT_FAILURE(confirm_launcher_start(root / "data"), "file_remove",
                 "Cannot remove " + (root / "data/launcher/start-attempt.json").native());
  EXPECT_EQ(root.read("data/launcher/start-attempt.json/file"), "");
}

TEST(ConfirmLauncherStart, NeedsAStoreWhoseSetupHasEnded) {
  const TemporaryRoot root;
  root.directory("data");
  EXPECT_EQ(testing::failure_of([&] { confirm_launcher_start(root / "data"); })->code, "unsafe_path");
  EXPECT_EQ(root.names(), (Names{"data/"}));
  root.write("data/.ravok-setup-incomplete", "");
  root.write("data/launcher/start-attempt.json", "{}");
  EXPECT_FAILURE(
      confirm_launcher_start(root / "data"), "native_install_incomplete",
      "Ravok setup did not finish in " + (root / "data").native() + ". Run the Ravok installer again to repair it.");
  EXPECT_EQ(root.read("data/launcher/start-attempt.json"), "{}");
}

// A data folder in which a version has been started at a time, which is not told to this place.
class StartMarker : public ::testing::Test {
 protected:
  void write(const std::string& text) const { root.write("launcher/start-attempt.json", text); }
  Json good_record() const { return {{"manifest_sha256", sha256}, {"started_at", started_at}, {"attempts", 2}}; }

  // The record tells of so many failed starts at this time; none where it tells of no start.
  void expect_starts(std::uint32_t attempts, std::int64_t now) const {
    const testing::TreeState before = testing::tree_state(root.path());
    const FailedStarts starts = failed_launcher_starts(root.path(), now);
    EXPECT_EQ(starts.attempts, attempts);
    EXPECT_EQ(starts.manifest_sha256, attempts == 0 ? "" : sha256);
    EXPECT_EQ(testing::tree_state(root.path()), before);
  }
  void expect_starts(std::uint32_t attempts) const { expect_starts(attempts, later); }

  static constexpr std::int64_t started_at = 1'700'000'000;
  static constexpr std::int64_t later = started_at + 30;
  const std::string sha256 = std::string(64, 'a');
  const TemporaryRoot root;
};

TEST_F(StartMarker, LiesInTheStore) { EXPECT_EQ(start_marker("/data"), "/data/launcher/start-attempt.json"); }

TEST_F(StartMarker, CountsFromThirtySecondsOn) {
  write(good_record().dump());
  for (const std::int64_t age : {0, 1, 28, 29}) {
    expect_starts(0, started_at + age);
  }
  for (const std::int64_t age : {30, 31, 100'000'000}) {
    expect_starts(2, started_at + age);
  }
  expect_starts(2, std::numeric_limits<std::int64_t>::max());
}

TEST_F(StartMarker, OfATimeToComeDoesNotCount) {
  write(good_record().dump());
  for (const std::int64_t now :
       {started_at - 1, started_at - 30, std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
    expect_starts(0, now);
  }
  Json record = good_record();
  record["started_at"] = 0;
  write(record.dump());
  expect_starts(0, -30);
  expect_starts(0, 29);
  expect_starts(2, 30);
}

TEST_F(StartMarker, TellsEveryCountThatFits) {
  for (const std::uint32_t attempts : {0u, 1u, 2u, 3u, 4'294'967'295u}) {
    Json record = good_record();
    record["attempts"] = attempts;
    write(record.dump());
    const FailedStarts starts = failed_launcher_starts(root.path(), later);
    EXPECT_EQ(starts.attempts, attempts);
    EXPECT_EQ(starts.manifest_sha256, sha256);
  }
}

TEST_F(StartMarker, TellsOfNoStartWhereAValueIsNotOfItsType) {
  const std::string text = good_record().dump();
  for (const char* const key : {"attempts", "started_at"}) {
    for (const char* const value : {"-1", "-2", "2.0", "1e1", "2.5", "\"2\"", "null", "true", "[2]", "{}",
                                    "18446744073709551615", "18446744073709551616", "1e400"}) {
      Json record = good_record();
      record[key] = "VALUE";
      std::string changed = record.dump();
      changed.replace(changed.find("\"VALUE\""), 7, value);
      write(changed);
      expect_starts(0);
    }
  }
  Json record = good_record();
  record["attempts"] = 4'294'967'296u;
  write(record.dump());
  expect_starts(0);
  write(text);
  expect_starts(2);
}

TEST_F(StartMarker, TellsOfNoStartWithoutTheIdentityOfAVersion) {
  for (const Json& identity : {Json(), Json(1), Json(""), Json(std::string(63, 'a')), Json(std::string(65, 'a')),
                               Json(std::string(64, 'A')), Json(std::string(64, 'g')), Json::array()}) {
    Json record = good_record();
    record["manifest_sha256"] = identity;
    write(record.dump());
    expect_starts(0);
  }
}

TEST_F(StartMarker, TellsOfNoStartWhereAKeyIsMissing) {
  for (const char* const key : {"attempts", "started_at", "manifest_sha256"}) {
    Json record = good_record();
    record.erase(key);
    write(record.dump());
    expect_starts(0);
  }
}

TEST_F(StartMarker, TellsOfNoStartWhereItIsNoRecord) {
  for (const char* const text :
       {"", " ", "{", "null", "1", "\"text\"", "[]", "{}", "\xff", "{\"attempts\":2,\"attempts\":2}"}) {
    write(text);
    expect_starts(0);
  }
  write(good_record().dump() + "x");
  expect_starts(0);
}

TEST_F(StartMarker, IsReadUpToItsBound) {
  const std::string text = good_record().dump();
  write(text + std::string(4096 - text.size(), ' '));
  expect_starts(2);
  write(text + std::string(4097 - text.size(), ' '));
  expect_starts(0);
}

TEST_F(StartMarker, TellsOfNoStartWhereItIsNoFile) {
  expect_starts(0);
  root.directory("launcher/start-attempt.json");
  expect_starts(0);
  std::filesystem::remove(root / "launcher/start-attempt.json");
  expect_starts(0);
  root.write("elsewhere", good_record().dump());
  std::filesystem::create_symlink("../elsewhere", root / "launcher/start-attempt.json");
  expect_starts(0);
}

TEST_F(StartMarker, IsWrittenAsAPrivateRecord) {
  root.directory("launcher");
  for (const auto& [attempts, now] : {std::pair(1u, started_at), std::pair(4'294'967'295u, later)}) {
    mark_start(root.path(), sha256, attempts, now);
    EXPECT_EQ(Json::parse(root.read("launcher/start-attempt.json")),
              (Json{{"manifest_sha256", sha256}, {"started_at", now}, {"attempts", attempts}}));
    EXPECT_EQ(std::filesystem::status(root / "launcher/start-attempt.json").permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(root.names(), (Names{"launcher/", "launcher/start-attempt.json"}));
    expect_starts(attempts, now + 30);
  }
}

TEST_F(StartMarker, IsNotWrittenThroughALinkOrOverAFolder) {
  root.write("elsewhere", "of somebody");
  root.directory("launcher");
  std::filesystem::create_symlink("../elsewhere", root / "launcher/start-attempt.json");
  EXPECT_FAILURE(mark_start(root.path(), sha256, 1, started_at), "unsafe_path", "Refusing to replace a symbolic link");
  EXPECT_EQ(root.read("elsewhere"), "of somebody");
  std::filesystem::remove(root / "launcher/start-attempt.json");
  root.write("launcher/start-attempt.json/file", "kept");
  EXPECT_FAILURE(mark_start(root.path(), sha256, 1, started_at), "file_write",
                 "Cannot commit transaction file (" + std::to_string(EISDIR) + ")");
  EXPECT_EQ(root.names(),
            (Names{"elsewhere", "launcher/", "launcher/start-attempt.json/", "launcher/start-attempt.json/file"}));
}

}  // namespace
}  // namespace ravok::start_marker_test
