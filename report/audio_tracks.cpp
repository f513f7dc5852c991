#include "report/audio_tracks.h"

#include <algorithm>
#include <bit>
#include <string_view>
#include <tuple>
#include <utility>

#include "gltk/byte_order.h"
#include "mp4/box_bytes.h"
#include "mp4/boxes.h"

namespace {

using MP4::bytesOf;

bool isSoundEntry(const std::string& type) {
  for (const char* sound : {"mp4a", "sowt", "twos", "lpcm", "ipcm", "fpcm", "Opus", "ac-3", "ec-3", "alac", "fLaC",
                            ".mp3", "in24", "in32", "fl32", "fl64", "ulaw", "alaw", "raw "}) {
    if (type == sound) return true;
  }
  return false;
}

// The codec by ffprobe's names: from the entry type, and for "mp4a" from
// the object type of its elementary-stream descriptor.
std::string codecOf(const std::string& type, uint8_t objectType, uint32_t sampleSize) {
  if (type == "mp4a") {
    if (objectType == 0x40 || (objectType >= 0x66 && objectType <= 0x68)) return "aac";
    if (objectType == 0x69 || objectType == 0x6B) return "mp3";
    if (objectType == 0xA5) return "ac3";
    if (objectType == 0xA6) return "eac3";
    if (objectType == 0xAD) return "opus";
    return "";
  }
  if (type == "sowt") return sampleSize == 24 ? "pcm_s24le" : "pcm_s16le";
  if (type == "twos") return sampleSize == 24 ? "pcm_s24be" : "pcm_s16be";
  const std::pair<const char*, const char*> names[] = {
      {"Opus", "opus"},      {"ac-3", "ac3"},       {"ec-3", "eac3"},      {"alac", "alac"},
      {"fLaC", "flac"},      {".mp3", "mp3"},       {"in24", "pcm_s24be"}, {"in32", "pcm_s32be"},
      {"fl32", "pcm_f32be"}, {"fl64", "pcm_f64be"}, {"ulaw", "pcm_mulaw"}, {"alaw", "pcm_alaw"}};
  for (const auto& [entry, name] : names) {
    if (type == entry) return name;
  }
  return "";
}

// The length of an MPEG-4 descriptor (one to four bytes of seven bits), or
// false past the end.
bool descriptorLength(std::string_view bytes, size_t& at, uint32_t& length) {
  length = 0;
  for (int i = 0; i < 4; ++i) {
    if (at >= bytes.size()) return false;
    const uint8_t b = bytesOf(bytes)[at++];
    length = length << 7 | (b & 0x7F);
    if ((b & 0x80) == 0) return true;
  }
  return true;
}

// The channels an AAC AudioSpecificConfig states (channelConfiguration 1
// to 6 as they are, 7 for eight), or 0 when it leaves them to a program
// config element or is cut short.
uint32_t aacChannels(std::string_view config) {
  uint64_t bits = 0;
  for (size_t i = 0; i < 8; ++i) bits = bits << 8 | (i < config.size() ? bytesOf(config)[i] : 0);
  int used = 5;                     // audioObjectType
  if (bits >> 59 == 31) used += 6;  // its escape
  const bool explicitRate = (bits >> (60 - used) & 0xF) == 0xF;
  used += explicitRate ? 28 : 4;  // samplingFrequencyIndex (and the rate itself)
  if (static_cast<size_t>(used + 4) > 8 * config.size()) return 0;
  const uint32_t channels = bits >> (60 - used) & 0xF;  // channelConfiguration
  return channels == 7 ? 8 : channels <= 6 ? channels : 0;
}

// The decoder configuration in an "esds" body: its objectTypeIndication
// (0 when not found) and, for AAC, the channels its decoder-specific
// configuration states (0 when it does not).
std::pair<uint8_t, uint32_t> decoderConfigOf(std::string_view esds) {
  size_t at = 4;  // version and flags
  uint32_t length = 0;
  if (at >= esds.size() || bytesOf(esds)[at++] != 0x03 || !descriptorLength(esds, at, length)) return {0, 0};
  if (at + 3 > esds.size()) return {0, 0};
  const uint8_t flags = bytesOf(esds)[at + 2];
  at += 3;                                                              // ES_ID, flags
  if (flags & 0x80) at += 2;                                            // dependsOn_ES_ID
  if ((flags & 0x40) && at < esds.size()) at += 1 + bytesOf(esds)[at];  // URL
  if (flags & 0x20) at += 2;                                            // OCR_ES_Id
  if (at >= esds.size() || bytesOf(esds)[at++] != 0x04 || !descriptorLength(esds, at, length)) return {0, 0};
  if (at >= esds.size()) return {0, 0};
  const uint8_t objectType = bytesOf(esds)[at];
  at += 13;  // objectTypeIndication, streamType, bufferSizeDB, maxBitrate, avgBitrate
  const bool aac = objectType == 0x40 || (objectType >= 0x66 && objectType <= 0x68);
  if (!aac || at >= esds.size() || bytesOf(esds)[at++] != 0x05 || !descriptorLength(esds, at, length) ||
      at > esds.size()) {
    return {objectType, 0};
  }
  return {objectType, aacChannels(esds.substr(at, std::min<size_t>(length, esds.size() - at)))};
}

SpatialAudio spatialAudioOf(std::string_view body) {
  SpatialAudio sa3d;
  const uint8_t* b = bytesOf(body);
  sa3d.version = b[0];
  sa3d.headLockedStereo = (b[1] & 0x80) != 0;
  sa3d.ambisonicType = b[1] & 0x7F;
  sa3d.ambisonicOrder = GLTK::loadBE32(b + 2);
  sa3d.channelOrdering = b[6];
  sa3d.normalization = b[7];
  // Only the entries the box really holds, whatever the count says.
  const uint64_t count = std::min<uint64_t>(GLTK::loadBE32(b + 8), (body.size() - 12) / 4);
  for (uint64_t i = 0; i < count; ++i) sa3d.channelMap.push_back(GLTK::loadBE32(b + 12 + 4 * i));
  return sa3d;
}

// The boxes behind a sound entry's fields (and inside a QuickTime "wave").
void readChildren(std::string_view bytes, AudioTrack& track, uint8_t& objectType, bool inWave) {
  MP4::forEachBox(bytes, [&](std::string_view type, std::string_view body) {
    if (type == "SA3D" && body.size() >= 12) track.sa3d = spatialAudioOf(body);
    if (type == "esds") {
      // ISO files state two channels in the entry whatever the stream
      // holds; the AAC configuration tells, as decoders read it.
      uint32_t channels = 0;
      std::tie(objectType, channels) = decoderConfigOf(body);
      if (channels != 0) track.channels = channels;
    }
    if (type == "dOps" && body.size() >= 2) track.channels = bytesOf(body)[1];
    if (type == "wave" && !inWave) readChildren(body, track, objectType, true);
  });
}

}  // namespace

