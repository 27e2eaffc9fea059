#include "platform/shortcut/macos_shortcuts.hpp"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/shortcut_place.hpp"

namespace ravok::macos_shortcuts_test {
namespace {

using testing::ShortcutPlace;

constexpr const char* unbounded = "Shortcut text must be bounded and contain no control characters";
constexpr const char* not_utf8 = "Shortcut text must be valid UTF-8";
constexpr const char* not_below_root = "Shortcut paths must be absolute and normalized below a filesystem root";
constexpr const char* not_ordinary = "Shortcut inputs need existing ordinary files and directories";

DesktopShortcut sample() { return {"/opt/bin/ravok-bootstrap", "/home/a b", "game", "The \"Game\""}; }

Json sample_document() { return parse_json(macos_launch_document(sample()), 32768); }

// The sample's document with another value under a key.
std::string with(const char* key, const Json& value) {
  Json document = sample_document();
  document[key] = value;
  return document.dump();
}

std::string without(const char* key) {
  Json document = sample_document();
  document.erase(key);
  return document.dump();
}

TEST(LaunchDocument, IsCompactJsonOfSixKeys) {
  EXPECT_EQ(macos_launch_document(sample()),
            R"({"bootstrap":"/opt/bin/ravok-bootstrap","data_root":"/home/a b","game_id":"game",)"
            R"("kind":"ravok-launch-document","name":"The \"Game\"","schema_version":1})");
}

TEST(LaunchDocument, ReadsBackAsItWasAsked) {
  for (const char* const game : {"game", ""}) {
    DesktopShortcut asked = {"/o'p\"t/\\ $`%;/\xc3\xa9/ravok-bootstrap", "/d/\xf0\x9f\x8e\xae", game,
                             std::string(512, 'n')};
    const DesktopShortcut read = parse_macos_launch_document(macos_launch_document(asked));
    EXPECT_EQ(read.bootstrap, asked.bootstrap);
    EXPECT_EQ(read.data_root, asked.data_root);
    EXPECT_EQ(read.game_id, asked.game_id);
    EXPECT_EQ(read.name, asked.name);
  }
}

TEST(LaunchDocument, HasANameOf1To512BytesInOneLine) {
  DesktopShortcut asked = sample();
  for (const std::string& bad : {std::string(), std::string(513, 'a'), std::string("a\nb"), std::string("a\x7f")}) {
    asked.name = bad;
    EXPECT_FAILURE(macos_launch_document(asked), "shortcut_text", unbounded);
    EXPECT_FAILURE(parse_macos_launch_document(with("name", bad)), "shortcut_text", unbounded);
  }
  asked.name = "\xff";
  EXPECT_FAILURE(macos_launch_document(asked), "shortcut_text", not_utf8);
}

TEST(LaunchDocument, NamesAGameByItsIdentifierOrNone) {
  DesktopShortcut asked = sample();
  for (const char* const bad : {"Game", "../game", "a/b", "a\nb", " "}) {
    asked.game_id = bad;
    EXPECT_EQ(testing::failure_of([&] { macos_launch_document(asked); }).value().code, "invalid_identity") << bad;
    EXPECT_EQ(testing::failure_of([&] { parse_macos_launch_document(with("game_id", bad)); }).value().code,
              "invalid_identity")
        << bad;
  }
}

TEST(LaunchDocument, HasPathsInUtf8) {
  DesktopShortcut asked = sample();
  asked.data_root = "/\xff";
  EXPECT_FAILURE(macos_launch_document(asked), "shortcut_text", not_utf8);
}

TEST(LaunchDocument, IsAtMost32768BytesLong) {
  DesktopShortcut asked = sample();
  const std::size_t rest = macos_launch_document(asked).size() - asked.data_root.native().size();
  asked.data_root = "/" + std::string(32768 - rest - 1, 'a');
  EXPECT_EQ(macos_launch_document(asked).size(), 32768u);
  asked.data_root += "a";
  EXPECT_FAILURE(macos_launch_document(asked), "size_limit", "Launch document exceeds its byte bound");
}

TEST(LaunchDocumentParse, BoundsWhatItReads) {
  std::string text = macos_launch_document(sample());
  text.resize(32768, ' ');
  EXPECT_NO_THROW(parse_macos_launch_document(text));
  EXPECT_FAILURE(parse_macos_launch_document(text + " "), "size_limit", "JSON exceeds its size limit");
}

TEST(LaunchDocumentParse, RefusesWhatIsNoJson) {
  for (const std::string& bad :
       {std::string(), std::string("{"), macos_launch_document(sample()) + "x", std::string("{\"name\":\"\xff\"}")}) {
    EXPECT_EQ(testing::failure_of([&] { parse_macos_launch_document(bad); }).value().code, "invalid_json") << bad;
  }
}

TEST(LaunchDocumentParse, RefusesMoreOrFewerThanSixKeys) {
  for (const std::string& bad : {with("seventh", 1), without("name"), std::string("{}"), std::string("[]"),
                                 std::string("[1,2,3,4,5,6]"), std::string("\"text\""), std::string("null")}) {
    EXPECT_FAILURE(parse_macos_launch_document(bad), "shortcut_document", "Unknown launch document fields") << bad;
  }
}

TEST(LaunchDocumentParse, RefusesAReplacedKey) {
  for (const char* const key : {"schema_version", "kind", "bootstrap", "data_root", "game_id", "name"}) {
    Json document = sample_document();
    document.erase(key);
    document["other"] = "";
    EXPECT_FAILURE(parse_macos_launch_document(document.dump()), "shortcut_document", "Incomplete launch document")
        << key;
  }
}

TEST(LaunchDocumentParse, RefusesEverySchemaButItsOwn) {
  for (const Json& version : {Json(2), Json(0), Json(-1), Json("1"), Json(true), Json(nullptr), Json(Json::array())}) {
    EXPECT_FAILURE(parse_macos_launch_document(with("schema_version", version)), "unsupported_schema",
                   "Unknown launch document schema was preserved")
        << version;
  }
  for (const Json& kind : {Json("ravok-launch-documents"), Json(""), Json(1), Json(nullptr)}) {
    EXPECT_FAILURE(parse_macos_launch_document(with("kind", kind)), "unsupported_schema",
                   "Unknown launch document schema was preserved")
        << kind;
  }
}

TEST(LaunchDocumentParse, RefusesChoicesThatAreNoTexts) {
  for (const char* const key : {"bootstrap", "data_root", "game_id", "name"}) {
    for (const Json& value : {Json(1), Json(nullptr), Json(Json::object()), Json(Json::array({"/a"}))}) {
      EXPECT_FAILURE(parse_macos_launch_document(with(key, value)), "shortcut_document",
                     "Launch document choices must be strings")
          << key << value;
    }
  }
}

TEST(LaunchDocumentParse, RefusesPathsThatNameNothingBelowARoot) {
  for (const char* const key : {"bootstrap", "data_root"}) {
    for (const char* const bad : {"bin/ravok-bootstrap", "./a", "/", "/a/", "/a/../b", "//a", "~/a"}) {
      EXPECT_FAILURE(parse_macos_launch_document(with(key, bad)), "shortcut_path", not_below_root) << key << bad;
    }
    for (const std::string& bad : {std::string(), std::string("/a\nb"), "/" + std::string(4096, 'a')}) {
      EXPECT_FAILURE(parse_macos_launch_document(with(key, bad)), "shortcut_text", unbounded) << key << bad;
    }
    EXPECT_FAILURE(parse_macos_launch_document(with(key, std::string("/a\0b", 4))), "unsafe_path",
                   "Native path contains a NUL byte");
  }
}

TEST(LaunchDocumentFile, NeedsItsExtensionBeforeAnythingIsLookedAt) {
  const ShortcutPlace place;
  for (const char* const name : {"new", "new.desktop", "new.RAVOK-LAUNCH", ".ravok-launch"}) {
    EXPECT_FAILURE(create_macos_launch_document(sample(), place.desktop() / name), "shortcut_path",
                   "macOS launch documents must end in .ravok-launch")
        << name;
  }
  EXPECT_TRUE(std::filesystem::is_empty(place.desktop()));
}

TEST(LaunchDocumentFile, RefusesAChoiceBeforeItsPlace) {
  const ShortcutPlace place;
  EXPECT_FAILURE(create_macos_launch_document(place.shortcut("game", ""), "relative"), "shortcut_text", unbounded);
}

TEST(LaunchDocumentFile, TakesNoPlaceThatIsTaken) {
  const ShortcutPlace place;
  const std::filesystem::path file = place.write(place.desktop() / "a.ravok-launch", with("schema_version", 2));
  std::filesystem::create_symlink("nowhere", place.desktop() / "b.ravok-launch");
  std::filesystem::create_directory(place.desktop() / "c.ravok-launch");
  for (const char* const name : {"a", "b", "c"}) {
    EXPECT_FAILURE(
        create_macos_launch_document(place.shortcut(), place.desktop() / (std::string(name) + ".ravok-launch")),
        "already_exists", "Launch-document destination already exists; it was preserved");
  }
  EXPECT_EQ(place.read(file), with("schema_version", 2));
}

TEST(LaunchDocumentFile, LiesOutsideTheDataAndEveryLauncher) {
  const ShortcutPlace place;
  std::filesystem::create_directories(place.base() / "other/launcher/versions/1");
  EXPECT_FAILURE(create_macos_launch_document(place.shortcut(), place.data() / "bootstrap/a.ravok-launch"),
                 "shortcut_path", "Launch documents must be outside application data");
  EXPECT_FAILURE(
      create_macos_launch_document(place.shortcut(), place.base() / "other/launcher/versions/1/a.ravok-launch"),
      "shortcut_path", "Launch documents must be outside managed launcher payloads");
}

class LaunchDocumentHandler : public ::testing::Test {
 protected:
  LaunchDocumentHandler() {
    place.write(handler / "Contents/Info.plist", "");
    place.write(handler / "Contents/MacOS/ravok-shortcut", "");
  }
  const ShortcutPlace place;
  const std::filesystem::path handler = place.data() / "bootstrap/RavokShortcut.app";
};

TEST_F(LaunchDocumentHandler, BelongsToTheStableBootstrap) {
  const std::filesystem::path version = place.write(place.data() / "launcher/versions/1/ravok-bootstrap", "");
  EXPECT_FAILURE(register_macos_shortcut_handler(version), "shortcut_bootstrap",
                 "macOS shortcuts require the stable native bootstrap");
  DesktopShortcut shortcut = place.shortcut();
  shortcut.bootstrap = version;
  EXPECT_FAILURE(create_macos_launch_document(shortcut, place.desktop() / "a.ravok-launch"), "shortcut_bootstrap",
                 "macOS shortcuts require the stable native bootstrap");
  EXPECT_TRUE(std::filesystem::is_empty(place.desktop()));
}

TEST_F(LaunchDocumentHandler, IsAWholeApplication) {
  for (const char* const part : {"Contents/MacOS/ravok-shortcut", "Contents/Info.plist", ""}) {
    std::filesystem::remove_all(*part == '\0' ? handler : handler / part);
    EXPECT_FAILURE(register_macos_shortcut_handler(place.bootstrap()), "shortcut_path", not_ordinary) << part;
  }
  std::filesystem::create_directory_symlink(place.home(), handler);
  EXPECT_FAILURE(register_macos_shortcut_handler(place.bootstrap()), "shortcut_path", not_ordinary);
}

TEST_F(LaunchDocumentHandler, ThatCannotBeRegisteredLeavesNoDocument) {
  if (os::shortcut_form() == os::ShortcutForm::launch_document) {
    GTEST_SKIP() << "this system can register applications";
  }
  const char* const message = "Cannot register the installed Ravok launch-document handler";
  EXPECT_FAILURE(register_macos_shortcut_handler(place.bootstrap()), "shortcut_api", message);
  EXPECT_FAILURE(create_macos_launch_document(place.shortcut(), place.desktop() / "a.ravok-launch"), "shortcut_api",
                 message);
  EXPECT_TRUE(std::filesystem::is_empty(place.desktop()));
}

}  // namespace
}  // namespace ravok::macos_shortcuts_test
