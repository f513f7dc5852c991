// The platform's movie description: frame size, duration and nominal frame
// rate of a movie's first video stream. Success is what the report calls
// "decodable".
#pragma once

#include <string>

struct MovieDescription {
  double width = -1;
  double height = -1;
  double duration = 0;   // seconds
  double frameRate = 0;  // nominal (average) frames per second
};

// Describes a movie with libavformat/libavcodec: open it, take the first
// video stream, open a decoder with the stream's parameters and read the
// stream's first packet. Any failure means the movie cannot be decoded.
bool describeMovie(const std::wstring& path, MovieDescription& out);
