#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/manifest.hpp"
#include "support/allocation_meter.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::manifest_memory_test {
namespace {

std::string large_manifest() {
  std::vector<testing::ManifestFile> files;
  for (int i = 1; i < 100000; ++i) {
    files.push_back({"content/part" + std::to_string(i / 500) + "/asset-" + std::to_string(i) + ".bin"});
  }
  return testing::manifest_document(files).dump();
}

// The manifest holds the document, so what parse adds and the document count together.
TEST(SnapshotManifestMemory, StaysWithinThreeTimesTheParsedValue) {
  const std::string text = large_manifest();
  const std::size_t value_bytes = testing::peak_bytes([&] { parse_json(text, text.size()); });
  const std::size_t copied = testing::peak_bytes([&] {
    const Json document = parse_json(text, text.size());
    SnapshotManifest::parse(document);
  });
  EXPECT_LT(copied, 3 * value_bytes);
  const std::size_t moved = testing::peak_bytes([&] { SnapshotManifest::parse(parse_json(text, text.size())); });
  EXPECT_LT(moved, 2 * value_bytes);
}

}  // namespace
}  // namespace ravok::manifest_memory_test
