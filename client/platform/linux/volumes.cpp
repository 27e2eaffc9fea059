#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <span>
#include <sstream>
#include <system_error>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utf8proc.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/os.hpp"

namespace ravok::os {
namespace {

// More than any machine has.
constexpr std::size_t maximum_devices = 65'536;

constexpr const char* unidentified = "Cannot identify the Linux setup volume and its case behavior";

// File systems whose files lie on another machine. Some have no name in the system's headers.
constexpr std::array<std::uint32_t, 13> network_file_systems = {
    NFS_SUPER_MAGIC, SMB_SUPER_MAGIC,  CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC, AFS_SUPER_MAGIC,
    AFS_FS_MAGIC,    CEPH_SUPER_MAGIC, CODA_SUPER_MAGIC, V9FS_MAGIC,       NCP_SUPER_MAGIC,
    0x0BD00BD0,  // Lustre
    0x47504653,  // GPFS
    0x19830326,  // BeeGFS
};

// File systems on another machine that a user's process serves, by the name that the mount gives.
constexpr std::array<std::string_view, 9> network_kinds = {"fuse.sshfs",      "fuse.glusterfs", "fuse.rclone",
                                                           "fuse.s3fs",       "fuse.davfs",     "fuse.curlftpfs",
                                                           "fuse.gvfsd-fuse", "fuse.smbnetfs",  "fuse.cephfs"};

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

std::string uuid_text(std::span<const std::uint8_t> bytes) {
  std::string text = hex(bytes);
  for (const std::size_t position : {20u, 16u, 12u, 8u}) {
    text.insert(position, 1, '-');
  }
  return text;
}

std::string uuid_of_file_system(int descriptor) {
  FileSystemUuid uuid{};
  if (ioctl(descriptor, get_file_system_uuid, &uuid) != 0 || uuid.length != uuid.bytes.size() ||
      std::all_of(uuid.bytes.begin(), uuid.bytes.end(), [](std::uint8_t byte) { return byte == 0; })) {
    return {};
  }
  return uuid_text(uuid.bytes);
}

std::string uuid_of_btrfs(int descriptor) {
  btrfs_ioctl_fs_info_args information{};
  if (file_system_kind(descriptor) != BTRFS_SUPER_MAGIC || ioctl(descriptor, BTRFS_IOC_FS_INFO, &information) != 0) {
    return {};
  }
  return uuid_text(information.fsid);
}

// The UUID by which the system's device manager names the block device. Every user may read those names.
std::string uuid_listed_for(dev_t device) {
  const Result<Handle> list = open("/dev/disk/by-uuid", OpenAs::linked_directory);
  if (!list) {
    return {};
  }
  for (std::string& name : names_in(list->get(), maximum_devices)) {
    struct stat status;
    if (fstatat(list->get(), name.c_str(), &status, 0) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == device) {
      return std::move(name);
    }
  }
  return {};
}

std::string uuid_of_block_device(const std::string& source) {
  struct stat status;
  if (!source.starts_with('/') || stat(source.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
    return {};
  }
  return uuid_listed_for(status.st_rdev);
}

// `source` is what the mount names as its device. A volume whose UUID neither the kernel nor the device manager tells
// is known by its device number. Nothing is read from the device itself, which only user 0 may do: a volume must not
// have two identities, one for each user.
std::string identity_of(int descriptor, dev_t device, const std::string& source) {
  std::string identity = uuid_of_file_system(descriptor);
  if (identity.empty()) {
    identity = uuid_of_btrfs(descriptor);
  }
  if (identity.empty()) {
    identity = uuid_of_block_device(source);
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

// A line of the kernel's table of mounts.
struct Mount {
  std::string path = "/";   // where the volume is mounted
  std::string below = "/";  // the path within the volume that is mounted there
  std::string kind;         // the kind of file system
  std::string source;       // the device, for a file system that has one
};

// Returns the line of a mount. A mount without a line, as in a changed root, is taken for all that the process sees.
Mount read_mount(long wanted) {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    long number = 0;
    std::string parent;
    std::string device;
    std::string below;
    std::string path;
    if (!(fields >> number >> parent >> device >> below >> path) || number != wanted) {
      continue;
    }
    Mount mount{without_escapes(path), without_escapes(below), {}, {}};
    // Options, of which there may be any number, end with a dash.
    for (std::string word; fields >> word && word != "-";) {
    }
    std::string source;
    if (fields >> mount.kind >> source) {
      mount.source = without_escapes(source);
    }
    return mount;
  }
  return {};
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
  // The system adds a remark to the path of something that was removed, so the path leads nowhere or elsewhere.
  const auto opened = status_of(descriptor);
  const auto named = link_status_of(path);
  return opened && named && same_file(*opened, *named) ? std::optional(path) : std::nullopt;
}

Volume local_volume(int descriptor) {
  constexpr const char* not_local = "Linux setup control storage requires a local volume";
  require(!is_one_of(network_file_systems, file_system_kind(descriptor)), "unsafe_path", not_local);
  const auto status = status_of(descriptor);
  const long number = mount_of(descriptor);
  require(status && number >= 0, "unsafe_path", unidentified);
  const Mount mount = read_mount(number);
  require(std::find(network_kinds.begin(), network_kinds.end(), mount.kind) == network_kinds.end(), "unsafe_path",
          not_local);
  return {identity_of(descriptor, static_cast<dev_t>(status->device), mount.source), static_cast<std::uint64_t>(number),
          mount.path, mount.below};
}

bool is_mounted(int directory, std::uint64_t parent_device) {
  struct statx information {};
  if (statx(directory, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &information) == 0 &&
      (information.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    return (information.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }
  // For a kernel that does not tell: another device means a mount. A part of the same volume goes unnoticed.
  const auto status = status_of(directory);
  return !status || status->device != parent_device;
}

std::vector<std::string> mounts_below(const std::string& path) {
  const std::string prefix = path.ends_with('/') ? path : path + '/';
  std::vector<std::string> found;
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string field;
    // The path is the fifth field.
    for (int i = 0; i < 5 && fields >> field; ++i) {
    }
    std::string place = without_escapes(field);
    if (fields && place.starts_with(prefix)) {
      found.push_back(std::move(place));
    }
  }
  return found;
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
  // The comparison also ignores characters that show nothing.
  const auto decompose = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_IGNORE);
  const auto fold = static_cast<utf8proc_option_t>(decompose | UTF8PROC_CASEFOLD);
  return mapped(mapped(name, decompose), fold);
}

}  // namespace ravok::os
