// Floor: libavformat opens the movie and a decoder is opened with its first
// video stream's parameters; nothing else.
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
      status = 0;
    }
    avcodec_free_context(&context);
    break;
  }
  avformat_close_input(&format);
  return status;
}
