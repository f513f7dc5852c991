// The command line: argument mode (one file and its options) and the
// request stream (one tab-separated request per line of standard input).
#pragma once

namespace cli {

// Without a file argument, answers the request stream on standard input
// until it ends; otherwise reads the one file the arguments name (only the
// first ten entries of argv count). Returns the exit status.
int process(int argc, wchar_t** argv);
// Prints the usage text.
void usage();

}  // namespace cli
