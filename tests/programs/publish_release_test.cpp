// The commands of ravok-publish that keep a signed repository.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "programs/started_program.hpp"
#include "support/process.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::publish_release_test {
namespace {

using testing::PlaceRoles;
using testing::ProgramResult;
using testing::RepositoryPlace;
using testing::run_program;
using testing::same_tree;
using testing::StartedProgram;
using testing::tree_state;
using testing::TreeState;
using Arguments = std::vector<std::string>;

constexpr const char* see_help = "\nRun with --help for more information.\n";

ProgramResult publisher(Arguments arguments) {
  arguments.insert(arguments.begin(), "repository");
  return run_program({RAVOK_PUBLISH, arguments, {}, ""});
}

// What the commands say of the day on which a document expires that is signed now.
std::string day_after(std::uint64_t days) { return tuf_day_text(days_after(present_tuf_time(), days)); }

class PublishRelease : public ::testing::Test {
 protected:
  std::string expect_done(const Arguments& arguments, const std::string& errors = "") const {
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, errors);
    return result.output;
  }

  void expect_refused(const Arguments& arguments, int exit_code, const std::string& errors) const {
    const TreeState before = tree_state(place_.root.path());
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
    EXPECT_TRUE(same_tree(tree_state(place_.root.path()), before));
  }

  std::string init() const {
    return expect_done({"init", folder_, "--root", place_.root / "root.json", "--key", place_.key("online")},
                       "The role root has a single key: its loss strands every client, since no key of the "
                       "repository can be replaced any more\n");
  }

  Arguments signed_by_online(Arguments arguments) const {
    arguments.insert(arguments.end(), {"--key", place_.key("online")});
    return arguments;
  }

  std::string signed_until(std::uint64_t version) const {
    const std::string number = std::to_string(version);
    return "Published: targets " + number + " until " + day_after(365) + ", snapshot " + number + " until " +
           day_after(30) + ", timestamp " + number + " until " + day_after(14) + "\n";
  }

  RepositoryPlace place_;
  const std::string folder_ = place_.folder;
  const std::string list_ = folder_ + "/upload.txt";
};

TEST_F(PublishRelease, SaysWhatWasPublishedUntilWhenAndWhatToUpload) {
  // The day must not change meanwhile.
  const TufTime now = present_tuf_time();
  const auto rest = std::chrono::ceil<std::chrono::days>(now) - now;
  if (rest < std::chrono::minutes(2)) {
    std::this_thread::sleep_for(rest);
  }
  EXPECT_EQ(init(),
            "Repository: " + folder_ + "\n" + signed_until(1) + "To upload, in the order of " + list_ + ": 4 files\n");
  EXPECT_EQ(expect_done(signed_by_online({"release", folder_, "--manifest", place_.launcher("1.0.0")})),
            "Released: launcher build 1.0.0 for linux-x86_64, as launcher-linux-x86_64.manifest.json\n" +
                signed_until(2) + "To upload, in the order of " + list_ + ": 6 files\n");
  EXPECT_EQ(expect_done(signed_by_online({"refresh", folder_})), "Nothing is due before " + day_after(7) + "\n");
  EXPECT_EQ(expect_done(signed_by_online({"refresh", folder_, "--days", "40"})),
            "Published: timestamp 3 until " + day_after(40) + "\nTo upload, in the order of " + list_ + ": 6 files\n");
  EXPECT_EQ(expect_done(signed_by_online({"withdraw", folder_, "--build", "1.0.0"})),
            "Withdrawn: launcher build 1.0.0 for linux-x86_64, which has none before it\n" +
                ("Published: targets 3 until " + day_after(365) + ", snapshot 3 until " + day_after(30) +
                 ", timestamp 4 until " + day_after(14)) +
                "\nTo upload, in the order of " + list_ + ": 4 files\n");
  EXPECT_EQ(expect_done({"discard", folder_}), "There was no draft\n");
}

