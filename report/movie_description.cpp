// The movie description through libavformat/libavcodec, linked directly:
// by default a static build that holds only the MP4 demuxer and the decoders
// this program's movies need (cmake/ffmpeg.cmake). Decoding a frame
// would cost tens of milliseconds on a 4K movie, so the first video packet
// is only read, not decoded: that is enough to tell a movie whose sample
// tables point at nothing from one that plays.
#include "report/movie_description.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <memory>

#include "gltk/wchar.h"

namespace {

struct FormatCloser {
  void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecCloser {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct PacketCloser {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};

}  // namespace

bool describeMovie(const std::wstring& path, MovieDescription& out) {
  // FFmpeg's own logging would interleave with our output lines.
  [[maybe_unused]] static const bool silenced = [] {
    av_log_set_level(AV_LOG_QUIET);
    av_log_set_callback([](void*, int, const char*, va_list) {});
    // A damaged size in a box can make the demuxer ask for gigabytes at
    // once; no allocation a description needs comes near this.
    av_max_alloc(size_t{256} << 20);
    return true;
  }();

  const std::string name = GLTK::wchar::wcs2mbs(path);
  // Only the MP4/QuickTime family counts as a movie: left to probe the
  // content, libavformat would describe a JPEG still as a one-frame video.
  static const AVInputFormat* const kMp4 = av_find_input_format("mp4");
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, name.c_str(), kMp4, nullptr) < 0) return false;
  std::unique_ptr<AVFormatContext, FormatCloser> format(opened);

  int index = -1;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      index = static_cast<int>(i);
      break;
    }
  }
  if (index < 0) return false;
  AVStream* stream = format->streams[index];

  const AVCodec* decoder = avcodec_find_decoder(stream->codecpar->codec_id);
  if (decoder == nullptr) return false;
  std::unique_ptr<AVCodecContext, CodecCloser> context(avcodec_alloc_context3(decoder));
  if (!context || avcodec_parameters_to_context(context.get(), stream->codecpar) < 0) return false;
  if (avcodec_open2(context.get(), decoder, nullptr) < 0) return false;

  // Some codecs (MPEG-4 Part 2 in MP4) leave the frame size to the stream
  // probe; H.264 and H.265 never need it, and it decodes several frames.
  if (stream->codecpar->width <= 0 || stream->codecpar->height <= 0) {
    if (avformat_find_stream_info(format.get(), nullptr) < 0) return false;
  }
  if (stream->codecpar->width <= 0 || stream->codecpar->height <= 0) return false;

  // The first packet of the video stream must be readable. Its bytes are
  // all that is asked of it, so no parser is started on it (H.264's would
  // decode the parameter sets once more) and no timestamps are filled in.
  format->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (static_cast<int>(i) != index) format->streams[i]->discard = AVDISCARD_ALL;
  }
  std::unique_ptr<AVPacket, PacketCloser> packet(av_packet_alloc());
  if (!packet) return false;
  for (;;) {
    if (av_read_frame(format.get(), packet.get()) < 0) return false;
    const bool video = packet->stream_index == index;
    av_packet_unref(packet.get());
    if (video) break;
  }

  out.width = stream->codecpar->width;
  out.height = stream->codecpar->height;
  out.frameRate = av_q2d(stream->avg_frame_rate);
  if (stream->duration != AV_NOPTS_VALUE) {
    out.duration = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
  } else if (format->duration != AV_NOPTS_VALUE) {
    out.duration = static_cast<double>(format->duration) / AV_TIME_BASE;
  } else {
    out.duration = 0;
  }
  return true;
}
