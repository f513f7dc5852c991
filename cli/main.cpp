// sondex: reports the metadata of 360-degree camera movies and stills.
#include <malloc.h>

#include <csignal>
#include <cstring>

#include "cli/json_mode.h"
#include "cli/process.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "report/describer_process.h"

int main(int argc, char** argv) {
  GLTK::Console::init_locale();
  // A write past the file-size limit must fail like any other short write
  // (so a rewrite can clean up after itself), not kill the process.
  std::signal(SIGXFSZ, SIG_IGN);
  if (cli::wantsLongOptions(argc, argv)) return cli::longOptions(argc, argv);
  // Ten wide argument slots; each converted argument lives until the
  // process ends.
  static wchar_t* arguments[10] = {};
  if (argc >= 1) {
    const int n = argc < 10 ? argc : 10;
    for (int i = 0; i < n; ++i) {
      const std::wstring wide = GLTK::wchar::mbs2wcs(argv[i]);
      arguments[i] = new wchar_t[wide.size() + 1];
      std::wmemcpy(arguments[i], wide.c_str(), wide.size() + 1);
    }
  }
  // One file read and the program ends: its movie is described on a thread
  // rather than in a worker process, which would cost more to start than
  // it saves. The request stream keeps the worker. The thread shares the
  // main heap: an arena of its own would fault in fresh pages for what
  // the main thread has already touched.
  if (argc >= 2) {
    mallopt(M_ARENA_MAX, 1);
    describer().runOnThreads();
  }
  return cli::process(argc, arguments) & 0xFF;
}
