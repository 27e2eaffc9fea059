// What every program does before anything else.
#pragma once

namespace ravok {

// Readies this process for the work of a program; the first call of its `main`.
// Opens the null device on each of the descriptors 0 to 2 that is closed: no file that the program opens later gets
// the number of a stream, and with it what is said there. A write into a pipe without a reader or beyond the limit
// on a file's size becomes a failure instead of the end of the process; a program that this one starts does not
// inherit that. Returns whether all of it worked; the program otherwise ends with exit code 1.
bool start_program();

}  // namespace ravok
