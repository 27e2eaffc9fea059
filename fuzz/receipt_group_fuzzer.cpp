// The lines of the input are the files of one receipt: the first is the receipt's own, which is missing where the line
// is empty, and the others are writes of it that did not end. They are refused in words, or every one of them is the
// start of what the receipt in force says in one of its phases, and there is one that holds all of it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "app/download/download_receipt.hpp"
#include "app/download/receipt_group.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "property.hpp"
#include "record_files.hpp"

namespace {

using ravok::Json;
using ravok::fuzz::must_hold;

const std::string nonce(32, '1');

// Whether the text says the same as the receipt, perhaps in other characters.
bool says(const std::string& text, const Json& receipt) {
  const Json parsed = Json::parse(text, nullptr, false);
  return !parsed.is_discarded() && parsed == receipt;
}

void check(const Json& group, const ravok::EvidenceFiles& files) {
  const Json& receipt = group.at("receipt");
  ravok::validate_target_download_receipt(receipt);
  must_hold(group.at("nonce") == nonce && receipt.at("nonce") == nonce, "a group has the nonce of its files");
  must_hold(group.at("files").size() == files.size(), "a group tells of every file");
  bool is_whole = false;
  std::size_t place = 0;
  for (const auto& [name, text] : files) {
    bool is_explained = false;
    for (const std::string_view phase : {"prepared", "complete"}) {
      const Json other = ravok::receipt_in_phase(receipt, phase);
      is_explained = is_explained || other.dump().starts_with(text) || says(text, other);
    }
    must_hold(is_explained, "every file is the start of a known text");
    is_whole = is_whole || says(text, receipt);
    const Json& entry = group.at("files").at(place++);
    must_hold(entry.at("name") == name && entry.at("length") == text.size() &&
                  entry.at("sha256") == ravok::digest(text, "sha256"),
              "a file is told of by its bytes");
    must_hold(!name.ends_with(".json") || entry.at("sha256") == group.at("receipt_sha256"),
              "the receipt's own file is the one that is compared");
  }
  must_hold(is_whole, "the receipt in force is in a file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ravok::EvidenceFiles files =
      ravok::fuzz::record_files(nonce + ".json", {reinterpret_cast<const char*>(data), size});
  try {
    check(ravok::parse_target_download_receipt_group(nonce, files), files);
  } catch (const ravok::Error& refusal) {
    must_hold(!refusal.code.empty() && refusal.what()[0] != '\0', "a refusal has a code and words");
  }
  return 0;
}
