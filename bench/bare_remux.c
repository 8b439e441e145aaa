// SPDX-License-Identifier: MIT
/*
 * bare_remux: the baseline for conversion. Remuxes each INPUT into its OUTPUT
 * with one plain libavformat loop: read, rescale, interleaved write.
 *
 *   bare_remux [-s START] [-e END] [-p] [-w FORMAT] INPUT OUTPUT [INPUT OUTPUT ...]
 *
 * -s/-e cut the output to START..END seconds of output time (packets before
 * START are read and dropped; the loop ends at the first packet at or past END).
 * -p runs the pairs at the same time, one thread each, in this one process;
 * without it they run one after another.
 * -w writes OUTPUT through a write callback (custom I/O over FFmpeg's default
 * 32 KiB buffer) in container FORMAT, as a program streaming to a pipe would.
 * Video, audio and subtitle streams are kept, as the conversion family keeps them.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "bare.h"
#include "remux_args.h"

struct job {
  const char* input_path;
  const char* output_path;
  const char* write_format;
  double start;
  double end;
  long long packets;
};

static int write_fd(void* opaque, bare_write_buffer buffer, int size) {
  return write_all(*(int*)opaque, buffer, size) < 0 ? AVERROR(EIO) : size;
}

static void* remux(void* argument) {
  struct job* job = argument;
  AVFormatContext* input = bare_open_input(job->input_path);

  AVFormatContext* output = NULL;
  AVIOContext* io = NULL;
  int fd = -1;
  if (job->write_format != NULL) {
    avformat_alloc_output_context2(&output, NULL, job->write_format, NULL);
    if (output == NULL) bare_die("output format", job->write_format, 0);
    fd = open(job->output_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) bare_die("open for writing", job->output_path, AVERROR(errno));
    const int size = 32768;
    io = avio_alloc_context(av_malloc(size), size, 1, &fd, NULL, write_fd, NULL);
    if (io == NULL) bare_die("custom I/O", NULL, AVERROR(ENOMEM));
    output->pb = io;
    output->flags |= AVFMT_FLAG_CUSTOM_IO;
  } else {
    output = bare_open_output(job->output_path);
  }

  int* map = av_malloc_array(input->nb_streams, sizeof *map);
  if (map == NULL) bare_die("stream map", NULL, AVERROR(ENOMEM));
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const enum AVMediaType type = input->streams[i]->codecpar->codec_type;
    map[i] = -1;
    if (type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO || type == AVMEDIA_TYPE_SUBTITLE)
      map[i] = bare_add_stream(output, input->streams[i]->codecpar)->index;
  }
  bare_write_header(output);

  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) >= 0) {
    const int index = packet->stream_index;
    if (map[index] < 0) {
      av_packet_unref(packet);
      continue;
    }
    const AVStream* out = output->streams[map[index]];
    packet->stream_index = map[index];
    bare_rescale(packet, input->streams[index]->time_base, out->time_base);
    const double seconds = packet->pts == AV_NOPTS_VALUE ? 0.0 : (double)packet->pts * av_q2d(out->time_base);
    if (job->end > 0.0 && seconds >= job->end) {
      av_packet_unref(packet);
      break;
    }
    if (job->start > 0.0 && seconds < job->start) {
      av_packet_unref(packet);
      continue;
    }
    av_interleaved_write_frame(output, packet);  /* takes the packet's reference */
    ++job->packets;
  }
  av_packet_free(&packet);
  av_free(map);
  avformat_close_input(&input);
  bare_close_output(output);
  if (io != NULL) {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
  if (fd >= 0) close(fd);
  return NULL;
}

int main(int argc, char** argv) {
  struct remux_args args;
  if (!parse_remux_args(argc, argv, &args)) return 2;
  struct job* jobs = calloc((size_t)args.pairs, sizeof *jobs);
  pthread_t* threads = calloc((size_t)args.pairs, sizeof *threads);
  if (jobs == NULL || threads == NULL) return 1;
  for (int i = 0; i < args.pairs; ++i) {
    jobs[i] = (struct job){args.paths[2 * i], args.paths[2 * i + 1], args.write_format, args.start, args.end, 0};
    if (args.parallel) {
      if (pthread_create(&threads[i], NULL, remux, &jobs[i]) != 0) bare_die("thread", NULL, 0);
    } else {
      remux(&jobs[i]);
    }
  }
  long long packets = 0;
  for (int i = 0; i < args.pairs; ++i) {
    if (args.parallel) pthread_join(threads[i], NULL);
    packets += jobs[i].packets;
  }
  printf("packets written: %lld\n", packets);
  free(jobs);
  free(threads);
  return 0;
}
