// The per-file routine shared by both modes of the command line.
#pragma once

#include <functional>
#include <initializer_list>

class MetaReader;

// What a path names, by the end of its name in any case: a DNG or JPEG
// still, otherwise a movie. A name of just ".JPG" (or ".JPEG") has nothing
// before the dot and is taken as a movie.
enum class Kind { Movie, Jpeg, Dng };
Kind kindOf(const wchar_t* path);

// False, after a line for each, when a dump path names the source file
// itself (by any spelling or link); checked before any file is written.
bool dumpsSpareTheSource(const wchar_t* path, std::initializer_list<const wchar_t*> dumps);

// Writes the requested sensor dump files of a movie that was read (null
// paths are not requested): gravity with its yaw, gyro, compass. False when
// one cannot be written; the files after it are not attempted.
bool writeDumps(MetaReader& reader, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath);

// Reads one file with a fresh reader, optionally rewrites it (set1) and
// writes the requested sensor dump files (null paths are not requested),
// prints its report line and, with dump, the maker-note dump. True when the
// file was read and its report line printed.
bool processFile(const wchar_t* path, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath,
                 bool set1, bool dump);

// Runs one request. Whatever it throws is reported on one line with the
// file's path and fails the request, so that the request stream goes on.
bool guardedRequest(const wchar_t* path, const std::function<bool()>& request);
