#include "app/publish_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/os.hpp"
#include "platform/tree.hpp"

namespace ravok {

void require_absent(const std::filesystem::path& path) {
  require(is_missing(path), "output_exists", "The output already exists: " + path_utf8(path));
}

std::filesystem::path output_path(const std::filesystem::path& path) {
  const std::filesystem::path named = path.has_filename() ? path : path.parent_path();
  return named.has_parent_path() ? named : "." / named;
}

void write_new_file(const std::filesystem::path& path, std::string_view bytes) {
  gone_unless_durable(path, [&] {
    ExportFile file(path);
    file.write(bytes);
    file.commit();
  });
}

NewFolder::NewFolder(const std::filesystem::path& output)
    : output_(output), path_(output.native() + "." + random_id() + ".tmp") {
  require(mkdir(path_.c_str(), 0755) == 0, "file_write", "Cannot make the directory " + path_utf8(path_));
}

NewFolder::~NewFolder() {
  if (!path_.empty()) {
    remove_path_quietly(path_);
  }
}

void NewFolder::commit() {
  sync_directory(path_);
  require(os::rename_exclusive(AT_FDCWD, path_.c_str(), AT_FDCWD, output_.c_str()) == 0, "file_write",
          "Cannot give the directory its name: " + path_utf8(output_));
  // Under its new name it goes too, unless that lasts.
  path_ = output_;
  sync_directory(output_.parent_path());
  path_.clear();
}

}  // namespace ravok
