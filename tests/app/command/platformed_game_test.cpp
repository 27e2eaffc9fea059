#include "app/command/platformed_game.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::platformed_game_test {
namespace {

using testing::TemporaryRoot;

constexpr const char* config = "platformed_config";
constexpr const char* not_version_1 = "ravok-platform.json is not a version 1 platform file";
constexpr const char* not_plain_origin = "ravok-platform.json needs \"crash_service\" as a plain https:// origin";
constexpr const char* bad_identifier = "Game and build IDs use lower-case letters, digits, dots and hyphens";
constexpr const char* unsafe_component = "Path contains an unsafe component";
constexpr const char* through_link = "Managed path contains a symbolic link";

Json platform_document() {
  return {{"schema_version", 1}, {"game_id", "some-game"},   {"name", "Some Game"},
          {"build", "build-1"},  {"executable", "bin/game"}, {"crash_service", "https://a.example"}};
}

Json with(const char* key, const Json& value) {
  Json document = platform_document();
  document[key] = value;
  return document;
}

PlatformedGame parse(const Json& document) { return parse_platformed_game(document, "/nowhere/store"); }

void refuses(const Json& document, const std::string& message, const char* code = config) {
  EXPECT_FAILURE(parse(document), code, message) << document.dump().substr(0, 500);
}

std::string needs(const std::string& key) { return "ravok-platform.json needs a \"" + key + "\" text"; }
std::string unusable(const std::string& key) { return "ravok-platform.json has an unusable \"" + key + "\""; }

TEST(PlatformedGame, KeepsEveryField) {
  Json document = platform_document();
  document["channel"] = "beta";
  document["ca_bundle"] = "certificates/ca.pem";
  const PlatformedGame game = parse(document);
  EXPECT_EQ(game.game_id, "some-game");
  EXPECT_EQ(game.name, "Some Game");
  EXPECT_EQ(game.build, "build-1");
  EXPECT_EQ(game.channel, "beta");
  EXPECT_EQ(game.directory, "/nowhere/store");
  EXPECT_EQ(game.executable, "/nowhere/store/bin/game");
  EXPECT_EQ(game.crash_service, "https://a.example");
  EXPECT_EQ(game.ca_bundle, "/nowhere/store/certificates/ca.pem");
}

TEST(PlatformedGame, NeedsNeitherChannelNorCertificates) {
  const PlatformedGame game = parse(platform_document());
  EXPECT_EQ(game.channel, std::nullopt);
  EXPECT_EQ(game.ca_bundle, std::nullopt);
}

TEST(PlatformedGame, IsOfVersion1) {
  for (const Json& value : {Json(0), Json(2), Json(-1), Json(1.0), Json("1"), Json(true), Json()}) {
    refuses(with("schema_version", value), not_version_1);
  }
  for (const Json& document : {Json(), Json(1), Json("a"), Json::array(), Json::object()}) {
    refuses(document, not_version_1);
  }
}

TEST(PlatformedGame, HasNoOtherField) {
  refuses(with("extra", "x"), "ravok-platform.json has an unknown field: extra");
  refuses(with("extra", ""), "ravok-platform.json has an unknown field: extra");
  refuses(with("", Json()), "ravok-platform.json has an unknown field: ");
  refuses(with("Name", "a"), "ravok-platform.json has an unknown field: Name");
}

TEST(PlatformedGame, HasTexts) {
  for (const char* const key : {"game_id", "name", "build", "executable", "crash_service"}) {
    Json document = platform_document();
    document.erase(key);
    refuses(document, needs(key));
  }
  for (const char* const key : {"game_id", "name", "build", "channel", "executable", "crash_service", "ca_bundle"}) {
    for (const Json& value : {Json(), Json(1), Json(true), Json::array({"a"}), Json::object()}) {
      refuses(with(key, value), needs(key));
    }
  }
}

TEST(PlatformedGame, BoundsItsTexts) {
  const std::vector<std::pair<const char*, std::size_t>> bounds = {
      {"game_id", 128},     {"name", 200},           {"build", 128},     {"channel", 128},
      {"executable", 4096}, {"crash_service", 2048}, {"ca_bundle", 4096}};
  for (const auto& [key, bound] : bounds) {
    refuses(with(key, ""), unusable(key));
    refuses(with(key, std::string(bound + 1, 'a')), unusable(key));
    refuses(with(key, std::string("a\0b", 3)), unusable(key));
  }
  EXPECT_EQ(parse(with("name", std::string(200, 'n'))).name.size(), 200u);
  EXPECT_EQ(parse(with("crash_service", "https://" + std::string(2040, 'a'))).crash_service.size(), 2048u);
  std::string path;
  for (int i = 0; i < 16; ++i) {
    path += std::string(255, 'a') + "/";
  }
  path.back() = 'a';
  path.erase(path.size() - 2);
  EXPECT_EQ(parse(with("executable", path)).executable, std::filesystem::path("/nowhere/store") / path);
}

TEST(PlatformedGame, HasIdentifiers) {
  for (const char* const key : {"game_id", "build", "channel"}) {
    for (const std::string& value :
         {std::string("Game"), std::string("a/b"), std::string(81, 'a'), std::string(128, 'a'), std::string("..")}) {
      refuses(with(key, value), bad_identifier, "invalid_identity");
    }
    refuses(with(key, "con"), "Path uses a reserved platform name", "unsafe_path");
    EXPECT_NO_THROW(parse(with(key, std::string(80, 'a'))));
  }
}

TEST(PlatformedGame, KeepsItsPathsInItsDirectory) {
  for (const char* const key : {"executable", "ca_bundle"}) {
    for (const char* const path : {"../x", "a/../x", "./a", "a//b", "C:x"}) {
      refuses(with(key, path), unsafe_component, "unsafe_path");
    }
    refuses(with(key, "/bin/sh"), "Path must be a safe relative path", "unsafe_path");
    refuses(with(key, "a\\b"), "Path must be a safe relative path", "unsafe_path");
    refuses(with(key, "a?"), "Path is not portable across supported platforms", "unsafe_path");
    refuses(with(key, "bin/nul.exe"), "Path uses a reserved platform name", "unsafe_path");
  }
}

TEST(PlatformedGame, FollowsNoLinkToItsFiles) {
  const TemporaryRoot root;
  root.write("bin/game", "x");
  std::filesystem::create_directory_symlink("bin", root / "linked");
  std::filesystem::create_symlink("game", root / "bin/link");
  for (const char* const key : {"executable", "ca_bundle"}) {
    for (const char* const path : {"linked/game", "bin/link"}) {
      EXPECT_FAILURE(parse_platformed_game(with(key, path), root.path()), "unsafe_path", through_link);
    }
  }
  EXPECT_EQ(parse_platformed_game(platform_document(), root.path()).executable, root / "bin/game");
}

TEST(PlatformedGame, SendsReportsToAPlainOrigin) {
  for (const char* const address : {"https://a.example", "https://a", "https://a.example:8443", "https://[::1]:1"}) {
    EXPECT_EQ(parse(with("crash_service", address)).crash_service, address);
  }
  for (const char* const address : {"https://a.example/", "https://", "http://a.example", "HTTPS://a.example",
                                    "https:/a", "a.example", "https://a/b", "https://a?b", "https://a#b", "https://u@a",
                                    "https://a b", "https://a\t", "https://a\\b", " https://a", "https:///"}) {
    refuses(with("crash_service", address), not_plain_origin);
  }
}

// A document that breaks every rule is refused by the first; each rule that is then kept shows the next.
TEST(PlatformedGame, IsCheckedInAFixedOrder) {
  Json document = {{"schema_version", 2}, {"extra", 1}};
  refuses(document, not_version_1);
  document["schema_version"] = 1;
  refuses(document, "ravok-platform.json has an unknown field: extra");
  document.erase("extra");
  for (const char* const key : {"channel", "ca_bundle"}) {
    document[key] = 1;
  }
  for (const char* const key : {"game_id", "name", "build", "channel", "executable", "crash_service", "ca_bundle"}) {
    refuses(document, needs(key));
    document[key] = std::string(key) == "crash_service" ? "https://a" : "a";
  }
  EXPECT_NO_THROW(parse(document));
}

TEST(PlatformedGame, HasADataFolderOfItsOwn) {
  const testing::WithEnvironment home("HOME", "/nowhere/home");
  EXPECT_EQ(platformed_data_root(parse(platform_document())), "/nowhere/home/.local/share/Ravok/platformed/some-game");
}

TEST(PlatformedGame, HasNoDataFolderWithoutAHome) {
  const testing::WithEnvironment home("HOME", std::nullopt);
  EXPECT_FAILURE(platformed_data_root(parse(platform_document())), "user_path",
                 "HOME must identify an absolute user directory");
}

// A program in a folder of its own, beside whatever a test puts there.
class ProgramInFolder : public ::testing::Test {
 protected:
  ProgramInFolder() { std::filesystem::copy_file(RAVOK_GAME_COMPANION, program()); }

