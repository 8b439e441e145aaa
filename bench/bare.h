// SPDX-License-Identifier: MIT
/*
 * What the bare libavformat loops share: opening an input, creating an output
 * with copies of input streams, and closing it. Each baseline is then one
 * straight read/write loop, as a program using FFmpeg directly would write it.
 * Any failure ends the program with status 1.
 */
#ifndef QUORVEL_BENCH_BARE_H
#define QUORVEL_BENCH_BARE_H

#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The buffer type of an AVIOContext's write function: const from libavformat 61 (FFmpeg 7) on. */
#if LIBAVFORMAT_VERSION_MAJOR >= 61
typedef const uint8_t* bare_write_buffer;
#else
typedef uint8_t* bare_write_buffer;
#endif

static inline void bare_die(const char* what, const char* name, int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  if (error < 0) av_strerror(error, text, sizeof text);
  fprintf(stderr, "%s %s failed%s%s\n", what, name ? name : "", error < 0 ? ": " : "", text);
  exit(1);
}

static inline AVFormatContext* bare_open_input(const char* path) {
  AVFormatContext* input = NULL;
  int ret = avformat_open_input(&input, path, NULL, NULL);
  if (ret < 0) bare_die("open", path, ret);
  ret = avformat_find_stream_info(input, NULL);
  if (ret < 0) bare_die("stream info", path, ret);
  return input;
}

/* An output whose container follows the file name, with its file opened. */
static inline AVFormatContext* bare_open_output(const char* path) {
  AVFormatContext* output = NULL;
  int ret = avformat_alloc_output_context2(&output, NULL, NULL, path);
  if (output == NULL) bare_die("output format for", path, ret);
  if (!(output->oformat->flags & AVFMT_NOFILE)) {
    ret = avio_open(&output->pb, path, AVIO_FLAG_WRITE);
    if (ret < 0) bare_die("open for writing", path, ret);
  }
  return output;
}

/* A new output stream with a copy of the input stream's codec parameters. */
static inline AVStream* bare_add_stream(AVFormatContext* output, const AVCodecParameters* parameters) {
  AVStream* stream = avformat_new_stream(output, NULL);
  if (stream == NULL) bare_die("new stream", NULL, AVERROR(ENOMEM));
  int ret = avcodec_parameters_copy(stream->codecpar, parameters);
  if (ret < 0) bare_die("codec parameters", NULL, ret);
  stream->codecpar->codec_tag = 0;
  return stream;
}

static inline void bare_write_header(AVFormatContext* output) {
  int ret = avformat_write_header(output, NULL);
  if (ret < 0) bare_die("write header", output->url, ret);
}

/* Trailer, then the file and the context. */
static inline void bare_close_output(AVFormatContext* output) {
  av_write_trailer(output);
  if (!(output->oformat->flags & AVFMT_NOFILE) && !(output->flags & AVFMT_FLAG_CUSTOM_IO)) avio_closep(&output->pb);
  avformat_free_context(output);
}

static inline void bare_rescale(AVPacket* packet, AVRational from, AVRational to) {
  av_packet_rescale_ts(packet, from, to);
  packet->pos = -1;
}

#endif