TEST_F(PublishRelease, FailsForNoListThatCannotBeRead) {
  init();
  std::filesystem::remove(list_);
  std::filesystem::create_symlink("nowhere", list_);
  const Json refreshed = Json::parse(expect_done(signed_by_online({"refresh", folder_, "--json"})));
  EXPECT_EQ(refreshed.at("upload").at("files"), Json::array());
  const Json released =
      Json::parse(expect_done({"release", folder_, "--manifest", place_.launcher("1.0.0"), "--json"}));
  EXPECT_EQ(released.at("published"), false);
}

TEST_F(PublishRelease, TellsProgramsTheSame) {
  init();
  const std::filesystem::path manifest = place_.launcher("1.0.0");
  const Json released =
      Json::parse(expect_done(signed_by_online({"release", folder_, "--manifest", manifest, "--json"})));
  EXPECT_EQ(released.at("schema_version"), 1);
  EXPECT_EQ(released.at("repository"), folder_);
  EXPECT_EQ(released.at("published"), true);
  EXPECT_EQ(released.at("finished_former"), false);
  EXPECT_EQ(released.at("waiting"), Json::array());
  EXPECT_EQ(released.at("warnings"), Json::array());
  EXPECT_EQ(released.at("documents").at("root"), (Json{{"version", 1}, {"expires", "2050-01-01T00:00:00Z"}}));
  EXPECT_EQ(released.at("documents").at("timestamp").at("version"), 2);
  const std::string id = place_.signers().front().id;
  EXPECT_EQ(released.at("signatures"), (Json::array({{{"role", "targets"}, {"key_id", id}, {"name", "online"}},
                                                     {{"role", "snapshot"}, {"key_id", id}, {"name", "online"}},
                                                     {{"role", "timestamp"}, {"key_id", id}, {"name", "online"}}})));
  EXPECT_EQ(released.at("upload").at("list"), list_);
  EXPECT_EQ(released.at("upload").at("files").size(), 6u);
  EXPECT_EQ(released.at("upload").at("files").back(), "tuf/metadata/timestamp.json");
  EXPECT_EQ(released.at("builds"),
            Json::array({{{"build", "launcher build 1.0.0 for linux-x86_64"},
                          {"target", "launcher-linux-x86_64.manifest.json"},
                          {"build_id", "1.0.0"},
                          {"platform", "linux-x86_64"},
                          {"is_new", true},
                          {"manifest_sha256", digest(RepositoryPlace::bytes(manifest), "sha256")},
                          {"files", {"launcher-linux-x86_64-1.0.0.tar.zst"}},
                          {"missing", Json::array()}}}));
  const Json refreshed = Json::parse(expect_done(signed_by_online({"refresh", folder_, "--json"})));
  EXPECT_EQ(refreshed.at("was_due"), false);
  EXPECT_EQ(refreshed.at("left"), Json::array());
  EXPECT_EQ(refreshed.at("published"), false);
  const Json withdrawn =
      Json::parse(expect_done(signed_by_online({"withdraw", folder_, "--build", "1.0.0", "--json"})));
  EXPECT_EQ(withdrawn.at("builds"), Json::array({{{"build", "launcher build 1.0.0 for linux-x86_64"},
                                                  {"target", "launcher-linux-x86_64.manifest.json"},
                                                  {"former_build_id", nullptr}}}));
  const Json discarded = Json::parse(expect_done({"discard", folder_, "--json"}));
  EXPECT_EQ(discarded.at("discarded"), nullptr);
}

TEST_F(PublishRelease, SaysWhoseSignaturesAreMissing) {
  init();
  const std::filesystem::path manifest = place_.launcher("1.0.0");
  EXPECT_EQ(expect_done({"release", folder_, "--manifest", manifest}),
            "Released: launcher build 1.0.0 for linux-x86_64, as launcher-linux-x86_64.manifest.json\n"
            "Nothing is published yet: the role targets needs 1 more signature, by online\n"
            "The next one signs with: ravok-publish repository sign " +
                folder_ + " --key FILE\n");
  expect_refused(signed_by_online({"release", folder_, "--manifest", manifest}), 1,
                 "A draft of 'release' waits: the role targets needs 1 more signature, by online. Sign it with "
                 "'ravok-publish repository sign', or remove it with 'ravok-publish repository discard'\n");
  EXPECT_EQ(expect_done({"discard", folder_}), "Discarded: the draft of 'release'\n");
  expect_done(signed_by_online({"release", folder_, "--manifest", manifest}));
}

