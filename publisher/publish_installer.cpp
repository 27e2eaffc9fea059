#include "publisher/publish_installer.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "app/install/native_package.hpp"
#include "app/install/package_seal.hpp"
#include "domain/crypto.hpp"
#include "domain/limits.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/tree_walk.hpp"
#include "publisher/program_image.hpp"
#include "publisher/program_signing.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/publish_root.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t program_limit = 268'435'456;
constexpr std::size_t maximum_entries = 65'536;  // of a package that has been proved
constexpr std::uint64_t notices_limit = 16'777'216;
constexpr const char* package_name = "initial-package";
constexpr const char* program_name = "ravok-install";

// Whether the bytes begin with a slot, with a seal in it or without. The mark alone is not enough: this program's own
// image has it too, with something else after it.
bool is_slot(std::string_view bytes) {
  const std::string_view seal = bytes.substr(package_seal_mark.size(), seal_characters);
  return seal.size() == seal_characters &&
         std::all_of(seal.begin(), seal.end(), [](char c) { return is_lower_hex(c) || c == '-'; });
}

std::string seal_of(const std::filesystem::path& package) {
  const std::filesystem::path descriptor = package / package_limits::descriptor_name;
  return digest(about(descriptor, [&] { return read_file(descriptor, package_limits::descriptor); }), "sha256");
}

void copy_file(const std::filesystem::path& from, const std::filesystem::path& to, const ProgressCallback& progress) {
  const Result<Handle> input = os::open(from, os::OpenAs::file);
  require(input.has_value(), "file_read", "Cannot open file: " + path_utf8(from));
  ExportFile output(to);
  std::string buffer(piece_bytes, '\0');
  for (;;) {
    const Result<std::size_t> count = os::read(input->get(), buffer.data(), buffer.size());
    require(count.has_value(), "file_read", "Cannot read file: " + path_utf8(from));
    if (*count == 0) {
      break;
    }
    output.write({buffer.data(), *count});
    report(progress, *count, 0);
  }
  output.commit();
}

// Returns whether the program must be signed once its seal is in it.
bool must_be_signed(const InstallerPublication& publication, const std::string& program) {
  constexpr const char* code = "invalid_installer";
  const ProgramImage image = inspect_program_image(program);
  if (publication.signer.empty()) {
    require(image != ProgramImage::signed_macos, code,
            "A package seal breaks the signature of this program for macOS, which can be signed again on macOS alone; "
            "make the installer there");
    require(publication.signing_identity.empty(), code, "Programs are signed on macOS alone");
    return false;
  }
  require(image != ProgramImage::other || publication.signing_identity.empty(), code,
          "Only a program for macOS is signed");
  return image != ProgramImage::other;
}

}  // namespace

std::string with_seal(std::string image, std::string_view seal) {
  const std::size_t slot = image.find(package_seal_mark);
  require(slot != std::string::npos && image.find(package_seal_mark, slot + 1) == std::string::npos &&
              is_slot(std::string_view(image).substr(slot)),
          "invalid_installer", "The program has no place for a package seal");
  image.replace(slot + package_seal_mark.size(), seal_characters, seal);
  return image;
}

PublishedInstaller publish_installer(const InstallerPublication& publication, const ProgressCallback& progress) {
  PublishedInstaller published;
  const std::filesystem::path output = output_path(publication.output);
  published.program = output / program_name;
  published.package = output / package_name;
  published.seal = seal_of(publication.package);
  require_absent(output);
  require_outside(output, publication.package, "The installer's folder must lie outside the package");
  std::string program;
  bool to_sign = false;
  about(publication.program, [&] {
    program = with_seal(read_file(publication.program, program_limit), published.seal);
    to_sign = must_be_signed(publication, program);
  });

  std::string notices;
  if (!publication.notices.empty()) {
    published.notices = output / third_party_notices;
    notices = about(publication.notices, [&] { return read_file(publication.notices, notices_limit); });
  }

  // The package is proved, copied, and proved again where it will be shipped from.
  std::uint64_t whole = 0;
  const auto pass = [&](std::uint64_t before) -> ProgressCallback {
    return [&, before](std::uint64_t done, std::uint64_t total) {
      whole = 3 * total;
      return !progress || progress(before * total + done, whole);
    };
  };
  published.root_expires = root_expiry(read_native_package(publication.package, published.seal, pass(0)).root_json);
  NewFolder folder(output);
  const std::filesystem::path package = folder.path() / package_name;
  make_output_folder(folder.handle(), package_name, package);
  std::uint64_t copied = whole / 3;
  for (const std::string& name : names_in(publication.package, maximum_entries)) {
    copy_file(publication.package / name, package / name, [&](std::uint64_t count, std::uint64_t) {
      copied += count;
      return !progress || progress(std::min(copied, whole / 3 * 2), whole);
    });
  }
  read_native_package(package, published.seal, pass(2));
  const std::filesystem::path written = folder.path() / program_name;
  write_new_file(written, program);
  std::filesystem::permissions(written, std::filesystem::perms(0755));
  if (to_sign) {
    sign_program(publication.signer, written,
                 publication.signing_identity.empty() ? "-" : publication.signing_identity);
  }
  sync_file(written);
  if (!published.notices.empty()) {
    write_new_file(folder.path() / third_party_notices, notices);
  }
  folder.commit();
  return published;
}

}  // namespace ravok