  std::filesystem::path program() const { return root / "program"; }
  void describe(const Json& document) const { root.write("ravok-platform.json", document.dump()); }

  // What the program says, without the end of its line.
  std::string answer(const std::vector<std::string>& words) const {
    std::string output = testing::run_program({program().native(), words, {}, {}}).output;
    EXPECT_TRUE(output.ends_with('\n'));
    output.pop_back();
    return output;
  }

  std::string place() const { return std::filesystem::canonical(root.path()).native(); }

  const TemporaryRoot root;
};

using PlatformedProgram = ProgramInFolder;

TEST_F(PlatformedProgram, ServesNoGameWithoutItsFile) {
  EXPECT_EQ(answer({"platformed"}), "no game");
  EXPECT_EQ(answer({"serves", "some-game"}), "no");
}

TEST_F(PlatformedProgram, ServesTheGameOfTheFileBesideIt) {
  describe(platform_document());
  EXPECT_EQ(answer({"platformed"}), "some-game in " + place() + " as " + place() + "/bin/game");
  EXPECT_EQ(answer({"serves", "some-game"}), "yes");
  EXPECT_EQ(answer({"serves", "other"}), "no");
  EXPECT_EQ(answer({"serves", "Some-Game"}), "no");
}

TEST_F(PlatformedProgram, FindsItsGameOnce) {
  describe(platform_document());
  EXPECT_EQ(answer({"threads"}), "one game");
}

TEST_F(PlatformedProgram, FindsItsGameThroughALinkToItself) {
  describe(platform_document());
  const TemporaryRoot elsewhere;
  std::filesystem::create_symlink(program(), elsewhere / "link");
  EXPECT_EQ(testing::run_program({(elsewhere / "link").native(), {"serves", "some-game"}, {}, {}}).output, "yes\n");
}

TEST_F(PlatformedProgram, FindsItsGameAlsoWhereItWasReplacedSinceItsStart) {
  describe(platform_document());
  EXPECT_EQ(answer({"replaced", program().native()}), "some-game in " + place() + " as " + place() + "/bin/game");
}

TEST_F(PlatformedProgram, TakesOnlyAPlainFile) {
  const std::filesystem::path file = root / "ravok-platform.json";
  root.write("real.json", platform_document().dump());
  std::filesystem::create_symlink("real.json", file);
  EXPECT_EQ(answer({"platformed"}), "no game");
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_EQ(answer({"platformed"}), "no game");
}

TEST_F(PlatformedProgram, RefusesAWrongFile) {
  describe(with("extra", ""));
  EXPECT_EQ(answer({"platformed"}), "platformed_config: ravok-platform.json has an unknown field: extra");
  EXPECT_EQ(answer({"serves", "other"}), "platformed_config: ravok-platform.json has an unknown field: extra");
  root.write("ravok-platform.json", "{\"schema_version\":1,\"schema_version\":1}");
  EXPECT_EQ(answer({"platformed"}), "duplicate_key: JSON contains a duplicate object key");
  root.write("ravok-platform.json", "");
  EXPECT_TRUE(answer({"platformed"}).starts_with("invalid_json: "));
}

TEST_F(PlatformedProgram, BoundsItsFile) {
  const std::string text = platform_document().dump();
  root.write("ravok-platform.json", text + std::string(16384 - text.size(), ' '));
  EXPECT_EQ(answer({"serves", "some-game"}), "yes");
  root.write("ravok-platform.json", text + std::string(16385 - text.size(), ' '));
  EXPECT_EQ(answer({"platformed"}), "size_limit: File exceeds read limit");
}

TEST_F(PlatformedProgram, LocatesItsGameWithoutARecord) {
  describe(platform_document());
  root.write("bin/game", "anything");
  EXPECT_EQ(answer({"locate", "/nowhere", "some-game"}), place() + "/bin/game in " + place());
}

TEST_F(PlatformedProgram, MissesAProgramThatIsNoPlainFile) {
  describe(platform_document());
  EXPECT_EQ(answer({"locate", "/nowhere", "some-game"}), "missing_file: The game's program is missing");
  root.directory("bin/game");
  EXPECT_EQ(answer({"locate", "/nowhere", "some-game"}), "missing_file: The game's program is missing");
  std::filesystem::remove(root / "bin/game");
  std::filesystem::create_symlink("/bin/sh", root / "bin/game");
  EXPECT_EQ(answer({"locate", "/nowhere", "some-game"}), std::string("unsafe_path: ") + through_link);
}

TEST_F(PlatformedProgram, LooksForAnotherGameAmongTheInstalled) {
  describe(platform_document());
  EXPECT_EQ(answer({"locate", place(), "other"}),
            "file_read: Cannot open file: " + place() + "/games/other/record.json");
  root.write("games/other/record.json", R"({"installed":false,"game_id":"other"})");
  EXPECT_EQ(answer({"locate", place(), "other"}), "not_installed: The game is not installed");
}

TEST_F(PlatformedProgram, StartsItsGame) {
  describe(platform_document());
  std::filesystem::permissions(root.write("bin/game", "#!/bin/sh\npwd\necho $#\n"), std::filesystem::perms::owner_all);
  const testing::ProgramResult beside =
      testing::run_program({program().native(), {"accompany", "/nowhere", "some-game"}, {}, {}});
  EXPECT_EQ(beside.exit_code, 0);
  EXPECT_EQ(beside.output, "this process goes on\n");
  EXPECT_EQ(beside.errors, place() + "\n0\n");
  const testing::ProgramResult instead =
      testing::run_program({program().native(), {"replace", "/nowhere", "some-game"}, {}, {}});
  EXPECT_EQ(instead.exit_code, 0);
  EXPECT_EQ(instead.output, place() + "\n0\n");
}

}  // namespace
}  // namespace ravok::platformed_game_test
