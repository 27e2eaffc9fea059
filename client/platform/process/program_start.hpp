// The first step of every program.
#pragma once

namespace ravok {

// Readies this process for the work of a program; the first call of its `main`.
// Opens the null device on each of the descriptors 0 to 2 that is closed. Otherwise a file that the program opens later
// could get the number of a stream, and what is printed would go into that file. A write into a pipe without a reader,
// or beyond the limit on a file's size, fails instead of ending the process; programs that this one starts do not
// inherit that. The ends of children are known, even if this program was started with SIGCHLD ignored. Returns whether
// all of it worked. If not, the program should end with exit code 1.
bool start_program();

// Closes what this program has inherited besides its standard streams and the pipe that ConsoleInterrupt listens to;
// the second call of a `main` with a window, before anything is opened. A parent may leave so many descriptors open
// that those of the window would have numbers beyond 1023, which its toolkit cannot use.
void close_inherited_handles();

}  // namespace ravok
