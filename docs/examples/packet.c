/*
 * Multiplexing, both ways:
 *  1. the worker builds DIR/muxed.mkv from a video-only and an audio-only file;
 *  2. the caller copies every packet of AV into DIR/fed.mkv itself, pulling them
 *     with the demultiplexing family and writing them with StreamWrite.
 *
 *   packet VIDEO AUDIO AV DIR
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <libavcodec/codec_par.h> /* the codec parameters that GetAVCodec hands out */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#define MAX_STREAMS 16

static void on_packet(void* reserved, int media_type, long long number, double seconds, void* context) {
  (void)reserved;
  (void)media_type;
  (void)number;
  (void)seconds;
  ++*(long long*)context;
}

static int report(const char* call) {
  fprintf(stderr, "%s failed: error 0x%llX\n", call, (unsigned long long)AVFormat_GetLastError(NULL));
  return 1;
}

/* Part 1: input files, interleaved by the worker. */
static int mux(const char* video, const char* audio, const char* out) {
  long long packets = 0;
  void* task = AVFormat_Packet_Init(on_packet, &packets);
  if (task == NULL) {
    fprintf(stderr, "could not create a multiplexing task: error 0x%llX\n",
            (unsigned long long)AVFormat_GetLastError(NULL));
    return 1;
  }
  /* Output first; each Input adds one output stream per video or audio stream. */
  if (!AVFormat_Packet_Output(task, out, 0.0, 0.0, NULL, NULL) || !AVFormat_Packet_Input(task, video, NULL, NULL) ||
      !AVFormat_Packet_Input(task, audio, NULL, NULL) || !AVFormat_Packet_Start(task)) {
    const int status = report("AVFormat_Packet_Output/Input/Start");
    AVFormat_Packet_Stop(task);
    return status;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_Packet_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_Packet_Stop(task);
  printf("muxed %lld packets into %s\n", packets, out);
  return 0;
}

/* ticks of `from` as a count of `to`, rounded; unknown times stay unknown */
static int64_t rescale(int64_t ticks, AVCODEC_TIMEBASE from, AVCODEC_TIMEBASE to) {
  if (ticks == INT64_MIN) return ticks;
  return llround((double)ticks * from.num * to.den / ((double)from.den * to.num));
}

/* Part 2: packets fed by the caller. */
static int feed(const char* in, const char* out) {
  void* reader = AVFormat_UNPack_Init(on_packet, NULL);
  void* writer = AVFormat_Packet_Init(on_packet, NULL);
  int status = 1;
  if (reader == NULL || writer == NULL || !AVFormat_UNPack_Input(reader, in, NULL, NULL) ||
      !AVFormat_Packet_Output(writer, out, 0.0, 0.0, NULL, NULL)) {
    report("Init/Input/Output");
    goto done;
  }
  /* One output stream per input stream, made from the input's codec parameters. */
  bool video[MAX_STREAMS] = {false};
  int streams = 0;
  for (; streams < MAX_STREAMS; ++streams) {
    void* parameters = NULL;
    if (!AVFormat_UNPack_GetAVCodec(reader, streams, &parameters, NULL)) break;
    video[streams] = ((AVCodecParameters*)parameters)->codec_type == AVMEDIA_TYPE_VIDEO;
    const bool created = AVFormat_Packet_StreamCreate(writer, parameters); /* deep-copies them */
    free(parameters); /* free(), never avcodec_parameters_free() */
    if (!created) {
      report("AVFormat_Packet_StreamCreate");
      goto done;
    }
  }

  const size_t capacity = 16u << 20; /* Read has no size argument */
  unsigned char* data = malloc(capacity);
  int stream = 0, size = 0, frame_rate = 0;
  long long written = 0;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  while (data != NULL && AVFormat_UNPack_Read(reader, &stream, data, &size, &info, &time_base)) {
    if (stream >= streams) continue;
    if (video[stream]) {
      /* The video stream's time base doubles as its frame rate (a packet lasts
       * 1/den s): hand its times over counted in frames. */
      if (frame_rate == 0 && info.duration > 0)
        frame_rate = (int)lround((double)time_base.den / ((double)time_base.num * info.duration));
      if (frame_rate > 0) {
        const AVCODEC_TIMEBASE frames = {1, frame_rate};
        info.pts = rescale(info.pts, time_base, frames);
        info.dts = rescale(info.dts, time_base, frames);
        time_base = frames;
      }
    }
    /* The first write writes the header; the data is copied before the call returns. */
    if (!AVFormat_Packet_StreamWrite(writer, stream, data, size, &time_base, &info)) {
      report("AVFormat_Packet_StreamWrite");
      break;
    }
    ++written;
  }
  free(data);
  printf("fed %lld packets of %d streams into %s\n", written, streams, out);
  status = written > 0 ? 0 : 1;
done:
  AVFormat_Packet_Stop(writer); /* the trailer */
  AVFormat_UNPack_Stop(reader);
  return status;
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: %s VIDEO AUDIO AV DIR\n", argv[0]);
    return 2;
  }
  char muxed[4096], fed[4096];
  snprintf(muxed, sizeof muxed, "%s/muxed.mkv", argv[4]);
  snprintf(fed, sizeof fed, "%s/fed.mkv", argv[4]);
  return mux(argv[1], argv[2], muxed) || feed(argv[3], fed);
}
