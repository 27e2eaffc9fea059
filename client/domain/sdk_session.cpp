#include "domain/sdk_session.hpp"

#include <cstddef>
#include <string_view>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr const char* invalid_session = "invalid_session";
constexpr const char* malformed_record = "SDK record fields are missing or malformed";
constexpr const char* other_session = "Readiness record does not match the expected game/process/session";

constexpr std::size_t maximum_breadcrumbs = 64;
constexpr std::size_t maximum_category_bytes = 64;
constexpr std::size_t maximum_breadcrumb_bytes = 512;
constexpr std::size_t maximum_attachments = 4;
constexpr std::size_t maximum_attachment_path_bytes = 1024;
constexpr std::size_t capture_characters = 32;
constexpr std::size_t maximum_capture_problem_bytes = 128;

// Returns an integer that is not negative. A record that was built in memory may hold it as a signed one.
std::uint64_t sdk_number_at(const Json& object, const char* key) {
  const Json& value = object.at(key);
  require(value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= 0), invalid_session,
          malformed_record);
  return value.get<std::uint64_t>();
}

const Json& array_at(const Json& object, const char* key) {
  const Json& value = object.at(key);
  require(value.is_array(), invalid_session, malformed_record);
  return value;
}

void check_identity(const Json& record, const SessionBinding& binding) {
  const Json& schema = record.at("schema_version");
  require(schema.is_number_integer(), invalid_session, malformed_record);
  require(is_integer(schema, 1), invalid_session, other_session);
  require(text_at(record, "session_id") == binding.session_id, invalid_session, other_session);
  require(text_at(record, "nonce") == binding.nonce, invalid_session, other_session);
  require(text_at(record, "game_id") == binding.game_id, invalid_session, other_session);
  require(text_at(record, "build_id") == binding.build_id, invalid_session, other_session);
  require(sdk_number_at(record, "pid") == binding.pid, invalid_session, other_session);
}

void check_sequence(const Json& record, std::uint64_t last_sequence) {
  const std::uint64_t sequence = sdk_number_at(record, "sequence");
  require(sequence != 0 && sequence >= last_sequence, "session_replay", "Readiness sequence went backwards");
  require(record.at("sequence").is_number_unsigned(), invalid_session, malformed_record);
}

void check_state(const Json& record) {
  require(record.at("ready_seen").is_boolean(), invalid_session, malformed_record);
  const std::string& state = text_at(record, "state");
  require(state == "starting" || state == "ready" || state == "clean_exit", invalid_session,
          "Unknown SDK session state");
}

void check_breadcrumbs(const Json& record) {
  if (!record.contains("breadcrumbs")) {
    return;
  }
  const Json& breadcrumbs = array_at(record, "breadcrumbs");
  require(breadcrumbs.size() <= maximum_breadcrumbs, invalid_session, "SDK record has too many breadcrumbs");
  for (const Json& breadcrumb : breadcrumbs) {
    const std::string& category = text_at(breadcrumb, "category");
    const std::string& message = text_at(breadcrumb, "message");
    require(category.size() <= maximum_category_bytes && message.size() <= maximum_breadcrumb_bytes, invalid_session,
            "SDK breadcrumb exceeds record bounds");
  }
}

void check_readiness(const Json& record) {
  require(!is_text(record.at("state"), "ready") || record.at("ready_seen").get_ref<const bool&>(), invalid_session,
          "Ready state lacks readiness evidence");
}

void check_attachments(const Json& record) {
  if (!record.contains("attachments")) {
    return;
  }
  const Json& attachments = array_at(record, "attachments");
  require(attachments.size() <= maximum_attachments, invalid_session, "SDK record has too many attachments");
  for (const Json& attachment : attachments) {
    const std::string& kind = text_at(attachment, "kind");
    const std::string& path = text_at(attachment, "path");
    require((kind == "log" || kind == "screenshot" || kind == "video") && path.size() <= maximum_attachment_path_bytes,
            invalid_session, "SDK attachment is invalid");
  }
}

void check_capture(const Json& record) {
  if (record.contains("native_capture_id")) {
    require(is_lower_hex(text_at(record, "native_capture_id"), capture_characters), invalid_session,
            "Native capture identity is invalid");
  }
  if (record.contains("native_capture_problem")) {
    require(text_at(record, "native_capture_problem").size() <= maximum_capture_problem_bytes, invalid_session,
            "Native capture problem exceeds its bound");
  }
}

void check_exit(const Json& record) {
  require(!is_text(record.at("state"), "clean_exit") ||
              (record.contains("exit_code") && record.at("exit_code").is_number_integer()),
          invalid_session, "Clean exit lacks an exit status");
}

}  // namespace

Json validate_sdk_record(Json record, const SessionBinding& binding, std::uint64_t last_sequence) {
  refuse_malformed(invalid_session, malformed_record, [&] {
    check_identity(record, binding);
    check_sequence(record, last_sequence);
    check_state(record);
    check_breadcrumbs(record);
    check_readiness(record);
    check_attachments(record);
    check_capture(record);
    check_exit(record);
  });
  return record;
}

}  // namespace ravok
