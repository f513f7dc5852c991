// Loading the sample boxes of a movie: each box as it was read, and the
// sensor logs of the whole movie.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "gltk/large_vector.h"
#include "mp4/container.h"
#include "sensor/sample_records.h"

// One sample box of a movie as it was read.
template <class T>
struct SampleLog {
  GLTK::LargeVector<T> records;
  uint16_t samplingRate = 0;  // the header's rate; 0 when the box is missing or refused
  // The line the box's check gave when the box was refused or could not be
  // read as stated; empty for a sound or missing box.
  std::wstring complaint;

  // The records for one step of the reading. Each step that takes a log
  // prints its complaint first, so a damaged box is named wherever it
  // leaves a step without samples.
  const GLTK::LargeVector<T>& load() const;
};

// The camera's sensor logs of one movie, read once: the orientation
// analysis, the yaw table and the dump files all take theirs from here.
class SensorLogs {
 public:
  using Gravity = AccelSensorStreamEmbed::TopBottomCorrection;

  // Reads the five boxes under moov.udta and re-times the gravity samples
  // onto the KDTG clock. Only records that lie wholly inside both the box
  // and the file are read, so a count that slips through the 32-bit length
  // check never sizes a buffer beyond the bytes that are really there.
  // Prints nothing (but a failure to open the file).
  static SensorLogs read(const MP4::Container& movie);

  // The re-timed gravity samples for one step of the reading, after the
  // lines re-timing gives: the complaints of KDTG and KDTD, "No KDTG
  // entries" when there are no stamps, and one line per stamp past the last
  // gravity sample.
  const GLTK::LargeVector<Gravity>& loadRetimed() const;

  SampleLog<AccelSensorStreamEmbed::Gyro> gyro;                     // KDTB
  SampleLog<AccelSensorStreamEmbed::Ecompass> compass;              // KDTC
  SampleLog<Gravity> gravity;                                       // KDTD as recorded
  SampleLog<uint64_t> stamps;                                       // KDTG
  SampleLog<AccelSensorStreamEmbed::YawCorrection> yawCorrections;  // KDTI
  // The gravity samples on the KDTG clock: one per stamp (none without
  // gravity samples), or the recorded ones when there are no stamps.
  GLTK::LargeVector<Gravity> retimed;

 private:
  size_t pastTheEnd_ = 0;  // the first stamp that lies beyond the last gravity sample
};
