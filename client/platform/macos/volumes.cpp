#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>
#include <fcntl.h>
#include <sys/attr.h>
#include <sys/mount.h>
#include <sys/param.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"

namespace ravok::os {
namespace {

constexpr const char* unidentified = "Cannot identify the macOS setup volume and its case behavior";
// The system writes up to this many bytes, however large the buffer is.
constexpr std::size_t path_bytes = MAXPATHLEN;
constexpr std::size_t name_bytes = 4096;

// The volume's attributes in the order in which the system packs them.
struct __attribute__((packed)) VolumeAttributes {
  std::uint32_t size;
  vol_capabilities_attr_t capabilities;
  uuid_t identity;
};

VolumeAttributes attributes_of(int descriptor) {
  attrlist wanted{};
  wanted.bitmapcount = ATTR_BIT_MAP_COUNT;
  wanted.volattr = ATTR_VOL_INFO | ATTR_VOL_CAPABILITIES | ATTR_VOL_UUID;
  VolumeAttributes attributes{};
  require(
      fgetattrlist(descriptor, &wanted, &attributes, sizeof attributes, 0) == 0 && attributes.size == sizeof attributes,
      "unsafe_path", unidentified);
  return attributes;
}

std::string identity_of(const VolumeAttributes& attributes) {
  std::array<std::uint8_t, sizeof(uuid_t)> bytes;
  std::memcpy(bytes.data(), attributes.identity, bytes.size());
  require(std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; }), "unsafe_path",
          unidentified);
  std::string text = hex(bytes);
  for (const std::size_t position : {20u, 16u, 12u, 8u}) {
    text.insert(position, 1, '-');
  }
  return text;
}

struct ReleaseObject {
  void operator()(const void* value) const { CFRelease(value); }
};

template <typename Reference>
using Owned = std::unique_ptr<std::remove_pointer_t<Reference>, ReleaseObject>;

}  // namespace

std::optional<std::string> descriptor_path(int descriptor) {
  std::array<char, path_bytes> path{};
  if (fcntl(descriptor, F_GETPATH_NOFIRMLINK, path.data()) != 0) {
    return std::nullopt;
  }
  const auto end = std::find(path.begin(), path.end(), '\0');
  return end == path.end() ? std::nullopt : std::optional(std::string(path.begin(), end));
}

Volume local_volume(int descriptor) {
  struct statfs information;
  require(fstatfs(descriptor, &information) == 0 && (information.f_flags & MNT_LOCAL) != 0 &&
              std::strncmp(information.f_fstypename, "apfs", sizeof information.f_fstypename) == 0,
          "unsafe_path", "macOS setup control storage requires a local APFS volume");
  const char* const path = information.f_mntonname;
  const std::size_t length = strnlen(path, sizeof information.f_mntonname);
  require(length < sizeof information.f_mntonname, "unsafe_path", "Unknown macOS volume mount path");
  Volume volume;
  volume.identity = identity_of(attributes_of(descriptor));
  volume.id = static_cast<std::uint64_t>(static_cast<std::uint32_t>(information.f_fsid.val[0])) << 32 |
              static_cast<std::uint32_t>(information.f_fsid.val[1]);
  volume.mount_path = std::string(path, length);
  volume.mounted_below = "/";
  return volume;
}

bool is_mounted(int directory, std::uint64_t parent_device) {
  const auto status = status_of(directory);
  return !status || status->device != parent_device;
}

std::vector<std::string> mounts_below(const std::string& path) {
  const std::string prefix = path.ends_with('/') ? path : path + '/';
  std::vector<std::string> found;
  const int count = getfsstat(nullptr, 0, MNT_NOWAIT);
  // A few more, as volumes may be mounted meanwhile.
  std::vector<struct statfs> mounts(count > 0 ? static_cast<std::size_t>(count) + 8 : 0);
  const int filled = getfsstat(mounts.data(), static_cast<int>(mounts.size() * sizeof(struct statfs)), MNT_NOWAIT);
  for (int i = 0; i < filled; ++i) {
    const char* const name = mounts[static_cast<std::size_t>(i)].f_mntonname;
    std::string place(name, strnlen(name, sizeof mounts.front().f_mntonname));
    if (place.starts_with(prefix)) {
      found.push_back(std::move(place));
    }
  }
  return found;
}

bool compares_case(int directory) {
  const VolumeAttributes attributes = attributes_of(directory);
  const std::uint32_t valid = attributes.capabilities.valid[VOL_CAPABILITIES_FORMAT];
  require((valid & VOL_CAP_FMT_CASE_SENSITIVE) != 0, "unsafe_path", unidentified);
  return (attributes.capabilities.capabilities[VOL_CAPABILITIES_FORMAT] & VOL_CAP_FMT_CASE_SENSITIVE) != 0;
}

std::string_view path_key_form() { return "macos-apfs-v1"; }

std::string compared_name(std::string_view name, bool case_sensitive) {
  const Owned<CFStringRef> given(CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(name.data()),
                                                         static_cast<CFIndex>(name.size()), kCFStringEncodingUTF8,
                                                         false));
  require(given != nullptr, "unsafe_path", "macOS setup names must be valid UTF-8");
  const Owned<CFMutableStringRef> text(CFStringCreateMutableCopy(nullptr, 0, given.get()));
  require(text != nullptr, "unsafe_path", "Cannot normalize macOS setup names");
  CFStringNormalize(text.get(), kCFStringNormalizationFormD);
  if (!case_sensitive) {
    CFStringFold(text.get(), kCFCompareCaseInsensitive, nullptr);
    CFStringNormalize(text.get(), kCFStringNormalizationFormD);
  }
  std::array<UInt8, name_bytes> bytes;
  CFIndex size = 0;
  const CFIndex length = CFStringGetLength(text.get());
  const CFIndex converted =
      CFStringGetBytes(text.get(), CFRange{0, length}, kCFStringEncodingUTF8, 0, false, nullptr, 0, &size);
  require(converted == length, "unsafe_path", "Cannot normalize macOS setup names");
  require(size <= static_cast<CFIndex>(bytes.size()), "unsafe_path", "Normalized macOS setup names exceed their bound");
  CFStringGetBytes(text.get(), CFRange{0, length}, kCFStringEncodingUTF8, 0, false, bytes.data(),
                   static_cast<CFIndex>(bytes.size()), &size);
  return std::string(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(size));
}

}  // namespace ravok::os
