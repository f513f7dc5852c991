// The per-file routine shared by both modes of the command line.
#pragma once

#include <functional>

// Reads one file with a fresh reader, optionally rewrites it (set1) and
// writes the requested sensor dump files (null paths are not requested),
// prints its report line and, with dump, the maker-note dump. True when the
// file was read and its report line printed.
bool processFile(const wchar_t* path, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath,
                 bool set1, bool dump);

// Runs one request. Whatever it throws is reported on one line with the
// file's path and fails the request, so that the request stream goes on.
bool guardedRequest(const wchar_t* path, const std::function<bool()>& request);
