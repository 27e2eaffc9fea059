#include "app/command/program_version.hpp"

#include <algorithm>

#include "app/command/console_output.hpp"
#include "domain/error.hpp"
#include "platform/process/native_platform.hpp"

namespace ravok {
namespace {

constexpr std::string_view version_json_option = "--json";

std::string version_line(std::string_view name, std::string_view value) {
  return value.empty() ? std::string() : std::string(name) + ": " + std::string(value) + "\n";
}

}  // namespace

std::string version_text(const ProgramVersion& version) {
  return std::string(version.program) + " " + std::string(client_version) + "\n" +
         version_line("Build", version.build_id) + version_line("Commit", version.commit) +
         version_line("Platform", native_platform());
}

Json version_document(const ProgramVersion& version) {
  Json document = {{"schema_version", 1},
                   {"program", version.program},
                   {"version", client_version},
                   {"commit", nullptr},
                   {"platform", native_platform()}};
  if (!version.commit.empty()) {
    document["commit"] = version.commit;
  }
  if (!version.build_id.empty()) {
    document["build_id"] = version.build_id;
  }
  return document;
}

std::optional<int> answer_version(const std::vector<std::string>& arguments, const ProgramVersion& version) {
  const auto given = [&](std::string_view option) { return std::count(arguments.begin(), arguments.end(), option); };
  const bool json = given(version_json_option) == 1;
  if (given(version_option) != 1 || arguments.size() != (json ? 2 : 1)) {
    return std::nullopt;
  }
  try {
    print_result(json ? version_document(version).dump() + "\n" : version_text(version));
    return 0;
  } catch (const Error& error) {
    return tell_failure(error, json);
  }
}

}  // namespace ravok
