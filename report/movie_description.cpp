// The movie description through libavformat/libavcodec. Decoding a frame
// would cost tens of milliseconds on a 4K movie, so the first video packet
// is only read, not decoded: that is enough to tell a movie whose sample
// tables point at nothing from one that plays.
#include "report/movie_description.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <dlfcn.h>

#include <memory>

#include "gltk/wchar.h"

namespace {

#define SONDEX_STRING(x) #x
#define SONDEX_SONAME(lib, major) "lib" lib ".so." SONDEX_STRING(major)

// FFmpeg's libraries are loaded when the first movie is described, not when
// the program starts: they bring about a hundred shared libraries with
// them, which a still never needs, and loading them on the description's
// own thread overlaps it with the reading of the boxes.
struct Av {
  decltype(&::av_find_input_format) av_find_input_format;
  decltype(&::avformat_open_input) avformat_open_input;
  decltype(&::avformat_close_input) avformat_close_input;
  decltype(&::avformat_find_stream_info) avformat_find_stream_info;
  decltype(&::av_read_frame) av_read_frame;
  decltype(&::avcodec_find_decoder) avcodec_find_decoder;
  decltype(&::avcodec_alloc_context3) avcodec_alloc_context3;
  decltype(&::avcodec_free_context) avcodec_free_context;
  decltype(&::avcodec_parameters_to_context) avcodec_parameters_to_context;
  decltype(&::avcodec_open2) avcodec_open2;
  decltype(&::av_packet_alloc) av_packet_alloc;
  decltype(&::av_packet_free) av_packet_free;
  decltype(&::av_packet_unref) av_packet_unref;
  decltype(&::av_log_set_level) av_log_set_level;
  decltype(&::av_log_set_callback) av_log_set_callback;
};

template <class F>
bool bind(void* library, const char* name, F& function) {
  function = reinterpret_cast<F>(dlsym(library, name));
  return function != nullptr;
}

// The loaded libraries, or null when they cannot be loaded (then no movie
// can be described). Loaded once, by whichever thread asks first.
const Av* av() {
  static const std::unique_ptr<Av> loaded = []() -> std::unique_ptr<Av> {
    void* util = dlopen(SONDEX_SONAME("avutil", LIBAVUTIL_VERSION_MAJOR), RTLD_LAZY | RTLD_LOCAL);
    void* codec = dlopen(SONDEX_SONAME("avcodec", LIBAVCODEC_VERSION_MAJOR), RTLD_LAZY | RTLD_LOCAL);
    void* format = dlopen(SONDEX_SONAME("avformat", LIBAVFORMAT_VERSION_MAJOR), RTLD_LAZY | RTLD_LOCAL);
    if (util == nullptr || codec == nullptr || format == nullptr) return nullptr;
    auto a = std::make_unique<Av>();
    const bool ok = bind(format, "av_find_input_format", a->av_find_input_format) &&
                    bind(format, "avformat_open_input", a->avformat_open_input) &&
                    bind(format, "avformat_close_input", a->avformat_close_input) &&
                    bind(format, "avformat_find_stream_info", a->avformat_find_stream_info) &&
                    bind(format, "av_read_frame", a->av_read_frame) &&
                    bind(codec, "avcodec_find_decoder", a->avcodec_find_decoder) &&
                    bind(codec, "avcodec_alloc_context3", a->avcodec_alloc_context3) &&
                    bind(codec, "avcodec_free_context", a->avcodec_free_context) &&
                    bind(codec, "avcodec_parameters_to_context", a->avcodec_parameters_to_context) &&
                    bind(codec, "avcodec_open2", a->avcodec_open2) &&
                    bind(codec, "av_packet_alloc", a->av_packet_alloc) &&
                    bind(codec, "av_packet_free", a->av_packet_free) &&
                    bind(codec, "av_packet_unref", a->av_packet_unref) &&
                    bind(util, "av_log_set_level", a->av_log_set_level) &&
                    bind(util, "av_log_set_callback", a->av_log_set_callback);
    if (!ok) return nullptr;
    // FFmpeg's own logging would interleave with our output lines.
    a->av_log_set_level(AV_LOG_QUIET);
    a->av_log_set_callback([](void*, int, const char*, va_list) {});
    return a;
  }();
  return loaded.get();
}

}  // namespace

bool describeMovie(const std::wstring& path, MovieDescription& out) {
  const Av* const a = av();
  if (a == nullptr) return false;
  struct FormatCloser {
    const Av* a;
    void operator()(AVFormatContext* p) const { a->avformat_close_input(&p); }
  };
  struct CodecCloser {
    const Av* a;
    void operator()(AVCodecContext* p) const { a->avcodec_free_context(&p); }
  };
  struct PacketCloser {
    const Av* a;
    void operator()(AVPacket* p) const { a->av_packet_free(&p); }
  };

  const std::string name = GLTK::wchar::wcs2mbs(path);
  // Only the MP4/QuickTime family counts as a movie: left to probe the
  // content, libavformat would describe a JPEG still as a one-frame video.
  static const AVInputFormat* const kMp4 = a->av_find_input_format("mp4");
  AVFormatContext* opened = nullptr;
  if (a->avformat_open_input(&opened, name.c_str(), kMp4, nullptr) < 0) return false;
  std::unique_ptr<AVFormatContext, FormatCloser> format(opened, FormatCloser{a});

  int index = -1;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      index = static_cast<int>(i);
      break;
    }
  }
  if (index < 0) return false;
  AVStream* stream = format->streams[index];

  const AVCodec* decoder = a->avcodec_find_decoder(stream->codecpar->codec_id);
  if (decoder == nullptr) return false;
  std::unique_ptr<AVCodecContext, CodecCloser> context(a->avcodec_alloc_context3(decoder), CodecCloser{a});
  if (!context || a->avcodec_parameters_to_context(context.get(), stream->codecpar) < 0) return false;
  if (a->avcodec_open2(context.get(), decoder, nullptr) < 0) return false;

  // Some codecs (MPEG-4 Part 2 in MP4) leave the frame size to the stream
  // probe; H.264 and H.265 never need it, and it decodes several frames.
  if (stream->codecpar->width <= 0 || stream->codecpar->height <= 0) {
    if (a->avformat_find_stream_info(format.get(), nullptr) < 0) return false;
  }
  if (stream->codecpar->width <= 0 || stream->codecpar->height <= 0) return false;

  // The first packet of the video stream must be readable.
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (static_cast<int>(i) != index) format->streams[i]->discard = AVDISCARD_ALL;
  }
  std::unique_ptr<AVPacket, PacketCloser> packet(a->av_packet_alloc(), PacketCloser{a});
  if (!packet) return false;
  for (;;) {
    if (a->av_read_frame(format.get(), packet.get()) < 0) return false;
    const bool video = packet->stream_index == index;
    a->av_packet_unref(packet.get());
    if (video) break;
  }

  out.width = stream->codecpar->width;
  out.height = stream->codecpar->height;
  out.frameRate = static_cast<float>(av_q2d(stream->avg_frame_rate));
  if (stream->duration != AV_NOPTS_VALUE) {
    out.duration = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
  } else if (format->duration != AV_NOPTS_VALUE) {
    out.duration = static_cast<double>(format->duration) / AV_TIME_BASE;
  } else {
    out.duration = 0;
  }
  return true;
}
