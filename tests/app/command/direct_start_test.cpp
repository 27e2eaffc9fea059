#include "app/command/direct_start.hpp"

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/game_at_hand.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/working_directory.hpp"

namespace ravok::direct_start_test {
namespace {

using testing::as_game;
using testing::manifest_document;
using testing::TemporaryRoot;

constexpr const char* not_installed = "The game is not installed";
constexpr const char* bad_reference = "Installed manifest reference is malformed";
constexpr const char* changed_program = "The game's program is missing or changed";
constexpr const char* bad_record = "The record of the installed game is malformed";
constexpr const char* through_link = "Managed path contains a symbolic link";

// A data folder with one installed game, whose program is a script.
class InstalledGame {
 public:
  explicit InstalledGame(const std::string& script = "#!/bin/sh\n") {
    document = as_game(manifest_document());
    document["files"][0]["length"] = script.size();
    document["archive"]["expanded_length"] = script.size();
    std::filesystem::permissions(root.write("games/game/versions/1.0/bin/program", script),
                                 std::filesystem::perms::owner_all);
    save_manifest(document.dump());
  }

  // Saves the text as the manifest of the installed version.
  void save_manifest(const std::string& text) {
    const std::string reference = digest(text, "sha256");
    manifest = "games/game/verified-manifests/application-" + reference + ".json";
    root.write(manifest, text);
    record = {{"installed", true}, {"game_id", "game"}, {"active", {{"version", "1.0"}, {"manifest_ref", reference}}}};
    save_record();
  }

  // Keeps the manifest in the record instead.
  void embed_manifest(const Json& value) {
    record["active"] = {{"version", "1.0"}, {"manifest", value}};
    save_record();
  }

  void save_record() const { root.write("games/game/record.json", record.dump()); }

  std::filesystem::path version() const { return root / "games/game/versions/1.0"; }
  std::filesystem::path program() const { return version() / "bin/program"; }
  LocatedGame locate() const { return locate_installed_game(root.path(), "game"); }

