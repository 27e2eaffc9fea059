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
#include "publisher/installer_entry.hpp"
#include "publisher/program_image.hpp"
#include "publisher/program_signing.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/single_file_installer.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_entries = 65'536;  // of a package that has been proved
constexpr std::uint64_t notices_limit = 16'777'216;
constexpr const char* package_name = "initial-package";
constexpr const char* program_name = "ravok-install";
constexpr const char* window_program_name = "ravok-install-gui";
constexpr const char* unbranded_product = "Ravok";

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
  ExportFile output(to);
  read_in_pieces(from, [&](std::string_view piece) {
    output.write(piece);
    report(progress, piece.size(), 0);
  });
  output.commit();
}

// Returns whether a snapshot has notices, in whichever of its folders.
bool has_notices(const SnapshotManifest& snapshot) {
  return std::any_of(snapshot.files.begin(), snapshot.files.end(), [](const auto& file) {
    const std::string_view path = file.first;
    return path.substr(path.rfind('/') + 1) == third_party_notices;
  });
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

// A program's image with its seal in it.
struct SealedProgram {
  std::string image;
  bool to_sign = false;
};

// An installer's parts, once everything that can be judged without writing has been judged.
class InstallerAssembly {
 public:
  InstallerAssembly(const InstallerPublication& publication, const ProgressCallback& progress)
      : publication_(publication), progress_(progress), output_(output_path(publication.output)) {}

  PublishedInstaller publish() {
    published_.seal = seal_of(publication_.package);
    require_absent(output_);
    require_outside(output_, publication_.package,
                    publication_.single_file ? "The installer must lie outside the package"
                                             : "The installer's folder must lie outside the package");
    read_programs();
    if (!publication_.notices.empty() && !publication_.single_file) {
      notices_ = about(publication_.notices, [&] { return read_file(publication_.notices, notices_limit); });
      published_.notices = output_ / third_party_notices;
    }
    // The package is proved, copied, and proved again where it will be shipped from.
    const NativePackage package = read_native_package(publication_.package, published_.seal, pass(0));
    published_.root_expires = root_expiry(package.root_json);
    published_.notices_in_client = has_notices(package.bootstrap) || has_notices(package.launcher);
    if (publication_.single_file) {
      write_file();
    } else {
      write_folder(package.brand ? package.brand->name : unbranded_product);
    }
    return published_;
  }

 private:
  bool has_window() const { return !publication_.window_program.empty(); }

  void read_programs() {
    if (!has_window() || !publication_.single_file) {
      program_ = about(publication_.program, [&] { return read_program(publication_.program); });
    }
    if (has_window()) {
      window_program_ = about(publication_.window_program, [&] {
        SealedProgram program = read_program(publication_.window_program);
        require(!is_for_macos(program.image), "invalid_installer", "The program with a window must be one for Linux");
        require(program.image != program_.image, "invalid_installer",
                "The program with a window is the same as the one for the console");
        return program;
      });
    }
  }

  static bool is_for_macos(const std::string& image) { return inspect_program_image(image) != ProgramImage::other; }

  SealedProgram read_program(const std::filesystem::path& path) const {
    SealedProgram program;
    program.image = with_seal(read_file(path, maximum_installer_program_bytes), published_.seal);
    require_bare_program(program.image);
    program.to_sign = must_be_signed(publication_, program.image);
    const bool for_macos = is_for_macos(program.image);
    require(!publication_.desktop_file || !for_macos, "invalid_installer",
            "Desktop entries start programs for Linux alone");
    if (publication_.single_file) {
      require(!for_macos, "invalid_installer", "A program for macOS carries no package; make a folder");
      require_place_for_package(program.image);
    }
    return program;
  }

  // The progress of one of the three passes over the package, as a part of the whole.
  ProgressCallback pass(std::uint64_t before) {
    return [this, before](std::uint64_t done, std::uint64_t total) {
      whole_ = 3 * total;
      copied_ = total;
      return !progress_ || progress_(before * total + done, whole_);
    };
  }

  // The progress of the second pass, which is told of each piece.
  ProgressCallback copying() {
    return [this](std::uint64_t count, std::uint64_t) {
      copied_ += count;
      return !progress_ || progress_(std::min(copied_, whole_ / 3 * 2), whole_);
    };
  }

  void write_file() {
    OutputFile file(output_);
    const AppendedPlace place = write_single_file_installer(has_window() ? window_program_.image : program_.image,
                                                            publication_.package, file, copying());
    read_native_package(AppendedPackage::in_range(file.written(), output_, place), published_.seal, pass(2));
    file.commit();
    file.keep();
    published_.program = output_;
  }

  void write_folder(const std::string& product) {
    NewFolder folder(output_);
    const std::filesystem::path package = folder.path() / package_name;
    make_output_folder(folder.handle(), package_name, package);
    const ProgressCallback progress = copying();
    for (const std::string& name : names_in(publication_.package, maximum_entries)) {
      copy_file(publication_.package / name, package / name, progress);
    }
    read_native_package(package, published_.seal, pass(2));
    write_program(program_, folder.path() / program_name);
    if (has_window()) {
      write_program(window_program_, folder.path() / window_program_name);
      published_.window_program = output_ / window_program_name;
    }
    if (!published_.notices.empty()) {
      write_new_file(folder.path() / third_party_notices, notices_);
    }
    if (publication_.desktop_file) {
      const std::string name = std::string(has_window() ? window_program_name : program_name) + ".desktop";
      write_runnable(folder.path() / name,
                     has_window() ? window_installer_desktop_entry(product) : installer_desktop_entry(product));
      published_.desktop_file = output_ / name;
    }
    folder.commit();
    published_.program = output_ / program_name;
    published_.package = output_ / package_name;
  }

  // File managers start an entry only if it may be executed.
  static void write_runnable(const std::filesystem::path& path, std::string_view bytes) {
    OutputFile file(path);
    file.write(bytes);
    file.make_program();
    file.commit();
    file.keep();
  }

  void write_program(const SealedProgram& program, const std::filesystem::path& path) const {
    write_new_file(path, program.image);
    std::filesystem::permissions(path, std::filesystem::perms(permissions::program));
    if (program.to_sign) {
      sign_program(publication_.signer, path,
                   publication_.signing_identity.empty() ? "-" : publication_.signing_identity);
    }
    sync_file(path);
  }

  const InstallerPublication& publication_;
  const ProgressCallback& progress_;
  const std::filesystem::path output_;
  PublishedInstaller published_;
  SealedProgram program_;
  SealedProgram window_program_;
  std::string notices_;
  std::uint64_t copied_ = 0;  // bytes, of two passes
  std::uint64_t whole_ = 0;   // bytes, of all three
};

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
  return InstallerAssembly(publication, progress).publish();
}

}  // namespace ravok
