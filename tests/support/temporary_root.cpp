#include "support/temporary_root.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace ravok::testing {

TemporaryRoot::TemporaryRoot(const std::filesystem::path& base) {
  // The path has no links of the system's at its head, which the tests do not expect.
  std::string pattern = std::filesystem::canonical(base) / "ravok-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("Cannot make a temporary directory for a test");
  }
  path_ = pattern;
}

TemporaryRoot::~TemporaryRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryRoot::write(std::string_view relative, std::string_view content) const {
  const std::filesystem::path path = path_ / relative;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("Cannot write a file for a test");
  }
  return path;
}

std::filesystem::path TemporaryRoot::directory(std::string_view relative) const {
  const std::filesystem::path path = path_ / relative;
  std::filesystem::create_directories(path);
  return path;
}

std::string TemporaryRoot::read(std::string_view relative) const {
  std::ifstream file(path_ / relative, std::ios::binary);
  if (!file) {
    throw std::runtime_error("Cannot read a file of a test: " + std::string(relative));
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> TemporaryRoot::names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
    std::string name = entry.path().lexically_relative(path_);
    if (entry.is_symlink()) {
      name += '@';
    } else if (entry.is_directory()) {
      name += '/';
    }
    names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool is_root() { return geteuid() == 0; }

}  // namespace ravok::testing
