// Writes the manual pages and the completions of all programs: ravok-manual DIR. Part of the build.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "domain/error.hpp"
#include "publisher/manual/bash_completion.hpp"
#include "publisher/manual/fish_completion.hpp"
#include "publisher/manual/man_page.hpp"
#include "publisher/manual/program_outlines.hpp"
#include "publisher/manual/zsh_completion.hpp"

namespace {

void write_text(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  ravok::require(file.good(), "file_write", "Cannot write file: " + path.string());
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::fputs("Usage: ravok-manual DIR\n", stderr);
    return 2;
  }
  try {
    const std::filesystem::path directory = words[1];
    for (const ravok::ProgramOutline& program : ravok::program_outlines()) {
      write_text(directory / "man" / (program.program + ".1"), ravok::man_page(program));
      write_text(directory / "bash" / program.program, ravok::bash_completion(program));
      write_text(directory / "zsh" / ("_" + program.program), ravok::zsh_completion(program));
      write_text(directory / "fish" / (program.program + ".fish"), ravok::fish_completion(program));
    }
    return 0;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 1;
  }
}
