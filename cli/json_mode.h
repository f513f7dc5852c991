// The long-option interface: --json (one strict JSON object per file, JSON
// Lines on standard output), --help and --version. The camera protocol's
// single-dash options, its argument mode and its request stream are left
// exactly as they are.
#pragma once

namespace cli {

// Whether the arguments ask for this interface: --json, --help or --version
// anywhere among them.
bool wantsLongOptions(int argc, char** argv);
// Runs it; returns the exit status: 0 when every file was read, 1 when some
// failed, 2 for a usage error.
int longOptions(int argc, char** argv);

}  // namespace cli
