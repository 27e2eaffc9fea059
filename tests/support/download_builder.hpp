// Builds receipts and checkpoints of downloads for tests.
#pragma once

#include <cstdint>
#include <string>

#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "platform/process/native_platform.hpp"

namespace ravok::testing {

// A nonce of this digit alone.
inline std::string nonce_of(char digit) { return std::string(32, digit); }

inline Json archive_reference() { return {{"manifest_sha256", std::string(64, 'a')}, {"build_id", "build-1"}}; }

// The description of a target with this content.
inline Json description_of(const std::string& content) {
  return {{"length", content.size()}, {"hashes", {{"sha256", digest(content, "sha256")}}}};
}

// A receipt as the system writes it.
inline Json receipt_of(const std::string& target, const std::string& nonce, const std::string& phase,
                       const Json& authorization, const Json& reference) {
  return {{"schema_version", 1},
          {"kind", "ravok-launcher-download"},
          {"nonce", nonce},
          {"target", target},
          {"temporary", target + "." + nonce + ".partial"},
          {"phase", phase},
          {"authorization", authorization},
          {"reference", reference}};
}

// The receipt of an archive that is on its way.
inline Json archive_receipt(char nonce = '1', const std::string& phase = "prepared") {
  return receipt_of("launcher/archive.tar.zst", nonce_of(nonce), phase, description_of("content"), archive_reference());
}

// The receipt of the launcher's manifest.
inline Json descriptor_receipt(char nonce = '1', const std::string& phase = "prepared") {
  return receipt_of(launcher_manifest_target(), nonce_of(nonce), phase, description_of("content"), nullptr);
}

// The text that binds the checkpoints of a receipt's download to it.
inline std::string scope_of(const Json& receipt) {
  return R"({"kind":"ravok-launcher-download","reference":)" + receipt.at("reference").dump() + R"(,"target":)" +
         receipt.at("target").dump() + "}";
}

// A checkpoint of a receipt's download.
inline Json checkpoint_of(const Json& receipt, std::uint64_t received = 3) {
  return {{"schema_version", 1},
          {"kind", "ravok-target-resume"},
          {"target", receipt.at("target")},
          {"temporary", receipt.at("temporary")},
          {"authorization", receipt.at("authorization")},
          {"scope_sha256", digest(scope_of(receipt), "sha256")},
          {"identity", {64769, 1234567}},
          {"received", received},
          {"prefix_sha256", digest(std::string("content").substr(0, received), "sha256")}};
}

// What is behind a record's name in that of the transaction file of its write.
inline std::string write_ending(char digit) { return "." + std::string(32, digit) + ".tmp"; }

}  // namespace ravok::testing
