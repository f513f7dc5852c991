// ExifParser: walks the TIFF structure of an Exif block and positions a
// read cursor on the directories the camera's metadata lives in: IFD0, the
// Exif IFD, the MakerNote, the maker's own maker-note IFD, the product IFD
// inside it and, for raw stills, the SubIFDs. A block is either copied in
// whole (a maker-note box, the head of a JPEG) or read on demand from its
// source (a raw still, which may be any size): then only the ranges the
// walk visits are read, through a window of 64 KiB. Every failure is thrown
// as the message text itself (a const char*).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class ExifParser {
 public:
  // Values the camera stores as SHORT[1]; -1 (0 for the projection) in the
  // record means the tag was absent.
  enum PROJECTION_TYPE : int32_t {
    PROJECTION_UNKNOWN = 0,
    PROJECTION_EQUIRECTANGULAR = 1,
    PROJECTION_DUAL_FISHEYE = 2,
  };
  enum TOPBOTTOM_CORRECTION_TYPE : int32_t {
    TOPBOTTOM_CORRECTION_ABSENT = -1,
    TOPBOTTOM_CORRECTION_OFF = 0,
    TOPBOTTOM_CORRECTION_ON = 1,
  };
  enum VIDEO_STABILIZATION : int32_t {
    VIDEO_STABILIZATION_ABSENT = -1,
    VIDEO_STABILIZATION_OFF = 0,
  };
  enum RS_CORRECTION_TYPE : int32_t {
    RS_CORRECTION_ABSENT = -1,
    RS_CORRECTION_OFF = 0,
  };

  // The camera record read from the maker note.
  struct ZEPRA {
    struct STITCHING {
      int32_t convertVersion = -1;
      int32_t fishImgCenter[2] = {0, 0};
      int32_t fishMovCenter[2] = {0, 0};
      float samplingRate = 0;

      bool isValid() const;
    };

    ZEPRA();
    // Resets every field but model and software.
    void clear();
    // Heading corrected for a camera held far from upright.
    void attachCompass();
    void dump() const;

    std::string model;
    std::string software;
    std::string cpuVersion;
    std::string cameraSerial;
    int32_t projectionType = 0;
    int32_t hdr = 0;
    float roll;
    float pitch;
    float yaw;
    int32_t aAcc = 0;
    float compass;
    int32_t adjZenith = -1;  // TOPBOTTOM_CORRECTION_TYPE
    int32_t stabilize = -1;  // VIDEO_STABILIZATION
    int32_t adjRs = -1;      // RS_CORRECTION_TYPE
    bool stabilizeFlag1 = false;
    bool stabilizeFlag2 = false;  // direction locked
    bool stabilizeEnabled = false;
    int32_t vQuality = 0;
    STITCHING stitching;
  };

  using EntryVisitor = std::function<bool(uint16_t tag, uint16_t type, uint32_t count, uint32_t value)>;
  using EntryHandler = std::function<void(uint16_t tag, uint16_t type, uint32_t count, uint32_t value)>;
  // Reads up to n bytes at position pos of a block into dst; returns how
  // many it read (a short count where the block's source ends early).
  using Source = std::function<uint64_t(unsigned char* dst, uint64_t n, uint64_t pos)>;

  ExifParser() = default;
  virtual ~ExifParser();
  ExifParser(const ExifParser&) = delete;
  ExifParser& operator=(const ExifParser&) = delete;

  void attachBytes(const unsigned char* data, size_t size);
  // A block of size bytes read through source as the walk needs them.
  void attachSource(Source source, uint64_t size);
  void attachKMKN(const unsigned char* data, size_t size);
  void attachDNG(Source source, uint64_t size);

  void seekToIFD0();
  void seekToEXIF();
  void seekToMakerNote();
  void seekToKORVUMakerNote();
  void seekToZEPRA();
  void seekToSubIFD(int i);

  void read(unsigned char* dst, size_t n, size_t pos) const;
  uint16_t read16();
  uint32_t read32();
  void readEntry(uint16_t& tag, uint16_t& type, uint32_t& count, uint32_t& value);
  bool enumEntry(uint16_t& remaining, const EntryVisitor& fn);
  bool findEntry(uint16_t& remaining, uint16_t tag, const EntryHandler& fn);
  bool find(uint16_t tag, const EntryHandler& fn);
  uint16_t toUINT16(uint32_t value) const;
  void toString(uint16_t type, uint32_t count, uint32_t value, std::string& out) const;
  void pushCursor(size_t pos);
  void popCursor();

  void dump(const char* label);
  void dumpKMKN();
  void readZERPA(ZEPRA& out);

  // The whole block, or with a source the window over it.
  unsigned char* buffer = nullptr;
  uint64_t bufferSize = 0;  // the block's size
  Source source;
  mutable uint64_t windowStart = 0;
  mutable uint64_t windowLength = 0;
  uint64_t cursor = 0;
  std::vector<uint64_t> cursorStack;
  bool bigEndian = true;
  uint64_t tiffBase = 0;
  uint64_t ifd0Pos = 0;
  uint64_t exifPos = 0;
  uint64_t makerNotePos = 0;
  uint64_t korvuMakerNotePos = 0;
  uint64_t zepraPos = 0;
  int32_t makerNoteOnly = 0;
  uint32_t subIFDs[2] = {0, 0};
  uint32_t stripOffset = 0;
  uint32_t stripByteCount = 0;
  uint32_t affineTable1Offset = 0;
  uint32_t affineTable1Length = 0;
  uint32_t affineTable2Offset = 0;
  uint32_t affineTable2Length = 0;

 private:
  // Looks up tag in the IFD under the cursor and moves cursor and cache to
  // the directory its value points at; throws missing when absent.
  void seekByTag(uint16_t tag, uint64_t& cache, const char* missing);
  // Reads the numerator/denominator pair(s) of an out-of-line rational
  // value without disturbing the cursor of the enumeration in progress.
  void readPairs(uint32_t value, uint32_t* words, int n);
  // Whether buffer holds the n bytes at pos.
  bool inWindow(uint64_t pos, uint64_t n) const;
};