TEST_F(PublishRelease, SaysThatARefreshLeavesTheTargetsToADraft) {
  init();
  expect_done({"release", folder_, "--manifest", place_.launcher("1.0.0")});
  const Json refreshed = Json::parse(expect_done(
      signed_by_online({"refresh", folder_, "--days", "800", "--json"}),
      "The role targets is due and lasts until " +
          tuf_day_text(RepositoryFolder(folder_, RepositoryFolder::Use::read).state().role("targets").expires()) +
          "; it stays as it is while a draft waits\n"));
  EXPECT_EQ(refreshed.at("left"), (Json{"targets"}));
  EXPECT_EQ(place_.versions(), (std::vector<std::uint64_t>{1, 1, 2, 2}));
}

TEST_F(PublishRelease, NamesNoDayThatHasPassedWhereWhatIsDueIsLeft) {
  PlaceRoles roles;
  roles.targets = {{"offline"}, 1};
  RepositoryPlace place(roles);
  // Half of the targets' days have passed, and the other documents are new.
  place.now = present_tuf_time() - std::chrono::hours(200 * 24);
  place.init({"online", "offline"});
  place.now = present_tuf_time();
  refresh_repository({place.folder, {}, false}, place.signers({"online"}), place.now);
  const ProgramResult result = publisher({"refresh", place.folder, "--key", place.key("online")});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "Nothing is due that can be signed now\n");
}

TEST_F(PublishRelease, DoesNotCallDueWhatAForcedRefreshLeavesToADraft) {
  init();
  const std::string second = place_.key("second");
  ASSERT_EQ(publisher({"rotate", folder_, "--role", "targets", "--add", second + ".pub", "--key", place_.key("root")})
                .exit_code,
            0);
  expect_done({"release", folder_, "--manifest", place_.launcher("1.0.0")});
  expect_done(
      signed_by_online({"refresh", folder_, "--force", "--key", second}),
      "The role targets lasts until " +
          tuf_day_text(RepositoryFolder(folder_, RepositoryFolder::Use::read).state().role("targets").expires()) +
          "; it stays as it is while a draft waits\nThe key second speaks for no document that was made\n");
}

TEST_F(PublishRelease, RefusesWrongCommandLines) {
  expect_refused({}, 2, std::string("A subcommand is required") + see_help);
  expect_refused({"release"}, 2, std::string("DIR is required") + see_help);
  expect_refused({"release", folder_}, 2, std::string("--manifest is required") + see_help);
  expect_refused({"release", folder_, "--manifest", "=x"}, 2, "A manifest is named as FILE or TARGET=FILE: =x\n");
  expect_refused({"release", folder_, "--manifest", "../x=y"}, 2, "Path contains an unsafe component\n");
  expect_refused({"release", folder_, "--manifest", "x", "--days", "0"}, 2,
                 "Documents are valid for 1 to 36500 days, not 0\n");
  expect_refused({"init", folder_, "--root", place_.root / "root.json", "--timestamp-days", "40000"}, 2,
                 "Documents are valid for 1 to 36500 days, not 40000\n");
  expect_refused({"withdraw", folder_, "--build", "UPPER"}, 2,
                 "Game and build IDs use lower-case letters, digits, dots and hyphens\n");
  expect_refused({"refresh", ""}, 2, "DIR needs a value\n");
}

TEST_F(PublishRelease, RefusesAKeyOfNoRole) {
  init();
  const std::string stranger = place_.key("stranger");
  const std::string message = "The key stranger speaks for no role of this repository\n";
  expect_refused({"release", folder_, "--manifest", place_.launcher("1.0.0"), "--key", stranger}, 1, message);
  expect_refused({"refresh", folder_, "--key", stranger}, 1, message);
  expect_done(signed_by_online({"release", folder_, "--manifest", place_.launcher("1.0.0")}));
  expect_refused({"withdraw", folder_, "--build", "1.0.0", "--key", stranger}, 1, message);
}

