// What the commands have in common: judging options, and telling of files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "publisher/commands/commands.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// Runs what judges options and looks at no file. What it refuses is a wrong command line: it becomes a failure with
// "usage" and the same message.
template <typename Work>
void judge_options(Work work) {
  try {
    work();
  } catch (const Error& error) {
    fail("usage", error.what());
  }
}

// Returns the check of an option's value that takes whole numbers from `least` to `most` and describes them in the
// help. Its refusal is worded here, since versions of the library differ in theirs.
CLI::Validator in_range(std::int64_t least, std::int64_t most);

// Returns the text as a document can hold it: as it is, or escaped for a terminal if it is not UTF-8.
std::string json_text(const std::string& text);

// Adds to the result of making a package or an installer until when it can be installed, and complains of less than two
// years. `at` is the present time.
void tell_root_expiry(TufTime expires, TufTime at, CommandResult& result);

// Returns a file as documents tell of it: "path", "length" in bytes, and "sha256". Fails as digest_file and
// std::filesystem::file_size do.
Json described_file(const std::filesystem::path& path);

// Returns a folder of files: "path", and "files", each with "name", "length" and "sha256". Fails as the function above
// and names_in do.
Json described_folder(const std::filesystem::path& path);

}  // namespace ravok
