// What every console program says: its result on standard output; notices and failures on standard error, and with
// --json a failure on standard output too.
#pragma once

#include <exception>
#include <string_view>

#include "domain/error.hpp"

namespace ravok {

// Writes a text to standard output as it is. Fails with "output_failed" when not all of it could be written.
void print_result(std::string_view text);

// Writes one line to standard error. It shows escaped what would steer a terminal. A line that cannot be written is
// lost, since there is no other place to report it.
void print_notice(std::string_view text) noexcept;

// Tells of a failure in a line and, with `json`, first as one JSON document with its code and message. Returns the exit
// code, which exit_code gives. Works without memory too, and then says "Out of memory".
int tell_failure(const Error& error, bool json) noexcept;

// Tells of a failure that has no code, in a line alone. Returns the exit code 1.
int tell_failure(const std::exception& problem) noexcept;

}  // namespace ravok
