#include "publisher/repository/repository_files.hpp"

#include <cstddef>
#include <utility>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/file/tree_walk.hpp"
#include "publisher/leftovers.hpp"
#include "publisher/publish_files.hpp"

namespace ravok {
namespace {

// How much of a copy is written before the system is asked to begin to store it, in bytes.
constexpr std::uint64_t flush_step = std::uint64_t{8} << 20;

Handle open_folder(const std::filesystem::path& folder) {
  Result<Handle> opened = os::open(folder, os::OpenAs::linked_directory);
  require(opened.has_value(), "file_write", "Cannot open the folder " + path_utf8(folder));
  return *std::move(opened);
}

Handle open_own_folder(const std::filesystem::path& base, const std::filesystem::path& folder) {
  require_no_links(base, folder);
  return open_folder(folder);
}

// A file that is made in the workshop until it is moved into its place.
class MadeFile {
 public:
  MadeFile(const std::filesystem::path& workshop, const std::filesystem::path& path)
      : path_(path), workshop_(open_folder(workshop)), folder_(open_own_folder(workshop, folder_of(path))) {
    std::string name = name_of(path) + "." + random_id() + std::string(temporary_ending);
    Result<Handle> file =
        os::create_at(workshop_.get(), name.c_str(), os::CreateAs::output, permissions::readable_file);
    check(file.problem());
    file_ = *std::move(file);
    name_ = std::move(name);
  }

  ~MadeFile() {
    if (!name_.empty()) {
      os::remove_at(workshop_.get(), name_.c_str());
    }
  }

  MadeFile(const MadeFile&) = delete;
  MadeFile& operator=(const MadeFile&) = delete;

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      const Result<std::size_t> count = os::write(file_.get(), bytes.data(), bytes.size());
      check(count.problem());
      bytes.remove_prefix(*count);
      written_ += *count;
    }
    if (written_ - begun_ >= flush_step) {
      os::begin_flush(file_.get(), begun_, written_ - begun_);
      begun_ = written_;
    }
  }

  void commit() {
    check(os::flush(file_.get()));
    check(os::rename_at(workshop_.get(), name_.c_str(), folder_.get(), name_of(path_).c_str()));
    name_.clear();
    sync_open_directory(folder_.get());
  }

 private:
  void check(const Problem& problem) const {
    if (problem) {
      fail(problem == Cause::no_space ? "insufficient_space" : "file_write",
           "Cannot write " + path_utf8(path_) + ": " + problem_text(problem));
    }
  }

  const std::filesystem::path path_;
  const Handle workshop_;
  const Handle folder_;
  std::string name_;  // in the workshop; empty once it is in place
  Handle file_;
  std::uint64_t written_ = 0;
  std::uint64_t begun_ = 0;
};

void check_removed(const Problem& problem, const std::filesystem::path& path) {
  require(!problem || problem == Cause::missing, "file_remove",
          "Cannot remove " + path_utf8(path) + ": " + problem_text(problem));
}

}  // namespace

void sweep_workshop(const std::filesystem::path& workshop) {
  const Handle folder = open_folder(workshop);
  for (const std::string& name : names_in(folder.get(), maximum_tree_entries)) {
    if (is_temporary_name(name)) {
      os::remove_at(folder.get(), name.c_str());
    }
  }
}

void require_no_links(const std::filesystem::path& base, const std::filesystem::path& folder) {
  std::filesystem::path reached = base;
  for (const std::filesystem::path& part : folder.lexically_relative(base)) {
    reached /= part;
    const Result<Status> status = link_status_of(reached);
    require(!status || !is_link(*status), "unsafe_path",
            "A folder of the repository is a link, and none is followed there: " + path_utf8(reached));
  }
}

void make_folders(const std::filesystem::path& folder) { NewFolders(folder).keep(); }

void replace_file(const std::filesystem::path& workshop, const std::filesystem::path& path, std::string_view bytes) {
  MadeFile file(workshop, path);
  file.write(bytes);
  file.commit();
}

void copy_into_repository(const std::filesystem::path& workshop, const std::filesystem::path& source,
                          const std::filesystem::path& path, std::uint64_t length, std::string_view sha256,
                          const ProgressCallback& progress) {
  const auto refuse = [&] {
    fail("content_mismatch", "The file is not the one of its manifest: " + path_utf8(source));
  };
  const Result<Handle> input = os::open(source, os::OpenAs::linked);
  require(input.has_value(), "file_read", "Cannot open the file that the manifest names: " + path_utf8(source));
  const Result<Status> status = status_of(input->get());
  require(status && is_file(*status), "file_read",
          "The manifest names something that is no file: " + path_utf8(source));
  if (status->size != length) {
    refuse();
  }
  MadeFile output(workshop, path);
  DigestState state("sha256");
  std::vector<char> buffer(std::size_t{16} * piece_bytes);
  std::uint64_t done = 0;
  for (;;) {
    report(progress, done, length);
    const Result<std::size_t> count = os::read(input->get(), buffer.data(), buffer.size());
    require(count.has_value(), "file_read", "Cannot read the file that the manifest names: " + path_utf8(source));
    if (*count == 0) {
      break;
    }
    const std::string_view piece(buffer.data(), *count);
    if (piece.size() > length - done) {
      refuse();
    }
    state.update(piece);
    output.write(piece);
    done += piece.size();
  }
  if (done != length || state.value() != sha256) {
    refuse();
  }
  output.commit();
}

void move_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  const Handle source = open_folder(folder_of(from));
  const Handle destination = open_folder(folder_of(to));
  const Problem problem = os::rename_at(source.get(), name_of(from).c_str(), destination.get(), name_of(to).c_str());
  require(!problem, "file_write", "Cannot move a file to " + path_utf8(to) + ": " + problem_text(problem));
  sync_open_directory(destination.get());
  sync_open_directory(source.get());
}

void remove_file(const std::filesystem::path& path) {
  const Problem problem = os::remove(path);
  check_removed(problem, path);
  if (!problem) {
    sync_directory(folder_of(path));
  }
}

void remove_folder(const std::filesystem::path& path) {
  if (is_missing(path)) {
    return;
  }
  const Handle parent = open_folder(folder_of(path));
  remove_tree_at(parent.get(), name_of(path), path);
  sync_open_directory(parent.get());
}

}  // namespace ravok