  const TemporaryRoot root;
  Json document;
  Json record;
  std::string manifest;
};

void refuses(const InstalledGame& game, const char* code, const std::string& message) {
  EXPECT_FAILURE(game.locate(), code, message) << game.record.dump().substr(0, 500);
}

void expect_located(const InstalledGame& game) {
  const LocatedGame located = game.locate();
  EXPECT_EQ(located.directory, game.version());
  EXPECT_EQ(located.program, game.program());
}

TEST(LocateInstalledGame, FindsTheActiveVersionByItsSavedManifest) { expect_located(InstalledGame()); }

TEST(LocateInstalledGame, FindsTheActiveVersionByTheManifestInItsRecord) {
  InstalledGame game;
  game.embed_manifest(game.document);
  std::filesystem::remove_all(game.root / "games/game/verified-manifests");
  expect_located(game);
}

TEST(LocateInstalledGame, MakesTheDataFolderAbsolute) {
  const InstalledGame game;
  const testing::WorkingDirectory directory(game.root / "games");
  EXPECT_EQ(locate_installed_game("..", "game").program,
            std::filesystem::canonical(game.root.path()) / "games/game/versions/1.0/bin/program");
  EXPECT_EQ(locate_installed_game(game.root / "games/../", "game").directory, game.version());
}

TEST(LocateInstalledGame, RefusesAnEmptyDataFolder) {
  EXPECT_FAILURE(locate_installed_game("", "game"), "unsafe_path", "Cannot make a path absolute");
}

TEST(LocateInstalledGame, WantsAnIdentifier) {
  const InstalledGame game;
  for (const char* const id : {"", "Game", "../game", "game/", "a b"}) {
    EXPECT_FAILURE(locate_installed_game(game.root.path(), id), "invalid_identity",
                   "Game and build IDs use lower-case letters, digits, dots and hyphens");
  }
  EXPECT_FAILURE(locate_installed_game(game.root.path(), "nul"), "unsafe_path", "Path uses a reserved platform name");
}

TEST(LocateInstalledGame, FailsToReadARecordThatIsNotThere) {
  const InstalledGame game;
  EXPECT_FAILURE(locate_installed_game(game.root.path(), "other"), "file_read",
                 "Cannot open file: " + (game.root / "games/other/record.json").native());
}

TEST(LocateInstalledGame, BoundsTheRecord) {
  InstalledGame game;
  const std::string text = game.record.dump();
  game.root.write("games/game/record.json", text + std::string(524'288 - text.size(), ' '));
  expect_located(game);
  game.root.write("games/game/record.json", text + std::string(524'289 - text.size(), ' '));
  refuses(game, "size_limit", "File exceeds read limit");
}

TEST(LocateInstalledGame, TakesOnlyARecordThatIsInstalled) {
  InstalledGame game;
  for (const Json& value : {Json(false), Json(), Json(1), Json("true")}) {
    game.record["installed"] = value;
    game.save_record();
    refuses(game, "not_installed", not_installed);
  }
  game.record.erase("installed");
  game.save_record();
  refuses(game, "not_installed", not_installed);
}

TEST(LocateInstalledGame, TakesOnlyARecordOfTheGame) {
  InstalledGame game;
  for (const Json& value : {Json("other"), Json("Game"), Json(""), Json(), Json(1), Json(std::string("game\0", 5))}) {
    game.record["game_id"] = value;
    game.save_record();
    refuses(game, "not_installed", not_installed);
  }
  game.record.erase("game_id");
  game.save_record();
  refuses(game, "not_installed", not_installed);
}

TEST(LocateInstalledGame, TakesOnlyARecordThatIsAnObject) {
  InstalledGame game;
  for (const Json& value : {Json(), Json(true), Json::array(), Json("game")}) {
    game.record = value;
    game.save_record();
    refuses(game, "not_installed", not_installed);
  }
  game.root.write("games/game/record.json", "{\"installed\":true,\"installed\":true}");
  refuses(game, "duplicate_key", "JSON contains a duplicate object key");
}

TEST(LocateInstalledGame, RefusesARecordThatIsNotWhole) {
  InstalledGame game;
  const Json active = game.record.at("active");
  for (const Json& value : {Json(), Json("1.0"), Json::array(), Json::object(), Json({{"version", "1.0"}}),
                            Json({{"version", 1}, {"manifest_ref", active.at("manifest_ref")}}),
                            Json({{"manifest_ref", active.at("manifest_ref")}})}) {
    game.record["active"] = value;
    game.save_record();
    refuses(game, "invalid_state", bad_record);
  }
  game.record.erase("active");
  game.save_record();
  refuses(game, "invalid_state", bad_record);
}

TEST(LocateInstalledGame, KeepsTheVersionInTheFolderOfVersions) {
  InstalledGame game;
  for (const char* const version : {"../1.0", "..", "", "a//b", "C:"}) {
    game.record["active"]["version"] = version;
    game.save_record();
    EXPECT_EQ(testing::failure_of([&] { game.locate(); })->code, "unsafe_path") << version;
  }
}

TEST(LocateInstalledGame, WantsAWholeReference) {
  InstalledGame game;
  const std::string reference = game.record["active"]["manifest_ref"].get<std::string>();
  for (const Json& value : {Json(reference.substr(1)), Json(reference + "0"), Json(std::string(64, 'A')),
                            Json(std::string(63, 'a') + "/"), Json(""), Json(), Json(1), Json::object()}) {
    game.record["active"]["manifest_ref"] = value;
    game.save_record();
    refuses(game, "invalid_state", bad_reference);
  }
}

TEST(LocateInstalledGame, PrefersTheReferenceToTheManifestInTheRecord) {
  InstalledGame game;
  game.record["active"]["manifest"] = "anything";
  game.save_record();
  expect_located(game);
}

TEST(LocateInstalledGame, NoticesASingleChangedByteOfTheManifest) {
  const InstalledGame game;
  std::string text = game.root.read(game.manifest);
  text[text.find("The Game")] = 'U';
  game.root.write(game.manifest, text);
  refuses(game, "content_mismatch", "The stored game manifest changed");
}

TEST(LocateInstalledGame, BoundsTheManifest) {
  InstalledGame game;
  const std::string text = game.document.dump();
  game.save_manifest(text + std::string(4'194'304 - text.size(), ' '));
  expect_located(game);
  game.save_manifest(text + std::string(4'194'305 - text.size(), ' '));
  refuses(game, "size_limit", "File exceeds read limit");
}

TEST(LocateInstalledGame, RefusesAManifestThatTheClientDoesNotKnow) {
  InstalledGame game;
  game.document["minimum_launcher"] = 2;
  game.save_manifest(game.document.dump());
  refuses(game, "launcher_incompatible", "This build needs a different launcher protocol");
  game.embed_manifest(Json::object());
  refuses(game, "invalid_manifest", "Game manifest has missing or malformed fields");
  game.embed_manifest("text");
  refuses(game, "unsupported_schema", "Unsupported game manifest schema; nothing was rewritten");
}

TEST(LocateInstalledGame, RefusesAGameForAnotherPlatform) {
  InstalledGame game;
  game.document["platform"] = "windows-x86_64";
  game.save_manifest(game.document.dump());
  refuses(game, "platform_mismatch", "Installed game build is for another platform");
}

TEST(LocateInstalledGame, WantsAProgramOfTheRecordedSize) {
  const InstalledGame game;
  std::ofstream(game.program(), std::ios::app) << 'x';
  refuses(game, "content_mismatch", changed_program);
  std::filesystem::remove(game.program());
  refuses(game, "content_mismatch", changed_program);
  std::filesystem::create_directory(game.program());
  refuses(game, "content_mismatch", changed_program);
}

TEST(LocateInstalledGame, DoesNotLookAtTheProgramsContent) {
  const InstalledGame game("#!/bin/sh\n");
  std::ofstream(game.program(), std::ios::trunc) << "0123456789";
  expect_located(game);
}

// Moves what is in the data folder away and puts a link to it there.
void replace_by_link(const InstalledGame& game, const std::string& relative) {
  const std::filesystem::path place = game.root / relative;
  std::filesystem::rename(place, place.native() + ".real");
  std::filesystem::create_symlink(place.native() + ".real", place);
}

TEST(LocateInstalledGame, FollowsNoLinkInTheDataFolder) {
  for (const char* const relative :
       {"games", "games/game", "games/game/verified-manifests", "games/game/versions", "games/game/versions/1.0",
        "games/game/versions/1.0/bin", "games/game/versions/1.0/bin/program"}) {
    SCOPED_TRACE(relative);
    const InstalledGame game;
    replace_by_link(game, relative);
    refuses(game, "unsafe_path", through_link);
  }
}

TEST(LocateInstalledGame, NamesALinkInPlaceOfTheRecordOrTheManifest) {
  for (const std::string& relative : {std::string("games/game/record.json"), InstalledGame().manifest}) {
    const InstalledGame game;
    replace_by_link(game, relative);
    refuses(game, "unsafe_path", "Cannot open file: " + (game.root / relative).native());
  }
}

TEST(LocateInstalledGame, ChangesNothing) {
  const InstalledGame game;
  const auto before = testing::tree_state(game.root.path());
  game.locate();
  EXPECT_EQ(testing::tree_state(game.root.path()), before);
}

testing::ProgramResult run_companion(const char* word, const InstalledGame& game) {
  return testing::run_program(
      {RAVOK_GAME_COMPANION, {word, game.root.path().native(), "game"}, {{"KEPT", "kept"}}, {}});
}

// Says where it runs, how many arguments it has and what it inherits.
constexpr const char* telling_script = "#!/bin/sh\npwd\necho $#\necho $KEPT\n";

std::string told_by(const InstalledGame& game) {
  return std::filesystem::canonical(game.version()).native() + "\n0\nkept\n";
}

TEST(StartInstalledGame, RunsTheGameInPlaceOfThisProcess) {
  const InstalledGame game(telling_script);
  const testing::ProgramResult result = run_companion("replace", game);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, told_by(game));
  EXPECT_EQ(result.errors, "");
}

TEST(StartInstalledGame, EndsAsTheGameThatTookItsPlace) {
  EXPECT_EQ(run_companion("replace", InstalledGame("#!/bin/sh\nexit 37\n")).exit_code, 37);
}

TEST(StartInstalledGame, RunsTheGameBesideThisProcess) {
  const InstalledGame game(telling_script);
  const testing::ProgramResult result = run_companion("accompany", game);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "this process goes on\n");
  EXPECT_EQ(result.errors, told_by(game));
}

TEST(StartInstalledGame, LetsTheGameOutliveThisProcess) {
  const InstalledGame game("#!/bin/sh\nread line < ../go\necho \"$line\" > ../back\n");
  const std::filesystem::path go = game.root / "games/game/versions/go";
  const std::filesystem::path back = game.root / "games/game/versions/back";
  ASSERT_EQ(mkfifo(go.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(back.c_str(), 0600), 0);
  testing::Companion companion(RAVOK_GAME_COMPANION, {"start", game.root.path().native(), "game"});
  ASSERT_EQ(companion.read_line(), "this process goes on");
  ASSERT_EQ(companion.wait(), 0);
  std::ofstream(go) << "the game goes on\n";
  std::string line;
  std::ifstream answer(back);
  std::getline(answer, line);
  EXPECT_EQ(line, "the game goes on");
}

TEST(StartInstalledGame, SaysThatAGameCannotBeStarted) {
  const InstalledGame game;
  std::filesystem::permissions(game.program(), std::filesystem::perms::owner_read);
  const std::optional<Error> failure =
      testing::failure_of([&] { start_installed_game(game.root.path(), "game", false); });
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code, "process_start");
  EXPECT_STREQ(failure->what(), "The game could not be started");
  EXPECT_EQ(failure->details, (std::vector<std::string>{"verify GAME", "repair GAME"}));
}

TEST(StartInstalledGame, StaysThisProcessWhenTheGameCannotTakeItsPlace) {
  const InstalledGame game;
  std::filesystem::permissions(game.program(), std::filesystem::perms::owner_read);
  const std::filesystem::path before = std::filesystem::current_path();
  EXPECT_FAILURE(start_installed_game(game.root.path(), "game", true), "process_start",
                 "Cannot replace this process (native error 13)");
  EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST(StartInstalledGame, StartsNothingThatItCannotLocate) {
  InstalledGame game("#!/bin/sh\ntouch ../ran\n");
  std::ofstream(game.program(), std::ios::app) << 'x';
  for (const char* const word : {"start", "replace"}) {
    const testing::ProgramResult result = run_companion(word, game);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, std::string("content_mismatch: ") + changed_program + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(game.root / "games/game/versions/ran"));
}

TEST(LocalStorageFailure, KnowsTheCodesOfADiskThatCannotBeWrittenTo) {
  for (const char* const code : {"file_write", "file_sync", "journal_write", "insufficient_space", "permissions"}) {
    EXPECT_TRUE(local_storage_failure(code)) << code;
  }
  for (const char* const code : {"", "file_read", "unsafe_path", "File_write", "permission", "usage"}) {
    EXPECT_FALSE(local_storage_failure(code)) << code;
  }
}

}  // namespace
}  // namespace ravok::direct_start_test
