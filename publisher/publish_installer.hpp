// Publishing an installer: a folder ready to ship, with the installer programs sealed for one package and that
// package beside them; or one file, with that package behind the program.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/os.hpp"
#include "platform/snapshot/progress.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

struct InstallerPublication {
  std::filesystem::path package;  // as publish_package wrote it
  std::filesystem::path program;  // ravok-install, whatever its seal
  // ravok-install-gui, whatever its seal, for an installer with a window; empty for one without. It is the only program
  // of one file, and then `program` is not looked at.
  std::filesystem::path window_program;
  std::filesystem::path output;  // the folder or the file to make
  // The licences of the libraries that the programs are made with, which are put beside them in a folder; empty for
  // none.
  std::filesystem::path notices;
  // Who signs a program for macOS: an identity of the keychain; empty, or "-", for a signature that names nobody.
  std::string signing_identity;
  // The program that signs it, which takes the words of codesign; empty where there is none.
  std::string signer = std::string(os::program_signer());
  bool single_file = false;  // one file in place of a folder
  bool desktop_file =
      false;  // a desktop entry in the folder, which starts the program with a window, or else the other
};

struct PublishedInstaller {
  std::filesystem::path program;         // or the one file
  std::filesystem::path window_program;  // beside it; empty for none, and for one file
  std::filesystem::path package;         // empty if it lies in the program's file
  std::filesystem::path notices;         // empty for none
  std::filesystem::path desktop_file;    // empty if none was asked for
  bool notices_in_client = false;        // whether notices are among the files of what the package installs
  std::string seal;
  TufTime root_expires;  // nobody can install the package from this time on
};

// Returns an installer's image with this seal in its slot. Fails with "invalid_installer" for an image that does not
// have exactly one slot.
std::string with_seal(std::string image, std::string_view seal);

// By what name the notices lie beside programs.
inline constexpr std::string_view third_party_notices = "third-party-notices.txt";

// Writes "ravok-install", "ravok-install-gui" if one is given, "initial-package" and the notices into a new folder, or
// one program and the package into one new file, and reads the package there with the seal in the programs. macOS
// starts a program only with a signature that fits it, so a program for macOS is signed again after it was given its
// seal. `progress`, which may be empty, is told of the bytes proved, copied and proved again. After a failure nothing
// is left behind. Fails with "output_exists"; "invalid_installer" for a program without a place for a seal, for one
// that carries a package already, for one that had to be signed again where there is no signer, for an identity where
// nothing is signed, for one file, a desktop entry or a window of a program for macOS, for one file of a program
// without a place for a package, and for two programs that are the same; "unsafe_path" for an output in the package;
// "invalid_program" and "program_signature" for a program's image and its signing; "file_read", "insufficient_space",
// "file_write", "file_sync" and "cancelled"; and as read_native_package does.
PublishedInstaller publish_installer(const InstallerPublication& publication, const ProgressCallback& progress);

}  // namespace ravok
