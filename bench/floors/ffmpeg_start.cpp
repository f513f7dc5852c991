// Floor: starting a process that links FFmpeg's libraries and does nothing.
extern "C" {
#include <libavformat/avformat.h>
}

int main() { return avformat_version() == 0 ? 1 : 0; }
