/*
 * bare_mux: the baseline for building one container from the streams of
 * several files. Each INPUT gives its first video or audio stream; the loop
 * takes one packet from each input in turn and ends when the first input runs
 * out, as the multiplexing family does.
 *
 *   bare_mux OUTPUT INPUT [INPUT ...]
 */
#include "bare.h"

struct source {
  AVFormatContext* input;
  int input_stream;
  int output_stream;
};

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s OUTPUT INPUT [INPUT ...]\n", argv[0]);
    return 2;
  }
  const int count = argc - 2;
  struct source* sources = calloc((size_t)count, sizeof *sources);
  if (sources == NULL) return 1;
  AVFormatContext* output = bare_open_output(argv[1]);
  for (int i = 0; i < count; ++i) {
    sources[i].input = bare_open_input(argv[2 + i]);
    sources[i].input_stream = -1;
    for (unsigned s = 0; s < sources[i].input->nb_streams; ++s) {
      const AVCodecParameters* parameters = sources[i].input->streams[s]->codecpar;
      const int usable = parameters->codec_type == AVMEDIA_TYPE_AUDIO ||
                         (parameters->codec_type == AVMEDIA_TYPE_VIDEO && parameters->codec_id != AV_CODEC_ID_MJPEG);
      if (!usable) continue;
      sources[i].input_stream = (int)s;
      sources[i].output_stream = bare_add_stream(output, parameters)->index;
      break;
    }
    if (sources[i].input_stream < 0) bare_die("no video or audio stream in", argv[2 + i], 0);
  }
  bare_write_header(output);

  long long packets = 0;
  AVPacket* packet = av_packet_alloc();
  int finished = 0;
  while (!finished) {
    for (int i = 0; i < count && !finished; ++i) {
      struct source* source = &sources[i];
      if (av_read_frame(source->input, packet) < 0) {
        finished = 1;
        break;
      }
      if (packet->stream_index != source->input_stream) {
        av_packet_unref(packet);
        continue;
      }
      packet->stream_index = source->output_stream;
      bare_rescale(packet, source->input->streams[source->input_stream]->time_base,
                   output->streams[source->output_stream]->time_base);
      av_interleaved_write_frame(output, packet);
      ++packets;
    }
  }
  av_packet_free(&packet);
  bare_close_output(output);
  for (int i = 0; i < count; ++i) avformat_close_input(&sources[i].input);
  free(sources);
  printf("packets written: %lld\n", packets);
  return 0;
}
