#include "tuf/resume_state.hpp"

#include <algorithm>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/transaction_name.hpp"

namespace ravok {
namespace {

constexpr std::string_view resume_code = "download_resume_state";
constexpr std::string_view unknown_state =
    "Unknown partial-download state was preserved; clear the disposable cache to retry";
constexpr std::string_view partial_ending = ".partial";
constexpr std::string_view state_ending = ".resume.json";

bool is_unsigned(const Json& value) {
  return value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= 0);
}

bool has_sha256(const Json& object, const char* key) {
  return object.at(key).is_string() && is_sha256_text(text_at(object, key));
}

bool is_safe_target(const Json& target) {
  if (!target.is_string()) {
    return false;
  }
  try {
    validate_relative_path(target.get_ref<const std::string&>(), false);
    return true;
  } catch (const Error&) {
    return false;
  }
}

bool is_identity(const Json& value) {
  return value.is_array() && value.size() == 2 && is_unsigned(value.at(0)) && is_unsigned(value.at(1));
}

void require_known_form(const Json& state) {
  require(has_exactly(state, {"schema_version", "kind", "target", "temporary", "authorization", "scope_sha256",
                              "identity", "received", "prefix_sha256"}) &&
              is_integer(state.at("schema_version"), 1) && is_text(state.at("kind"), resume_state_kind) &&
              is_safe_target(state.at("target")) && state.at("temporary").is_string() &&
              state.at("authorization").is_object() && has_sha256(state, "scope_sha256") &&
              is_identity(state.at("identity")) && is_unsigned(state.at("received")) &&
              has_sha256(state, "prefix_sha256"),
          resume_code, unknown_state);
}

void require_bounds(const Json& state) {
  const Json& authorization = state.at("authorization");
  require(has_exactly(authorization, {"length", "hashes"}) && is_unsigned(authorization.at("length")) &&
              authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
              state.at("received").get<std::uint64_t>() <= authorization.at("length").get<std::uint64_t>(),
          resume_code, "Invalid partial-download bounds");
}

// Returns a path's last component.
std::string_view file_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// Whether the name is that of a partial file of any target.
bool is_partial_name(std::string_view name) {
  const std::size_t ending = 1 + download_nonce_characters + partial_ending.size();
  return name.size() > ending && !partial_nonce(name, name.substr(0, name.size() - ending)).empty();
}

void require_own_partial(const Json& state, std::string_view partial) {
  const std::string& temporary = text_at(state, "temporary");
  const bool has_folder = file_name(partial).size() < partial.size();
  require(is_partial_name(temporary) && (has_folder ? temporary == partial : file_name(temporary) == partial),
          resume_code, "Partial-download nonce differs from its path");
}

}  // namespace

bool is_download_nonce(std::string_view text) { return is_lower_hex(text, download_nonce_characters); }

std::string partial_name(std::string_view target, std::string_view nonce) {
  return std::string(target).append(".").append(nonce).append(partial_ending);
}

std::string resume_state_name(std::string_view partial) { return std::string(partial).append(state_ending); }

std::string_view partial_nonce(std::string_view partial, std::string_view target) {
  if (!partial.starts_with(target) || !partial.ends_with(partial_ending) ||
      partial.size() != target.size() + 1 + download_nonce_characters + partial_ending.size() ||
      partial[target.size()] != '.') {
    return {};
  }
  const std::string_view nonce = partial.substr(target.size() + 1, download_nonce_characters);
  return is_download_nonce(nonce) ? nonce : std::string_view();
}

bool is_record_file(std::string_view name, std::string_view record) {
  return name == record || is_transaction_name(name, record);
}

Json make_resume_state(const ResumeSubject& subject, std::uint64_t received, std::string_view prefix_sha256) {
  return {{"schema_version", 1U},
          {"kind", resume_state_kind},
          {"target", subject.target},
          {"temporary", subject.temporary},
          {"authorization", subject.authorization},
          {"scope_sha256", subject.scope_sha256},
          {"identity", Json::array({subject.device, subject.inode})},
          {"received", received},
          {"prefix_sha256", prefix_sha256}};
}

std::string resume_state_text(const Json& state) {
  std::string text = state.dump();
  require(text.size() <= maximum_resume_state_bytes, "size_limit", "Partial-download state exceeds its bound");
  return text;
}

void resume_shape(const Json& state, std::string_view partial) {
  refuse_malformed(resume_code, "Malformed partial-download state was preserved", [&] {
    require_known_form(state);
    require_bounds(state);
    require_own_partial(state, partial);
  });
}

void validate_target_resume_state(const Json& state, std::string_view partial) { resume_shape(state, partial); }

}  // namespace ravok
