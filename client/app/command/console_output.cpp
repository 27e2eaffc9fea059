#include "app/command/console_output.hpp"

#include <cstdio>
#include <new>
#include <string>

#include "domain/display_text.hpp"
#include "domain/exit_code.hpp"
#include "domain/json.hpp"

namespace ravok {
namespace {

bool write_text(std::FILE* stream, std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stream) == text.size() && std::fflush(stream) == 0;
}

void print_problem_document(const Error& error) noexcept {
  try {
    // JSON cannot hold a message that is not UTF-8.
    const std::string message = is_utf8(error.what()) ? error.what() : shown_text(error.what());
    const Json document = {{"schema_version", 1}, {"problem", {{"code", error.code}, {"message", message}}}};
    write_text(stdout, document.dump() + "\n");
  } catch (const std::bad_alloc&) {
    // A code is made of characters that JSON takes as they are.
    for (const std::string_view part : {std::string_view(R"({"problem":{"code":")"), std::string_view(error.code),
                                        std::string_view(R"(","message":"Out of memory"},"schema_version":1})"
                                                         "\n")}) {
      write_text(stdout, part);
    }
  }
}

}  // namespace

void print_result(std::string_view text) {
  require(write_text(stdout, text), "output_failed", "Cannot write to standard output");
}

void print_notice(std::string_view text) noexcept {
  try {
    write_text(stderr, shown_text(text) + "\n");
  } catch (const std::bad_alloc&) {
    write_text(stderr, "Out of memory\n");
  }
}

int tell_failure(const Error& error, bool json) noexcept {
  if (json) {
    print_problem_document(error);
  }
  print_notice(error.what());
  return exit_code(error);
}

int tell_failure(const std::exception& problem) noexcept {
  print_notice(problem.what());
  return 1;
}

}  // namespace ravok
