#include "domain/sdk_session.hpp"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::sdk_session_test {
namespace {

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

constexpr const char* malformed = "SDK record fields are missing or malformed";
constexpr const char* other_session = "Readiness record does not match the expected game/process/session";
constexpr const char* backwards = "Readiness sequence went backwards";
constexpr const char* unknown_state = "Unknown SDK session state";
constexpr const char* many_breadcrumbs = "SDK record has too many breadcrumbs";
constexpr const char* long_breadcrumb = "SDK breadcrumb exceeds record bounds";
constexpr const char* no_evidence = "Ready state lacks readiness evidence";
constexpr const char* many_attachments = "SDK record has too many attachments";
constexpr const char* bad_attachment = "SDK attachment is invalid";
constexpr const char* bad_capture = "Native capture identity is invalid";
constexpr const char* long_problem = "Native capture problem exceeds its bound";
constexpr const char* no_status = "Clean exit lacks an exit status";

const SessionBinding binding = {"session-1", "nonce-1", "some-game", "build-1", 4242};

// As it is read from a file.
Json least() {
  return parse_json(R"({"schema_version":1,"session_id":"session-1","nonce":"nonce-1","game_id":"some-game",
                        "build_id":"build-1","pid":4242,"sequence":7,"ready_seen":false,"state":"starting"})",
                    4096);
}

Json full() {
  Json record = least();
  record["ready_seen"] = true;
  record["state"] = "clean_exit";
  record["exit_code"] = 3;
  record["breadcrumbs"] = {{{"category", "load"}, {"message", "Level 1"}}};
  record["attachments"] = {{{"kind", "log"}, {"path", "logs/a.txt"}}};
  record["native_capture_id"] = std::string(32, 'a');
  record["native_capture_problem"] = "none";
  return record;
}

Json with(const std::string& pointer, const Json& value) {
  Json record = full();
  record[Json::json_pointer(pointer)] = value;
  return record;
}

Json without(const std::string& key) {
  Json record = full();
  record.erase(key);
  return record;
}

void accepts(const Json& record, std::uint64_t last_sequence = 7) {
  EXPECT_EQ(validate_sdk_record(record, binding, last_sequence), record);
}

void refuses(const Json& record, const char* message, const char* code = "invalid_session",
             std::uint64_t last_sequence = 7) {
  EXPECT_FAILURE(validate_sdk_record(record, binding, last_sequence), code, message) << record.dump().substr(0, 1000);
}

// A number as the text of a document has it.
Json number(const std::string& digits) { return Json::parse(digits); }

Json many(std::size_t count, const Json& entry) {
  Json list = Json::array();
  for (std::size_t i = 0; i < count; ++i) {
    list.push_back(entry);
  }
  return list;
}

TEST(SdkRecord, IsReturnedAsItIs) {
  accepts(least());
  accepts(full());
  accepts(with("/of_a_later_sdk", {{"a", 1}}));
}

TEST(SdkRecord, TakesNoIdentityButThatOfTheSession) {
  for (const char* const key : {"session_id", "nonce", "game_id", "build_id"}) {
    const std::string own = full().at(key).get<std::string>();
    for (const std::string& other : {std::string(), own + "x", own + std::string(1, '\0'), own.substr(1)}) {
      refuses(with(std::string("/") + key, other), other_session);
    }
  }
  refuses(with("/schema_version", 2), other_session);
  refuses(with("/schema_version", 0), other_session);
  refuses(with("/schema_version", -1), other_session);
  refuses(with("/schema_version", number("18446744073709551615")), other_session);
}

TEST(SdkRecord, IsRefusedOfAnotherProcessWhateverTheRestSays) {
  for (const std::uint64_t pid : {std::uint64_t{0}, std::uint64_t{4241}, 4242 + (std::uint64_t{1} << 32), largest}) {
    refuses(with("/pid", pid), other_session);
  }
  Json record = with("/pid", std::uint64_t{1});
  record["sequence"] = std::uint64_t{0};
  record["state"] = "unknown";
  refuses(record, other_session);
}

TEST(SdkRecord, TakesTheLargestProcessId) {
  SessionBinding other = binding;
  other.pid = largest;
  const Json record = with("/pid", number("18446744073709551615"));
  EXPECT_EQ(validate_sdk_record(record, other, 7), record);
  EXPECT_FAILURE(validate_sdk_record(with("/pid", number("-1")), other, 7), "invalid_session", malformed);
}

