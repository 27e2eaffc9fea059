// A session's record that is accepted keeps every rule, which a second, naive check confirms. It is accepted again with
// its own sequence number for the last, and neither behind a later one nor of another process.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/sdk_session.hpp"
#include "property.hpp"

namespace {

using ravok::Json;
using ravok::SessionBinding;
using ravok::fuzz::must_hold;

const SessionBinding binding = {"s", "n", "game", "b", 4};
constexpr std::uint64_t last_sequence = 3;

bool is_bounded(const Json& value, std::size_t limit) {
  return value.is_string() && value.get<std::string>().size() <= limit;
}

void check_lists(const Json& record) {
  for (const Json& breadcrumb : record.value("breadcrumbs", Json::array())) {
    must_hold(is_bounded(breadcrumb.at("category"), 64) && is_bounded(breadcrumb.at("message"), 512),
              "a breadcrumb is bounded");
  }
  for (const Json& attachment : record.value("attachments", Json::array())) {
    const std::string kind = attachment.at("kind").get<std::string>();
    must_hold((kind == "log" || kind == "screenshot" || kind == "video") && is_bounded(attachment.at("path"), 1024),
              "an attachment is of a known kind");
  }
  must_hold(record.value("breadcrumbs", Json::array()).size() <= 64, "the breadcrumbs are counted");
  must_hold(record.value("attachments", Json::array()).size() <= 4, "the attachments are counted");
}

void check(const Json& record) {
  must_hold(record.at("schema_version") == 1 && record.at("session_id") == "s" && record.at("nonce") == "n" &&
                record.at("game_id") == "game" && record.at("build_id") == "b" && record.at("pid") == 4,
            "a record is of its session");
  must_hold(record.at("sequence").is_number_unsigned() && record.at("sequence") >= last_sequence,
            "a record is no earlier one");
  const bool ready = record.at("ready_seen").get<bool>();
  const std::string state = record.at("state").get<std::string>();
  must_hold(state == "starting" || (state == "ready" && ready) || state == "clean_exit", "a state is one of three");
  must_hold(state != "clean_exit" || record.at("exit_code").is_number_integer(), "a clean exit has a status");
  check_lists(record);
  const Json id = record.value("native_capture_id", Json(std::string(32, '0')));
  must_hold(id.get<std::string>().size() == 32 &&
                id.get<std::string>().find_first_not_of("0123456789abcdef") == std::string::npos,
            "a capture has an identity");
  must_hold(is_bounded(record.value("native_capture_problem", Json("")), 128), "a capture's problem is bounded");
}

void must_refuse(const Json& record, const SessionBinding& of, std::uint64_t last, const char* code) {
  try {
    ravok::validate_sdk_record(record, of, last);
    must_hold(false, "a record is accepted once, for its own session");
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == code, "a refusal has the code of its reason");
  }
}

void check_again(const Json& record) {
  const std::uint64_t sequence = record.at("sequence").get<std::uint64_t>();
  must_hold(ravok::validate_sdk_record(record, binding, sequence) == record, "a record may be written again");
  if (sequence != std::numeric_limits<std::uint64_t>::max()) {
    must_refuse(record, binding, sequence + 1, "session_replay");
  }
  SessionBinding other = binding;
  other.pid = 5;
  must_refuse(record, other, last_sequence, "invalid_session");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Json document;
  try {
    document = ravok::parse_json(std::string_view(reinterpret_cast<const char*>(data), size), 1 << 18);
  } catch (const ravok::Error&) {
    return 0;
  }
  try {
    const Json record = ravok::validate_sdk_record(document, binding, last_sequence);
    must_hold(record == document, "a record is returned as it is");
    check(record);
    check_again(record);
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "invalid_session" || refusal.code == "session_replay",
              "a refusal has a code of its kind");
  }
  return 0;
}