TEST_F(PublishRelease, FailsToRefreshWhereWhatIsDueIsNotSigned) {
  init();
  const ProgramResult result = publisher({"refresh", folder_, "--force", "--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "What is due is not published: the role timestamp needs 1 more signature, by online\n");
  const Json document = Json::parse(result.output);
  EXPECT_EQ(document.at("was_due"), true);
  EXPECT_EQ(document.at("published"), false);
  EXPECT_EQ(place_.versions(), (std::vector<std::uint64_t>{1, 1, 1, 1}));
  expect_done({"sign", folder_, "--key", place_.key("online")});
  EXPECT_EQ(place_.versions(), (std::vector<std::uint64_t>{1, 1, 1, 2}));
}

TEST_F(PublishRelease, RefusesASignerThatIsNoneAsAWrongCommandLine) {
  for (const Arguments& command : {Arguments{"init", folder_, "--root", place_.root / "root.json"},
                                   Arguments{"release", folder_, "--manifest", "x"}, Arguments{"refresh", folder_},
                                   Arguments{"withdraw", folder_, "--build", "1.0.0"}}) {
    Arguments arguments = command;
    arguments.insert(arguments.end(), {"--signer", "true"});
    expect_refused(arguments, 2, "Each --signer COMMAND needs a --signer-key FILE, in the same order\n");
    arguments.back() = "sign 'x";
    arguments.insert(arguments.end(), {"--signer-key", place_.key("online").native() + ".pub"});
    expect_refused(arguments, 2, "The command of a signer ends inside of quotes or with a backslash\n");
  }
}

TEST_F(PublishRelease, IsCancelledWhileASignerIsAtWork) {
  const std::filesystem::path started = place_.root / "started";
  const Arguments held = {"--signer", "sh -c 'touch \"" + started.native() + "\"; exec sleep 1000'", "--signer-key",
                          place_.key("online").native() + ".pub"};
  const auto expect_cancelled = [&](Arguments arguments, int signal) {
    arguments.insert(arguments.begin(), "repository");
    arguments.insert(arguments.end(), held.begin(), held.end());
    StartedProgram program(
        {.program = RAVOK_PUBLISH, .arguments = arguments, .environment = {{"PATH", "/usr/bin:/bin"}}});
    while (!std::filesystem::exists(started) && !program.has_ended()) {
    }
    program.send_signal(signal);
    EXPECT_EQ(program.wait(), 4) << arguments.at(1);
    EXPECT_EQ(program.output(), "");
    EXPECT_EQ(program.errors(), "Cancelled\n");
    std::filesystem::remove(started);
  };
  expect_cancelled({"init", folder_, "--root", place_.root / "root.json"}, SIGINT);
  EXPECT_FALSE(std::filesystem::exists(folder_));
  init();
  expect_done(signed_by_online({"release", folder_, "--manifest", place_.launcher("1.0.0")}));
  const TreeState before = tree_state(place_.folder / "public");
  expect_cancelled({"release", folder_, "--manifest", place_.launcher("1.0.1")}, SIGTERM);
  expect_cancelled({"refresh", folder_, "--force"}, SIGHUP);
  expect_cancelled({"withdraw", folder_, "--build", "1.0.0"}, SIGINT);
  EXPECT_TRUE(same_tree(tree_state(place_.folder / "public"), before));
}

TEST_F(PublishRelease, RefusesAFolderThatIsNone) {
  expect_refused({"refresh", folder_}, 1,
                 "This is no repository's folder; 'ravok-publish repository init' makes one: " + folder_ + "\n");
  const ProgramResult result = publisher({"refresh", folder_, "--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(Json::parse(result.output).at("problem").at("code"), "no_repository");
}

}  // namespace
}  // namespace ravok::publish_release_test