TEST(SdkRecord, IsNoReplayOfAnEarlierOne) {
  accepts(with("/sequence", std::uint64_t{7}));
  accepts(with("/sequence", std::uint64_t{8}));
  accepts(with("/sequence", number("18446744073709551615")), largest);
  refuses(with("/sequence", std::uint64_t{6}), backwards, "session_replay");
  refuses(with("/sequence", largest - 1), backwards, "session_replay", largest);
  refuses(with("/sequence", number("9223372036854775807")), backwards, "session_replay", std::uint64_t{1} << 63);
}

TEST(SdkRecord, HasASequenceNumberOfAtLeastOne) {
  accepts(with("/sequence", std::uint64_t{1}), 0);
  refuses(with("/sequence", std::uint64_t{0}), backwards, "session_replay", 0);
}

TEST(SdkRecord, CountsOnlyInUnsignedIntegers) {
  for (const char* const key : {"/pid", "/sequence"}) {
    for (const char* const text :
         {"-1", "-9223372036854775808", "4242.0", "18446744073709551616", "\"4242\"", "null", "true", "[4242]", "{}"}) {
      refuses(with(key, number(text)), malformed);
    }
  }
}

// What a program builds in memory holds a number as a signed one where no document would.
TEST(SdkRecord, TellsAnotherProcessAndAReplayByTheNumberAlone) {
  refuses(with("/pid", 4241), other_session);
  refuses(with("/pid", number("-0")), other_session);
  accepts(with("/pid", 4242));
  refuses(with("/sequence", 0), backwards, "session_replay");
  refuses(with("/sequence", 6), backwards, "session_replay");
  refuses(with("/sequence", number("-0")), backwards, "session_replay", 0);
  refuses(with("/sequence", 7), malformed);
}

TEST(SdkRecord, HasFieldsOfTheRightTypes) {
  for (const char* const key :
       {"session_id", "nonce", "game_id", "build_id", "state", "native_capture_id", "native_capture_problem"}) {
    for (const Json& value : {Json(1), Json(), Json(true), Json::array(), Json::object()}) {
      refuses(with(std::string("/") + key, value), malformed);
    }
  }
  for (const Json& value : {Json("1"), Json(1.0), Json(), Json(true), Json::array({1})}) {
    refuses(with("/schema_version", value), malformed);
  }
  for (const Json& value : {Json("true"), Json(1), Json(0), Json(), Json::array()}) {
    refuses(with("/ready_seen", value), malformed);
  }
  for (const char* const key : {"/breadcrumbs", "/attachments"}) {
    for (const Json& value : {Json("a"), Json(1), Json(), Json::object()}) {
      refuses(with(key, value), malformed);
    }
  }
}

TEST(SdkRecord, HasEveryFieldThatIsNotOptional) {
  for (const char* const key :
       {"schema_version", "session_id", "nonce", "game_id", "build_id", "pid", "sequence", "ready_seen", "state"}) {
    refuses(without(key), malformed);
  }
  for (const char* const key : {"breadcrumbs", "attachments", "native_capture_id", "native_capture_problem"}) {
    accepts(without(key));
  }
}

TEST(SdkRecord, IsAnObject) {
  for (const Json& record : {Json(), Json(1), Json("a"), Json::array(), Json::array({full()}), Json::object()}) {
    refuses(record, malformed);
  }
}

TEST(SdkRecord, HasOneOfThreeStates) {
  for (const char* const state : {"starting", "ready", "clean_exit"}) {
    accepts(with("/state", state));
  }
  for (const std::string& state : {std::string(), std::string("Ready"), std::string("crashed"),
                                   std::string("ready\0", 6), std::string("ready ")}) {
    refuses(with("/state", state), unknown_state);
  }
}

TEST(SdkRecord, CannotBeReadyWithoutHavingBeenSeenReady) {
  Json record = least();
  record["state"] = "ready";
  refuses(record, no_evidence);
  record["ready_seen"] = true;
  accepts(record);
  record["state"] = "starting";
  accepts(record);
}

TEST(SdkRecord, BoundsItsBreadcrumbs) {
  const Json entry = {{"category", std::string(64, 'c')}, {"message", std::string(512, 'm')}};
  accepts(with("/breadcrumbs", Json::array()));
  accepts(with("/breadcrumbs", many(64, entry)));
  refuses(with("/breadcrumbs", many(65, entry)), many_breadcrumbs);
  refuses(with("/breadcrumbs", many(65, 1)), many_breadcrumbs);
  refuses(with("/breadcrumbs/0/category", std::string(65, 'c')), long_breadcrumb);
  refuses(with("/breadcrumbs/0/message", std::string(513, 'm')), long_breadcrumb);
  Json last = many(64, entry);
  last.back()["message"] = std::string(513, 'm');
  refuses(with("/breadcrumbs", last), long_breadcrumb);
  accepts(with("/breadcrumbs/0", {{"category", ""}, {"message", ""}, {"more", 1}}));
}

