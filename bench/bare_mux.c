// SPDX-License-Identifier: MIT
/*
 * bare_mux: the baseline for building one container from the streams of
 * several files. Each INPUT gives its first video or audio stream; the loop
 * takes one packet from each input in turn and ends when the first input runs
 * out, as the multiplexing family does by default. With -t it does what the
 * family's practical mode does instead: the next packet is the one with the
 * smallest decode time across the inputs, and every input is read to its end.
 *
 *   bare_mux [-t] OUTPUT INPUT [INPUT ...]
 */
#include "bare.h"

struct source {
  AVFormatContext* input;
  int input_stream;
  int output_stream;
  AVPacket* next; /* -t: the input's next packet of its stream, or NULL once it has ended */
};

/* -t: reads the source's next packet of its stream into source->next. */
static void refill(struct source* source) {
  while (av_read_frame(source->input, source->next) >= 0) {
    if (source->next->stream_index == source->input_stream) return;
    av_packet_unref(source->next);
  }
  av_packet_free(&source->next);
}

static void write_packet(AVFormatContext* output, struct source* source, AVPacket* packet) {
  packet->stream_index = source->output_stream;
  bare_rescale(packet, source->input->streams[source->input_stream]->time_base,
               output->streams[source->output_stream]->time_base);
  av_interleaved_write_frame(output, packet);
}

int main(int argc, char** argv) {
  const int by_time = argc > 1 && strcmp(argv[1], "-t") == 0;
  argv += by_time;
  argc -= by_time;
  if (argc < 3) {
    fprintf(stderr, "usage: %s [-t] OUTPUT INPUT [INPUT ...]\n", argv[0]);
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
  if (by_time) {
    for (int i = 0; i < count; ++i) {
      sources[i].next = av_packet_alloc();
      refill(&sources[i]);
    }
    for (;;) {
      struct source* earliest = NULL;
      for (int i = 0; i < count; ++i) {
        struct source* source = &sources[i];
        if (source->next == NULL) continue;
        if (earliest == NULL ||
            av_compare_ts(source->next->dts, source->input->streams[source->input_stream]->time_base,
                          earliest->next->dts, earliest->input->streams[earliest->input_stream]->time_base) < 0)
          earliest = source;
      }
      if (earliest == NULL) break;
      av_packet_move_ref(packet, earliest->next);
      write_packet(output, earliest, packet);
      ++packets;
      refill(earliest);
    }
  }
  int finished = by_time;
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
      write_packet(output, source, packet);
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
