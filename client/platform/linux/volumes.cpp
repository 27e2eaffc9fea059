#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include <blkid/blkid.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utf8proc.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file_status.hpp"
#include "platform/os.hpp"

namespace ravok::os {
namespace {

constexpr const char* unidentified = "Cannot identify the Linux setup volume and its case behavior";

// File systems whose files lie on another machine. Some have no name in the system's headers.
constexpr std::array<std::uint32_t, 13> network_file_systems = {
    NFS_SUPER_MAGIC, SMB_SUPER_MAGIC,  CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC, AFS_SUPER_MAGIC,
    AFS_FS_MAGIC,    CEPH_SUPER_MAGIC, CODA_SUPER_MAGIC, V9FS_MAGIC,       NCP_SUPER_MAGIC,
    0x0BD00BD0,  // Lustre
    0x47504653,  // GPFS
    0x19830326,  // BeeGFS
};

// File systems that compare names without case in every directory.
constexpr std::array<std::uint32_t, 2> case_insensitive_file_systems = {MSDOS_SUPER_MAGIC, EXFAT_SUPER_MAGIC};

// The request and the answer of the file system's UUID, which older headers lack.
struct FileSystemUuid {
  std::uint8_t length;
  std::array<std::uint8_t, 16> bytes;
};
constexpr unsigned long get_file_system_uuid = _IOR(0x15, 0, FileSystemUuid);

std::uint32_t file_system_kind(int descriptor) {
  struct statfs information;
  require(fstatfs(descriptor, &information) == 0, "unsafe_path", unidentified);
  return static_cast<std::uint32_t>(information.f_type);
}

template <std::size_t size>
bool is_one_of(const std::array<std::uint32_t, size>& kinds, std::uint32_t kind) {
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

std::string uuid_of_file_system(int descriptor) {
  FileSystemUuid uuid{};
  if (ioctl(descriptor, get_file_system_uuid, &uuid) != 0 || uuid.length != uuid.bytes.size() ||
      std::all_of(uuid.bytes.begin(), uuid.bytes.end(), [](std::uint8_t byte) { return byte == 0; })) {
    return {};
  }
  std::string text = hex(uuid.bytes);
  for (const std::size_t position : {20u, 16u, 12u, 8u}) {
    text.insert(position, 1, '-');
  }
  return text;
}

std::string uuid_of_block_device(dev_t device) {
  struct Release {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Release> name(blkid_devno_to_devname(device));
  const std::unique_ptr<char, Release> uuid(name ? blkid_get_tag_value(nullptr, "UUID", name.get()) : nullptr);
  return uuid ? std::string(uuid.get()) : std::string();
}

std::string identity_of(int descriptor, dev_t device) {
  std::string identity = uuid_of_file_system(descriptor);
  if (identity.empty()) {
    identity = uuid_of_block_device(device);
  }
  return identity.empty() ? "device:" + std::to_string(device) : identity;
}

// The number of the mount through which the descriptor was opened, or -1.
long mount_of(int descriptor) {
  std::ifstream information("/proc/self/fdinfo/" + std::to_string(descriptor));
  std::string key;
  for (long value = 0; information >> key;) {
    if (key == "mnt_id:" && information >> value) {
      return value;
    }
    information.ignore(4096, '\n');
  }
  return -1;
}

// The kernel writes blanks, tabs, line ends and backslashes in paths as three octal digits.
std::string without_escapes(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// Where the mount is, and what of the volume is mounted there. A mount that the process cannot
// name, as in a changed root, is all that the process sees.
void read_mount(long mount, Volume& volume) {
  volume.mount_path = "/";
  volume.mounted_below = "/";
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    long number = 0;
    std::string parent;
    std::string device;
    std::string below;
    std::string path;
    if (fields >> number >> parent >> device >> below >> path && number == mount) {
      volume.mount_path = without_escapes(path);
      volume.mounted_below = without_escapes(below);
      return;
    }
  }
}

std::string mapped(std::string_view name, utf8proc_option_t options) {
  utf8proc_uint8_t* result = nullptr;
  const utf8proc_ssize_t size = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                             static_cast<utf8proc_ssize_t>(name.size()), &result, options);
  struct Release {
    void operator()(utf8proc_uint8_t* text) const { std::free(text); }
  };
  const std::unique_ptr<utf8proc_uint8_t, Release> owner(result);
  require(size != UTF8PROC_ERROR_INVALIDUTF8, "unsafe_path", "Linux setup names must be valid UTF-8");
  require(size >= 0, "unsafe_path", "Cannot normalize Linux setup names");
  require(size <= 4096, "unsafe_path", "Normalized Linux setup names exceed their bound");
  return {reinterpret_cast<const char*>(result), static_cast<std::size_t>(size)};
}

}  // namespace

std::optional<std::string> descriptor_path(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  std::string path(4097, '\0');
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  if (size <= 0 || static_cast<std::size_t>(size) == path.size() || path.front() != '/') {
    return std::nullopt;
  }
  path.resize(static_cast<std::size_t>(size));
  // The path of what was removed has a remark behind it, and leads nowhere or elsewhere.
  const auto opened = status_of(descriptor);
  const auto named = link_status_of(path);
  return opened && named && same_file(*opened, *named) ? std::optional(path) : std::nullopt;
}

Volume local_volume(int descriptor) {
  require(!is_one_of(network_file_systems, file_system_kind(descriptor)), "unsafe_path",
          "Linux setup control storage requires a local volume");
  const auto status = status_of(descriptor);
  const long mount = mount_of(descriptor);
  require(status && mount >= 0, "unsafe_path", unidentified);
  Volume volume;
  volume.identity = identity_of(descriptor, status->st_dev);
  volume.id = device_number(*status);
  read_mount(mount, volume);
  return volume;
}

bool compares_case(int directory) {
  if (is_one_of(case_insensitive_file_systems, file_system_kind(directory))) {
    return false;
  }
  int flags = 0;
  return ioctl(directory, FS_IOC_GETFLAGS, &flags) != 0 || (flags & FS_CASEFOLD_FL) == 0;
}

std::string_view path_key_form() { return "linux-v1"; }

std::string compared_name(std::string_view name, bool case_sensitive) {
  if (case_sensitive) {
    return std::string(name);
  }
  const auto decompose = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE);
  const auto fold = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD);
  return mapped(mapped(name, decompose), fold);
}

}  // namespace ravok::os
