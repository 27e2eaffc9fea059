// A directory of a test's own on another volume than its temporary root, where there is one.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

#include "platform/file/status.hpp"

namespace ravok::testing {

class SecondVolume {
 public:
  explicit SecondVolume(const std::filesystem::path& first) {
    std::string pattern = "/dev/shm/ravok-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      return;
    }
    path_ = pattern;
    const auto here = link_status_of(path_);
    const auto there = link_status_of(first);
    differs_ = here && there && here->device != there->device;
  }
  ~SecondVolume() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  SecondVolume(const SecondVolume&) = delete;
  SecondVolume& operator=(const SecondVolume&) = delete;

  explicit operator bool() const { return differs_; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  bool differs_ = false;
};

}  // namespace ravok::testing
