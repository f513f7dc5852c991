#include "tests/support/camera_movie.h"

#include <algorithm>
#include <stdexcept>

#include "gltk/byte_order.h"
#include "mp4/boxes.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"

namespace sondex::test {

Bytes xmpUsertype() {
  return {0xBE, 0x7A, 0xCF, 0xCB, 0x97, 0xA9, 0x42, 0xE8, 0x9C, 0x71, 0x99, 0x94, 0x91, 0xE3, 0xAF, 0xAC};
}

std::string sphericalXmlText(const std::string& software, int heading, int pitch, int fov) {
  auto element = [](const std::string& name, const std::string& value) {
    return "  <GSpherical:" + name + ">" + value + "</GSpherical:" + name + ">\n";
  };
  return "<?xml version=\"1.0\"?><rdf:SphericalVideo\nxmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"\n"
         "xmlns:GSpherical=\"http://ns.google.com/videos/1.0/spherical/\">\n" +
         element("Spherical", "true") + element("Stitched", "true") + element("StitchingSoftware", software) +
         element("ProjectionType", "equirectangular") + element("InitialViewHeadingDegrees", std::to_string(heading)) +
         element("InitialViewPitchDegrees", std::to_string(pitch)) +
         element("InitialHorizontalFOVDegrees", std::to_string(fov)) + "</rdf:SphericalVideo>";
}

std::string xmpText(const std::string& creatorTool) {
  const std::string description = "  <rdf:Description rdf:about=\"\" xmlns:x=\"adobe:ns:meta/\">\n";
  return "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n<x:xmpmeta xmlns:x=\"adobe:ns:meta/\">\n"
         " <rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n" +
         description + "   <x:CreatorTool>" + creatorTool +
         "</x:CreatorTool>\n  </rdf:Description>\n </rdf:RDF>\n</x:xmpmeta>\n<?xpacket end=\"w\"?>";
}

Bytes injectCameraBoxes(const Bytes& movie, const CameraBoxes& boxes) {
  TempDir dir;
  auto parsed = attachBytes(dir, movie);
  const MP4::BOX* moov = parsed->moov;
  if (moov == nullptr) throw std::invalid_argument("movie without moov");
  const MP4::BOX* udta = findFirst(*parsed, "moov.udta");
  Bytes out = movie;
  // Adds delta to the big-endian n-byte number at.
  auto addBE = [&out](uint64_t at, uint64_t delta, int n) {
    GLTK::storeBE(&out[at], GLTK::loadBE(&out[at], n) + delta, n);
  };
  auto grow = [&](const MP4::BOX& box, uint64_t delta) {
    addBE(box.start + (box.largeSize ? 8 : 0), delta, box.largeSize ? 8 : 4);
  };

  Bytes udtaChildren;
  auto append = [&](const Bytes& b) { udtaChildren.insert(udtaChildren.end(), b.begin(), b.end()); };
  if (!boxes.model.empty()) append(Box("@mod").str(boxes.model).build());
  if (!boxes.makerNote.empty()) append(Box("KMKN").bytes(boxes.makerNote).build());
  for (const Bytes& b : boxes.udta) append(b);
  if (!boxes.location.empty()) append(Box("@xyz").str(boxes.location).build());

  // Insertions by position in the original file; where two meet, the box
  // closing the track goes before the user data closing the movie box.
  std::vector<std::pair<uint64_t, Bytes>> inserts;
  uint64_t moovGrowth = 0;
  if (!udtaChildren.empty()) {
    if (udta != nullptr) grow(*udta, udtaChildren.size());
    inserts.emplace_back(udta != nullptr ? udta->end() : moov->end(),
                         udta != nullptr ? udtaChildren : Box("udta").bytes(udtaChildren).build());
    moovGrowth += inserts.back().second.size();
  }
  if (!boxes.sphericalXml.empty()) {
    const MP4::BOX* trak = parsed->videoTrak;
    if (trak == nullptr) throw std::invalid_argument("movie without a video track");
    const Bytes usertype = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                            0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};
    inserts.emplace_back(trak->end(), Box("uuid").bytes(usertype).str(boxes.sphericalXml).build());
    grow(*trak, inserts.back().second.size());
    moovGrowth += inserts.back().second.size();
  }
  grow(*moov, moovGrowth);
  // The media data behind a grown movie box moves by the growth.
  for (const auto& [path, width] :
       {std::pair{"moov.trak.mdia.minf.stbl.stco", 4}, {"moov.trak.mdia.minf.stbl.co64", 8}}) {
    for (MP4::BOX* box : findAll(*parsed, path)) {
      const auto& table = static_cast<const MP4::STCO&>(*box);
      for (uint64_t i = 0; parsed->mdat != nullptr && parsed->mdat->start > moov->start && i < table.entryCount; ++i) {
        addBE(table.entryOffset + width * i, moovGrowth, width);
      }
    }
  }
  std::stable_sort(inserts.begin(), inserts.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [at, bytes] : inserts) out.insert(out.begin() + static_cast<long>(at), bytes.begin(), bytes.end());
  if (!boxes.xmp.empty()) {
    const Bytes uuid = Box("uuid").bytes(xmpUsertype()).str(boxes.xmp).build();
    out.insert(out.end(), uuid.begin(), uuid.end());
  }
  return out;
}

Bytes ffmpegMovie(const std::string& options, double seconds) {
  TempDir dir;
  const std::string path = dir.file("movie.mp4");
  run("ffmpeg -v error -y -f lavfi -i testsrc=size=384x192:rate=30 -t " + std::to_string(seconds) + " -threads 1 " +
      options + " '" + path + "'");
  return readFile(path);
}

}  // namespace sondex::test