bool parseSoundEntry(const std::string& type, const std::string& payload, AudioTrack& track) {
  if (payload.size() < 28) return false;
  const uint8_t* p = bytesOf(payload);
  track.sampleEntry = type;
  const uint16_t version = GLTK::loadBE16(p + 8);  // QuickTime's sound description version; 0 in ISO files
  size_t children = 28;
  track.channels = GLTK::loadBE16(p + 16);
  track.sampleSize = GLTK::loadBE16(p + 18);
  track.sampleRate = GLTK::loadBE32(p + 24) / 65536.0;
  if (version == 1) {
    children = 44;
  } else if (version == 2 && payload.size() >= 64) {
    children = 64;
    track.sampleRate = std::bit_cast<double>(GLTK::loadBE(p + 32, 8));
    track.channels = GLTK::loadBE32(p + 40);
    track.sampleSize = GLTK::loadBE32(p + 48);
  }
  uint8_t objectType = 0;
  if (payload.size() > children) readChildren(std::string_view(payload).substr(children), track, objectType, false);
  track.codec = codecOf(type, objectType, track.sampleSize);
  return true;
}

std::vector<AudioTrack> readAudioTracks(const MP4::Container& movie) {
  std::vector<AudioTrack> tracks;
  const auto take = [&](MP4::NestedBox& stsd, bool camera) {
    if (stsd.children.empty()) return true;
    const MP4::BOX& entry = *stsd.children[0];
    const std::string type(entry.type.begin(), entry.type.end());
    std::string payload;
    AudioTrack track;
    track.cameraSpatial = camera;
    if (isSoundEntry(type) && movie.readPayload(entry, payload) && parseSoundEntry(type, payload, track)) {
      tracks.push_back(std::move(track));
    }
    return true;
  };
  MP4::findAs<MP4::NestedBox>(movie, "moov.trak.mdia.minf.stbl.stsd",
                              [&](MP4::NestedBox& stsd) { return take(stsd, false); });
  MP4::findAs<MP4::UUID>(movie, "uuid", [&](MP4::UUID& uuid) {
    if (uuid.hasChild())
      MP4::findAs<MP4::NestedBox>(uuid, "KATR.mdia.minf.stbl.stsd",
                                  [&](MP4::NestedBox& stsd) { return take(stsd, true); });
    return true;
  });
  return tracks;
}
