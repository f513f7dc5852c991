// The "MP4: " lines of a whole tree.
#include <gtest/gtest.h>

#include "mp4/container.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

TEST(Dump, EveryBoxPrintsOneIndentedLine) {
  TempDir dir;
  Box sowt("sowt");
  sowt.zeros(6).u16(1).zeros(8).u16(2).u16(16).u16(0).zeros(2).u32(48000u << 16).child(Box("SA3D").zeros(2));
  const Box stsd = Box::full("stsd", 0, 0).u32(2).child(avc1(1920, 960).child(Box("avcC").bytes({1}))).child(sowt);
  const Bytes stbl = concat({Box::full("stts", 0, 0).u32(1).u32(1).u32(1001).build(),
                             Box::full("stsc", 0, 0).u32(0).build(),
                             Box::full("stsz", 0, 0).u32(0).u32(2).u32(100).u32(200).build(),
                             Box::full("stco", 0, 0).u32(1).u32(48).build()});
  Box v1 = Box::full("mdhd", 1, 0);
  v1.u64(1).u64(2).u32(48000).u64(96000);
  const Bytes file = concat(
      {Box("ftyp").str("isom").build(),
       Box("moov")
           .child(mvhd(1000, 2000, 3))
           .child(videoTrak(1920, 960, stsd, stbl))
           .child(Box("trak").child(Box("mdia").child(v1)))
           .child(Box("udta")
                      .child(Box("\xA9xyz").u16(5).u16(0x15C7).str("+1+2/"))
                      .child(Box("loci").zeros(8).fixed(1.5).fixed(2.5).fixed(3.0)))
           .build(),
       Box("meta").u32(0).child(Box("hdlr").zeros(8).str("mdir").zeros(12).str("ab").u8(0)).build(),
       Box("uuid").bytes({0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93, 0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD})
           .str("<x/>")
           .build(),
       Box("mdat").zeros(3).build()});
  auto movie = attachBytes(dir, file);
  ConsoleCapture capture;
  movie->dump();
  EXPECT_EQ(capture.text(),
            "MP4: == 'root': start=0 bytes=724 ==\n"
            "MP4: <'ftyp': start=0 bytes=12 >\n"
            "MP4: <'moov': start=12 bytes=626 children=4 >\n"
            "MP4:     <'mvhd': start=20 bytes=108 timeStamp=3 >\n"
            "MP4:     <'trak': start=128 bytes=401 children=2 >\n"
            "MP4:         <'tkhd': start=136 bytes=92 timeStamp=0 width=1920 height=960 >\n"
            "MP4:         <'mdia': start=228 bytes=301 children=2 >\n"
            "MP4:             <'mdhd': start=236 bytes=32 timeStamp=0 duration=60000.000000 time_scale=30000.000000 >\n"
            "MP4:             <'minf': start=268 bytes=261 children=1 >\n"
            "MP4:                 <'stbl': start=276 bytes=253 children=5 >\n"
            "MP4:                     <'stsd': start=284 bytes=157 children=2 >\n"
            "MP4:                         <'avc1': start=300 bytes=95 children=1 >\n"
            "MP4:                             <'avcC': start=386 bytes=9 >\n"
            "MP4:                         <'sowt': start=395 bytes=46 data_reference_index=1 channel_count=2 "
            "sample_size=16 pre_defined=0 samplelate=bb800000>\n"
            "MP4:                             <'SA3D': start=431 bytes=10 >\n"
            "MP4:                     <'stts': start=441 bytes=24 entryCount=1 >\n"
            "MP4:                     <'stsc': start=465 bytes=16 entryCount=0 >\n"
            "MP4:                     <'stsz': start=481 bytes=28 sampleSize=0 sample_count=2 sample_total=300 >\n"
            "MP4:                     <'stco': start=509 bytes=20 indexes=1 >\n"
            "MP4:     <'trak': start=529 bytes=56 children=1 >\n"
            "MP4:         <'mdia': start=537 bytes=48 children=1 >\n"
            "MP4:             <'mdhd': start=545 bytes=40 timeStamp=2 duration=96000.000000 time_scale=48000.000000 >\n"
            "MP4:     <'udta': start=585 bytes=53 children=2 >\n"
            "MP4:         <'\xC2\xA9xyz': start=593 bytes=17 xyz=+1+2/ 15c7 >\n"
            "MP4:         <'loci': start=610 bytes=28 loci=1.500000 2.500000 3.000000 >\n"
            "MP4: <'meta': start=638 bytes=47 children=1 >\n"
            "MP4:     <'hdlr': start=650 bytes=35 handler=mdir name=ab(3) >\n"
            "MP4: <'uuid': start=685 bytes=28 uuid=FFCC8263-F855-4A93-8814-587A02521FDD >\n"
            "MP4: <'mdat': start=713 bytes=11 >\n");
}

}  // namespace
