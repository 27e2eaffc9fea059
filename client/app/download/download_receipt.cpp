#include "app/download/download_receipt.hpp"

#include <algorithm>
#include <utility>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/process/native_platform.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::size_t sha512_characters = 128;

bool is_descriptor(const Json& receipt) { return is_text(receipt.at("target"), launcher_manifest_target()); }

// Whether the check passes without a failure.
template <typename Check>
bool passes(Check check) {
  try {
    check();
    return true;
  } catch (const Error&) {
    return false;
  }
}

void require_known_receipt(const Json& receipt) {
  const auto has_safe_target = [&] {
    return has_text(receipt, "target") && passes([&] { validate_relative_path(text_at(receipt, "target"), true); });
  };
  require(has_exactly(receipt, {"schema_version", "kind", "nonce", "target", "temporary", "phase", "authorization",
                                "reference"}) &&
              is_integer(receipt.at("schema_version"), 1) && is_text(receipt.at("kind"), download_receipt_kind) &&
              has_text(receipt, "nonce") && is_download_nonce(text_at(receipt, "nonce")) && has_safe_target() &&
              has_text(receipt, "temporary") &&
              (is_text(receipt.at("phase"), download_phase::prepared) ||
               is_text(receipt.at("phase"), download_phase::complete)),
          download_uncertain_code, "Unknown target download receipt was preserved");
}

void require_own_temporary(const Json& receipt) {
  require(text_at(receipt, "temporary") == partial_name(text_at(receipt, "target"), text_at(receipt, "nonce")),
          download_uncertain_code, "Download temporary path differs from its owned nonce");
}

void require_bounded_authorization(const Json& receipt) {
  const Json& authorization = receipt.at("authorization");
  const auto is_bounded_length = [&] {
    const Json& length = authorization.at("length");
    return length.is_number_integer() && (length.is_number_unsigned() || length.get<std::int64_t>() >= 0) &&
           length.get<std::uint64_t>() <= (is_descriptor(receipt) ? maximum_manifest_bytes : launcher_limits::bytes);
  };
  require(has_exactly(authorization, {"length", "hashes"}) && is_bounded_length() &&
              authorization.at("hashes").is_object() && !authorization.at("hashes").empty(),
          download_uncertain_code, "Download authorization exceeds its known bounds");
}

void require_known_hashes(const Json& hashes) {
  for (const auto& [algorithm, value] : hashes.items()) {
    const std::size_t characters = algorithm == "sha256"   ? sha256_characters
                                   : algorithm == "sha512" ? sha512_characters
                                                           : 0;
    require(characters > 0 && value.is_string() && is_lower_hex(value.get_ref<const std::string&>(), characters),
            download_uncertain_code, "Unknown download hash contract was preserved");
  }
}

bool is_archive_reference(const Json& reference) {
  return reference.is_object() && has_text(reference, "manifest_sha256") &&
         is_sha256_text(text_at(reference, "manifest_sha256")) && has_text(reference, "build_id") &&
         passes([&] { validate_identifier(text_at(reference, "build_id")); });
}

void require_reference(const Json& receipt) {
  const Json& reference = receipt.at("reference");
  if (is_descriptor(receipt)) {
    require(reference.is_null(), download_uncertain_code, "Descriptor download must not invent an installed reference");
  } else {
    require(is_archive_reference(reference), download_uncertain_code,
            "Archive download has no known manifest identity");
  }
}

}  // namespace

Json make_download_receipt(const DownloadSubject& subject, std::string_view phase) {
  return {{"schema_version", 1U},
          {"kind", download_receipt_kind},
          {"nonce", subject.nonce},
          {"target", subject.target},
          {"temporary", partial_name(subject.target, subject.nonce)},
          {"phase", phase},
          {"authorization", {{"length", subject.length}, {"hashes", subject.hashes}}},
          {"reference", subject.reference}};
}

Json receipt_in_phase(Json receipt, std::string_view phase) {
  receipt["phase"] = phase;
  return receipt;
}

bool describe_same_download(const Json& first, const Json& second) {
  return receipt_in_phase(first, download_phase::prepared) == receipt_in_phase(second, download_phase::prepared);
}

void validate_target_download_receipt(const Json& receipt) {
  refuse_malformed(download_uncertain_code, "Malformed target download receipt was preserved", [&] {
    require_known_receipt(receipt);
    require_own_temporary(receipt);
    require_bounded_authorization(receipt);
    require_known_hashes(receipt.at("authorization").at("hashes"));
    require_reference(receipt);
    require(receipt.dump().size() <= maximum_receipt_bytes, "size_limit",
            "Download receipt exceeds its bounded format");
  });
}

std::string receipt_file_name(std::string_view nonce) { return std::string(nonce).append(".json"); }

bool target_download_file_name(std::string_view name, std::string_view nonce) {
  return is_download_nonce(nonce) && is_record_file(name, receipt_file_name(nonce));
}

bool target_download_resume_file_name(std::string_view name, std::string_view partial) {
  return is_record_file(name, resume_state_name(partial));
}

std::string target_download_resume_scope(std::string_view target, const Json& reference) {
  return canonical_json({{"kind", download_receipt_kind}, {"target", target}, {"reference", reference}});
}

}  // namespace ravok
