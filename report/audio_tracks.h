// The audio tracks of a movie as their sample entries describe them: codec,
// channels, sample rate, and the spatial-audio box (SA3D) in any sound
// sample entry ("mp4a", "sowt", "lpcm"...). Read from the entries' bytes,
// so the box tree the rest of the program walks stays as it is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mp4/container.h"

struct SpatialAudio {
  uint8_t version = 0;
  bool headLockedStereo = false;
  uint8_t ambisonicType = 0;  // 0: periphonic
  uint32_t ambisonicOrder = 0;
  uint8_t channelOrdering = 0;  // 0: ACN
  uint8_t normalization = 0;    // 0: SN3D, 1: N3D
  std::vector<uint32_t> channelMap;
};

struct AudioTrack {
  std::string sampleEntry;  // the type of the track's first sample entry
  std::string codec;        // by ffprobe's names; empty when not known
  uint32_t channels = 0;
  double sampleRate = 0;       // samples per second
  uint32_t sampleSize = 0;     // bits, as the entry states it
  bool cameraSpatial = false;  // the camera's spatial-audio track (in its uuid box)
  std::optional<SpatialAudio> sa3d;
};

// Every track whose first sample entry is a sound entry, in file order: the
// movie's tracks, then the camera's spatial-audio track.
std::vector<AudioTrack> readAudioTracks(const MP4::Container& movie);

// One sound sample entry's payload (the bytes after its 8-byte header).
// False when it is too short for the fields every version has.
bool parseSoundEntry(const std::string& type, const std::string& payload, AudioTrack& track);
