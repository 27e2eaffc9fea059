#include "platform/network/trust_store.hpp"

#include <system_error>

#include "domain/error.hpp"
#include "platform/file/files.hpp"

namespace ravok {
namespace {

// Systems put links at these places, so the file that they lead to is read.
std::string read_place(const std::filesystem::path& place) {
  std::error_code problem;
  const std::filesystem::path file = std::filesystem::canonical(place, problem);
  if (problem) {
    return {};
  }
  try {
    return read_file(file, maximum_trust_bundle_bytes);
  } catch (const Error&) {
    return {};
  }
}

}  // namespace

std::string read_trust_bundle(std::span<const std::filesystem::path> places) {
  for (const std::filesystem::path& place : places) {
    std::string bundle = read_place(place);
    if (!bundle.empty()) {
      return bundle;
    }
  }
  return {};
}

}  // namespace ravok
