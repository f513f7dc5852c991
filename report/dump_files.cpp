// The sensor sample dump files: a JSON array, one object per line (an
// empty stream gives "[]"). Objects are formatted into one buffer and
// written in large blocks.
#include <sys/stat.h>

#include <cmath>
#include <streambuf>

#include "gltk/file_io.h"
#include "report/meta_reader.h"
#include "report/number_text.h"

namespace {

constexpr size_t kFlushAt = 1 << 20;

// Lets the extra-field writers append to the same buffer through an
// ostream, as the standard streams would format them.
class AppendBuf : public std::streambuf {
 public:
  explicit AppendBuf(std::string& out) : out_(out) {}

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) out_.push_back(static_cast<char>(c));
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    out_.append(s, static_cast<size_t>(n));
    return n;
  }

 private:
  std::string& out_;
};

// JSON has no infinities or non-numbers: such a value is written as null.
void appendAxis(std::string& out, float v) {
  if (std::isfinite(v)) {
    numtext::append(out, v);
  } else {
    out += "null";
  }
}
void appendAxis(std::string& out, int16_t v) { numtext::appendInteger(out, static_cast<int>(v)); }

void flush(GLTK::FileIO& file, std::string& text) {
  file.write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  text.clear();
}

}  // namespace

template <class T>
bool MetaReader::dumpXYZT(const GLTK::LargeVector<T>& samples, const std::wstring& file,
                          std::function<void(std::ostream&)> extra) {
  return GLTK::FileIO::open_w(file, [&](GLTK::FileIO& out) {
    try {
      std::string text = samples.empty() ? "[]\n" : "[";
      AppendBuf buf(text);
      std::ostream stream(&buf);
      for (size_t i = 0; i < samples.size(); ++i) {
        const T& s = samples[i];
        text += "{\"x\":";
        appendAxis(text, s.x);
        text += ",\"y\":";
        appendAxis(text, s.y);
        text += ",\"z\":";
        appendAxis(text, s.z);
        if (extra) extra(stream);
        text += ",\"timestamp\":";
        numtext::appendInteger(text, s.t);
        text += i + 1 < samples.size() ? "},\n" : "}]\n";
        if (text.size() >= kFlushAt) flush(out, text);
      }
      flush(out, text);
    } catch (...) {
      // Half an array is not JSON: a file cut short by a failure is removed
      // (unless it is not a plain file, such as a pipe the caller named).
      struct stat written;
      if (fstat(out.fd(), &written) == 0 && S_ISREG(written.st_mode)) GLTK::FileIO::unlink(file);
      throw;
    }
  });
}

template bool MetaReader::dumpXYZT(const GLTK::LargeVector<AccelSensorStreamEmbed::TopBottomCorrection>&,
                                   const std::wstring&, std::function<void(std::ostream&)>);
template bool MetaReader::dumpXYZT(const GLTK::LargeVector<AccelSensorStreamEmbed::Gyro>&, const std::wstring&,
                                   std::function<void(std::ostream&)>);
template bool MetaReader::dumpXYZT(const GLTK::LargeVector<AccelSensorStreamEmbed::Ecompass>&, const std::wstring&,
                                   std::function<void(std::ostream&)>);
