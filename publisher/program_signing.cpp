#include "publisher/program_signing.hpp"

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {

void sign_program(const std::string& signer, const std::filesystem::path& program, const std::string& identity) {
  const std::string place = path_utf8(std::filesystem::absolute(program));
  require(os::run_program({signer, "--force", "--sign", identity, place}) == os::ProgramEnd::succeeded,
          "program_signature", "Cannot sign the program; what its signer said stands above");
}

}  // namespace ravok
