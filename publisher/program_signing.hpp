// Signing a changed program again, by the system's own tool.
#pragma once

#include <filesystem>
#include <string>

namespace ravok {

// Signs the program at the path in place with `signer`, a program that takes the words of codesign, and replaces any
// signature that it has. The identity is one that the signer knows, or "-" for a signature that names nobody. What the
// signer says goes to standard error. Fails with "program_signature"; the program must then not be used.
void sign_program(const std::string& signer, const std::filesystem::path& program, const std::string& identity);

}  // namespace ravok