TEST(SdkRecord, HasWholeBreadcrumbs) {
  for (const Json& entry :
       {Json(1), Json("a"), Json(), Json::array(), Json::object(), Json({{"category", "a"}}), Json({{"message", "a"}}),
        Json({{"category", 1}, {"message", "a"}}), Json({{"category", "a"}, {"message", Json()}})}) {
    refuses(with("/breadcrumbs/0", entry), malformed);
  }
}

TEST(SdkRecord, BoundsItsAttachments) {
  const Json entry = {{"kind", "video"}, {"path", std::string(1024, 'p')}};
  accepts(with("/attachments", Json::array()));
  accepts(with("/attachments", many(4, entry)));
  refuses(with("/attachments", many(5, entry)), many_attachments);
  refuses(with("/attachments/0/path", std::string(1025, 'p')), bad_attachment);
}

TEST(SdkRecord, KnowsThreeKindsOfAttachments) {
  for (const char* const kind : {"log", "screenshot", "video"}) {
    accepts(with("/attachments/0/kind", kind));
  }
  for (const char* const kind : {"", "Log", "logs", "dump"}) {
    refuses(with("/attachments/0/kind", kind), bad_attachment);
  }
}

TEST(SdkRecord, HasWholeAttachments) {
  for (const Json& entry :
       {Json(1), Json("log"), Json(), Json::array(), Json::object(), Json({{"kind", "log"}}), Json({{"path", "a"}}),
        Json({{"kind", 1}, {"path", "a"}}), Json({{"kind", "log"}, {"path", 1}})}) {
    refuses(with("/attachments/0", entry), malformed);
  }
}

TEST(SdkRecord, HasACaptureIdentityInLowerCase) {
  accepts(with("/native_capture_id", "0123456789abcdef0123456789abcdef"));
  for (const std::string& id : {std::string(32, 'A'), std::string(31, 'a'), std::string(33, 'a'), std::string(32, 'g'),
                                std::string(31, 'a') + '\0', std::string()}) {
    refuses(with("/native_capture_id", id), bad_capture);
  }
}

TEST(SdkRecord, BoundsTheProblemOfACapture) {
  accepts(with("/native_capture_problem", ""));
  accepts(with("/native_capture_problem", std::string(128, 'p')));
  refuses(with("/native_capture_problem", std::string(129, 'p')), long_problem);
}

TEST(SdkRecord, EndsCleanlyWithAnExitStatus) {
  for (const char* const text : {"0", "-0", "-1", "255", "18446744073709551615", "-9223372036854775808"}) {
    accepts(with("/exit_code", number(text)));
  }
  for (const char* const text : {"0.0", "-0.0", "1e0", "\"0\"", "null", "false", "[]"}) {
    refuses(with("/exit_code", number(text)), no_status);
  }
  refuses(without("exit_code"), no_status);
}

TEST(SdkRecord, NeedsAnExitStatusForACleanEndAlone) {
  for (const char* const state : {"starting", "ready"}) {
    Json record = without("exit_code");
    record["state"] = state;
    accepts(record);
  }
}

// A record that breaks every rule is refused by the first; each rule that is then kept shows the next.
TEST(SdkRecord, IsCheckedInAFixedOrder) {
  Json record = full();
  record["session_id"] = "other";
  record["sequence"] = std::uint64_t{1};
  record["state"] = "unknown";
  record["ready_seen"] = false;
  record["breadcrumbs"] = many(65, 1);
  record["attachments"] = many(5, 1);
  record["native_capture_id"] = "A";
  record["native_capture_problem"] = std::string(129, 'p');
  record.erase("exit_code");
  refuses(record, other_session);
  record["session_id"] = binding.session_id;
  refuses(record, backwards, "session_replay");
  record["sequence"] = std::uint64_t{7};
  refuses(record, unknown_state);
  record["state"] = "ready";
  refuses(record, many_breadcrumbs);
  record["breadcrumbs"] = many(64, {{"category", "c"}, {"message", std::string(513, 'm')}});
  refuses(record, long_breadcrumb);
  record.erase("breadcrumbs");
  refuses(record, no_evidence);
  record["state"] = "clean_exit";
  refuses(record, many_attachments);
  record["attachments"] = many(4, {{"kind", "dump"}, {"path", "a"}});
  refuses(record, bad_attachment);
  record.erase("attachments");
  refuses(record, bad_capture);
  record.erase("native_capture_id");
  refuses(record, long_problem);
  record.erase("native_capture_problem");
  refuses(record, no_status);
  record["exit_code"] = 0;
  accepts(record);
}

}  // namespace
}  // namespace ravok::sdk_session_test
