// Floor: libavformat opens the movie, a decoder is opened with its first
// video stream's parameters and the stream's first packet is read (its
// bytes only: no parser, no timestamps filled in); nothing else.
//   describe_open <movie>
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, argv[1], av_find_input_format("mp4"), nullptr) < 0) return 1;
  int status = 1;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    const AVCodecParameters* parameters = format->streams[i]->codecpar;
    if (parameters->codec_type != AVMEDIA_TYPE_VIDEO) continue;
    const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
    AVCodecContext* context = decoder ? avcodec_alloc_context3(decoder) : nullptr;
    if (context && avcodec_parameters_to_context(context, parameters) >= 0 &&
        avcodec_open2(context, decoder, nullptr) >= 0) {
      format->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
      for (unsigned j = 0; j < format->nb_streams; ++j) {
        if (j != i) format->streams[j]->discard = AVDISCARD_ALL;
      }
      AVPacket* packet = av_packet_alloc();
      while (packet && av_read_frame(format, packet) >= 0) {
        const bool video = packet->stream_index == static_cast<int>(i);
        av_packet_unref(packet);
        if (video) {
          status = 0;
          break;
        }
      }
      av_packet_free(&packet);
    }
    avcodec_free_context(&context);
    break;
  }
  avformat_close_input(&format);
  return status;
}
