// The lines of the input are the checkpoint of one partial file, which is missing where the first line is empty, and
// writes of it that did not end. They are refused in words, or each is a checkpoint of the download, or the start of
// one; and a checkpoint that is torn at any byte is then accepted too.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "app/download/resume_evidence.hpp"
#include "domain/error.hpp"
#include "property.hpp"
#include "record_files.hpp"
#include "support/download_builder.hpp"

namespace {

using ravok::Json;
using ravok::fuzz::must_hold;

// Whether the text is a checkpoint of the receipt's download, or agrees with one up to where they may differ.
bool begins_a_checkpoint(const std::string& text, const Json& receipt) {
  Json state = ravok::testing::checkpoint_of(receipt);
  const Json parsed = Json::parse(text, nullptr, false);
  if (!parsed.is_discarded()) {
    for (const char* key : {"identity", "received", "prefix_sha256"}) {
      state[key] = parsed.value(key, Json());
    }
    return parsed == state && state.at("identity").size() == 2 &&
           state.at("received").get<std::uint64_t>() <= receipt.at("authorization").at("length");
  }
  const std::string whole = state.dump();
  const std::size_t fixed = std::min(whole.find("[") + 1, text.size());
  return text.substr(0, fixed) == whole.substr(0, fixed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Json receipt = ravok::testing::archive_receipt();
  static const std::string record = ravok::text_at(receipt, "temporary") + ".resume.json";
  const ravok::EvidenceFiles files = ravok::fuzz::record_files(record, {reinterpret_cast<const char*>(data), size});
  Json entries;
  try {
    entries = ravok::parse_target_download_resume_files(receipt, files);
  } catch (const ravok::Error& refusal) {
    must_hold(!refusal.code.empty() && refusal.what()[0] != '\0', "a refusal has a code and words");
    return 0;
  }
  must_hold(entries.size() == files.size(), "every file is told of");
  for (const auto& [name, text] : files) {
    must_hold(begins_a_checkpoint(text, receipt), "every file is the start of a checkpoint of this download");
    must_hold(name != record || Json::accept(text), "the checkpoint itself is whole");
    ravok::EvidenceFiles torn = files;
    torn[record + "." + std::string(32, 'f') + ".tmp"] = text.substr(0, text.size() / 2);
    const bool is_plain = !Json::accept(text) || Json::parse(text).dump() == text;
    if (is_plain && torn.size() <= ravok::maximum_evidence_files) {
      must_hold(ravok::parse_target_download_resume_files(receipt, torn).size() == torn.size(),
                "the start of an accepted text is accepted");
    }
  }
  return 0;
}
