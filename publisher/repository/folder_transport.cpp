#include "publisher/repository/folder_transport.hpp"

#include <cstddef>
#include <string>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_answer_bytes = 16'777'216;
constexpr std::size_t maximum_component_bytes = 8192;
constexpr long folder_status_found = 200;
constexpr long not_found = 404;

void require_answer_limit(std::uint64_t limit) {
  require(limit <= maximum_answer_bytes, "size_limit", "In-memory response limit exceeds 16 MiB");
}

bool is_relative_path(std::string_view path) {
  try {
    validate_relative_path(path, false);
    return true;
  } catch (const Error&) {
    return false;
  }
}

// Reads the next piece of a file; empty at its end.
std::string_view read_piece(const Handle& file, std::string& buffer) {
  const Result<std::size_t> count = os::read(file.get(), buffer.data(), buffer.size());
  require(count.has_value(), "file_read", "Cannot read file");
  return {buffer.data(), *count};
}

}  // namespace

FolderTransport::FolderTransport(std::filesystem::path folder) : folder_(std::move(folder)) {
  Result<Handle> root = os::open(folder_, os::OpenAs::linked_directory);
  if (!root) {
    require_handles(root.problem());
    fail("unsafe_path", "Cannot open the folder " + path_utf8(folder_) + ": " + problem_text(root.problem()));
  }
  root_ = *std::move(root);
}

std::optional<Handle> FolderTransport::open(std::string_view path) const {
  validate_relative_path(path, false);
  const auto about = [&](std::string_view message) {
    return std::string(message) + ": " + path_utf8(folder_ / path_from_utf8(path));
  };
  Handle directory;
  for (std::string_view rest = path;;) {
    const std::size_t separator = rest.find('/');
    const bool is_last = separator == std::string_view::npos;
    const std::string name(rest.substr(0, separator));
    const int parent = directory ? directory.get() : root_.get();
    Result<Handle> opened = os::open_at(parent, name.c_str(), is_last ? os::OpenAs::file : os::OpenAs::passage);
    if (!opened) {
      const Problem problem = opened.problem();
      require_handles(problem);
      const Result<Status> status = link_status_at(parent, name.c_str());
      require(!status || !is_link(*status), "unsafe_path", about("A link is not read"));
      if (problem == Cause::missing || problem == Cause::not_a_directory) {
        return std::nullopt;
      }
      fail(problem == Cause::not_a_file ? "unsafe_path" : "file_read", about("Cannot open file"));
    }
    if (!is_last) {
      directory = *std::move(opened);
      rest.remove_prefix(separator + 1);
      continue;
    }
    const Result<Status> status = status_of(opened->get());
    require(status.has_value(), "file_read", about("Cannot open file"));
    if (is_directory(*status)) {
      return std::nullopt;
    }
    require(is_file(*status), "unsafe_path", about("Expected an ordinary file"));
    return *std::move(opened);
  }
}

TransportResponse FolderTransport::answer(std::string_view path, std::uint64_t limit) const {
  const std::optional<Handle> file = open(path);
  if (!file) {
    return {not_found, ""};
  }
  TransportResponse response{folder_status_found, ""};
  std::string buffer(piece_bytes, '\0');
  for (;;) {
    const std::string_view piece = read_piece(*file, buffer);
    if (piece.empty()) {
      return response;
    }
    require(piece.size() <= limit - response.body.size(), "size_limit",
            "Server sent more than the authenticated size limit");
    response.body += piece;
  }
}

TransportResponse FolderTransport::get(std::string_view path, std::uint64_t limit) {
  require_answer_limit(limit);
  return answer(path, limit);
}

TransportResponse FolderTransport::get_component(std::string_view component, std::uint64_t limit) {
  require(!component.empty() && component.size() <= maximum_component_bytes && component != "." && component != "..",
          "size_limit", "Metadata filename exceeds its component bound");
  require_answer_limit(limit);
  return is_relative_path(component) ? answer(component, limit) : TransportResponse{not_found, ""};
}

void FolderTransport::download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                               const ProgressCallback& progress) {
  validate_relative_path(path, false);
  private_directory(destination.parent_path());
  AllocatedFile output(destination, size, {});
  const std::optional<Handle> file = open(path);
  require(file.has_value(), "http_status", "Download failed with status " + std::to_string(not_found));
  const Result<Status> status = status_of(file->get());
  require(status && status->size <= size, "length_mismatch",
          "Server length differs from the authenticated download bound");
  std::string buffer(piece_bytes, '\0');
  for (;;) {
    require(!progress || progress(output.written(), size), "cancelled", "Transfer cancelled at a safe boundary");
    const std::string_view piece = read_piece(*file, buffer);
    if (piece.empty()) {
      break;
    }
    require(piece.size() <= size - output.written(), "size_limit", "Download exceeds its authenticated length");
    output.write(piece);
  }
  output.finish(true);
}

}  // namespace ravok
