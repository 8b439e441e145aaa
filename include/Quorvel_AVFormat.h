// SPDX-License-Identifier: MIT
/*
 * libQuorvel_AVFormat: container-level media operations on top of FFmpeg,
 * without re-encoding anything.
 *
 * Four families of operations, each driven through a task handle:
 *  - Conversion      (AVFormat_Convert_*): remux one input into another container,
 *                     optionally cut to a start and an end time.
 *  - Demultiplexing  (AVFormat_UNPack_*):  split an input into one container per
 *                     stream, or pull its packets and codec parameters one by one.
 *  - Multiplexing    (AVFormat_Packet_*):  build one container from the streams of
 *                     several inputs, or from packets that the caller writes.
 *  - Concatenation   (AVFormat_Link_*):    join several files end to end.
 *
 * Life cycle, the same in every family:
 *  1. *_Init() allocates a task and returns its handle (NULL on failure).
 *  2. *_Output() / *_Input() attach the destination and the sources, in the order
 *     that the family requires (see each family's section).
 *  3. *_Start() writes the container header and starts one worker thread.
 *  4. *_Suspend(), *_GetStatus() (and Seek where the family has it) act on the
 *     running task. GetStatus() reports false once the worker has finished.
 *  5. *_Stop() is the only way to end a task: it stops the worker, writes the
 *     trailer, releases every object of the task and frees the handle, which is
 *     dangling afterwards. Stop never fails and accepts NULL.
 *
 * Errors: every entry point except AVFormat_GetLastError() clears
 * AVForamt_IsErrorOccur on entry. A failing call sets it, stores one of the
 * ERROR_AVFORMAT_* codes in AVForamt_dwErrorCode and returns false (NULL for
 * *_Init). A successful call leaves the previous code in place. The error state
 * is process-wide and not per thread: read it right after the failing call.
 *
 * Threads: any number of tasks of any family may exist and run at once. The
 * progress callback and the caller's read and write functions run on whichever
 * thread drives FFmpeg at that moment: the worker while a task runs, the
 * caller's thread during set-up, Start and Stop. Calls on one task must not
 * overlap, except those that control a running worker (GetStatus, Suspend,
 * GetReport, Seek), which may come from any thread while it runs, those
 * allowed inside callbacks below, and Stop, which may come from any thread at
 * any moment. Stop ends what the worker and a call in progress on another
 * thread (Output, Input, Start, Read, Seek, GetAVCodec, StreamCreate,
 * StreamWrite) wait on in an input, lets a write to an output finish, and
 * returns once that call has returned (which then fails as stopped, or
 * returns what it had). Once Stop has begun, no further call may start on
 * the handle. A bound on Input without a second thread is the open_timeout
 * option (see the task options).
 *
 * From inside a callback that a task's worker runs (its progress callback, or
 * its caller read or write function while the task runs), a caller may call
 * for that same task:
 *  - *_Stop() or *_StopWithReport(): returns at once without waiting (the
 *    report then lacks the trailer); the worker leaves its loop after the
 *    callback returns and finishes the stop itself (trailer, release, handle
 *    freed) as it ends. Make no further call on the handle after this Stop,
 *    not even from the same callback: it dangles as soon as the worker ends;
 *  - *_GetStatus(), *_Suspend() and *_GetReport();
 *  - from the progress callback only (not from a read function, which runs
 *    while the worker holds the input), AVFormat_Convert_Seek(),
 *    AVFormat_UNPack_Seek() and AVFormat_UNPack_GetAVCodec().
 * It must not call that task's *_Init(), *_Output(), *_Input(), *_Start(), or
 * the caller-fed multiplexing and demultiplexing calls (StreamCreate,
 * StreamWrite, Read). A Stop from a read or write function running on the
 * caller's own thread (inside Input, Output, Start, Read, ...) releases
 * nothing and fails with the family's parameter code; the call it is in then
 * ends as a stopped one, and Stop is called again once that call returned.
 * Calls on other tasks are allowed as from any thread, but Stop of another
 * task waits for that task's worker: two workers must never stop each other,
 * and a paused concatenation task's Stop waits until it is resumed.
 *
 * Inputs named by the caller (a file name or URL) are opened with FFmpeg's
 * defaults, and so is what their content opens in turn (a playlist's
 * segments and keys, a concat list's files, a reference file): each protocol
 * lets nested opens use the protocols on its own default list. From a local
 * file name that is file, crypto and data: any local file the content names
 * (a segment "../other/private.ts"), but no network. From an http or https
 * URL it is http, https, tls, tcp, udp, rtp, crypto, httpproxy and data: any
 * host the content names, but no local file. Name only inputs whose content
 * may reach those places, or set the task option policy=strict (see
 * AVFormat_Convert_SetOption), which allows local files only and no
 * demuxer that opens anything further. Inputs read through a caller read
 * function get FFmpeg's rule for pipes instead: nested opens are limited to
 * crypto and data, so no file and no network address.
 *
 * Valid C (C99 and later) and C++.
 */
#ifndef QUORVEL_AVFORMAT_H
#define QUORVEL_AVFORMAT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define QUORVEL_AVFORMAT_API __declspec(dllimport)
#elif defined(__GNUC__)
#define QUORVEL_AVFORMAT_API __attribute__((visibility("default")))
#else
#define QUORVEL_AVFORMAT_API
#endif

#ifdef __cplusplus
#define QUORVEL_AVFORMAT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define QUORVEL_AVFORMAT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else
#define QUORVEL_AVFORMAT_STATIC_ASSERT_JOIN2(a, b) a##b
#define QUORVEL_AVFORMAT_STATIC_ASSERT_JOIN(a, b) QUORVEL_AVFORMAT_STATIC_ASSERT_JOIN2(a, b)
#define QUORVEL_AVFORMAT_STATIC_ASSERT(cond, msg) \
  typedef char QUORVEL_AVFORMAT_STATIC_ASSERT_JOIN(quorvel_avformat_assert_, __LINE__)[(cond) ? 1 : -1]
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Callback types                                                            */
/* ------------------------------------------------------------------------ */

/**
 * Progress callback, given to every *_Init() with a caller context pointer.
 * Called on the worker thread once per packet, and must return before the
 * worker goes on.
 *
 * @param reserved   always NULL
 * @param type       conversion: the input stream's media type (AVMEDIA_TYPE_*);
 *                   demultiplexing: the output's input stream index;
 *                   multiplexing: media type of the input's mapped stream;
 *                   concatenation: the input stream's media type
 * @param number     conversion: task-wide packet number from 0;
 *                   demultiplexing, multiplexing: the output's (input's) packet
 *                   number from 0; concatenation: packets of that media type
 *                   over all inputs, from 1
 * @param seconds    the packet's time in seconds (see each family)
 * @param context    the caller context given to *_Init()
 *
 * May be NULL in every family: no calls are made then.
 */
typedef void (*AVFORMAT_PROGRESS_CALLBACK)(void* reserved, int type, long long number, double seconds,
                                           void* context);

/**
 * Caller read or write function of the caller I/O bridge. The library reads an
 * input from, or writes an output to, such a function instead of a file.
 *
 * @param context  the opaque pointer given beside the function
 * @param buffer   read: where to put at most @p size bytes; write: the bytes to consume
 * @param size     number of bytes
 * @return read: the number of bytes delivered, AVERROR_EOF at the end of the
 *         input, another negative AVERROR code on failure; write: the number of
 *         bytes consumed or a negative AVERROR code. This is FFmpeg's contract
 *         for the read_packet and write_packet functions of an AVIOContext.
 *         A write function must consume every byte: a result below @p size
 *         fails the output with AVERROR(EIO), a negative one with that value,
 *         and nothing more is written to it (AVFORMAT_TASK_REPORT tells).
 *         A read function's 0 is taken as the end of the input (as read(2)
 *         means it), and a result above @p size fails the input with
 *         AVERROR(EIO) (no bytes beyond the buffer are taken). Once Stop has
 *         been called the read function is not called again, so Stop returns
 *         as soon as a call in progress returns; one that never returns
 *         holds Stop for good.
 *
 * A bridged input or output is not seekable. Each bridge owns a 10 MiB buffer
 * for the life of its task. Output containers that must seek back (MP4 without
 * fragmentation, for instance) fail to write their header or trailer through a
 * bridge; choose a streamable format (mpegts, matroska, flv, ...).
 */
typedef int (*AVFORMAT_IO_FUNCTION)(void* context, unsigned char* buffer, int size);

/** FFmpeg's AVERROR_EOF, for read functions written without FFmpeg's headers. */
#define AVFORMAT_IO_EOF (-541478725)

/* ------------------------------------------------------------------------ */
/* Shared records. Fields, order and natural alignment are part of the       */
/* interface; callers may declare them themselves.                           */
/* ------------------------------------------------------------------------ */

/** A time base: one tick lasts num/den seconds. Same layout as FFmpeg's AVRational. */
typedef struct AVCODEC_TIMEBASE {
  int32_t num;
  int32_t den;
} AVCODEC_TIMEBASE;

/**
 * The timing of one packet, in ticks of the AVCODEC_TIMEBASE that travels
 * beside it. An unknown time is AV_NOPTS_VALUE (INT64_MIN), carried unchanged.
 * Whether a packet is a key frame is not part of it: only
 * AVFormat_UNPack_ReadSized() reports it, in its flags.
 */
typedef struct AVCODEC_PACKETINFO {
  int64_t pts;      /**< presentation time stamp */
  int64_t dts;      /**< decoding time stamp */
  int64_t duration; /**< duration of the packet */
} AVCODEC_PACKETINFO;

/**
 * One output of a demultiplexing task: a container holding the packets of one
 * input stream. AVFormat_UNPack_Output() copies the whole record; what
 * pWriteContext points to must stay valid until the task is stopped.
 */
typedef struct AVCODEC_FORMATINFO {
  /** Without pWriteFunc: the output file's path, whose name decides the container.
   *  With pWriteFunc: the container format's short name ("matroska", "mpegts", ...). */
  char szName[264];
  /** Greater than 0.0: packets earlier than this many seconds are not written. */
  double dlStartTime;
  /** Greater than 0.0: the task stops at the packet whose time equals this exactly. */
  double dlEndTime;
  /** Index of the input stream whose packets this output receives. */
  int32_t nStreamIndex;
  /** Never read; set to zero. */
  int32_t nReserved;
  /** Caller write function, or NULL to write the file named in szName. */
  AVFORMAT_IO_FUNCTION pWriteFunc;
  /** Handed back as the first argument of pWriteFunc. */
  void* pWriteContext;
} AVCODEC_FORMATINFO;

QUORVEL_AVFORMAT_STATIC_ASSERT(sizeof(AVCODEC_TIMEBASE) == 8, "AVCODEC_TIMEBASE is 8 bytes");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_TIMEBASE, den) == 4, "AVCODEC_TIMEBASE.den at 4");
QUORVEL_AVFORMAT_STATIC_ASSERT(sizeof(AVCODEC_PACKETINFO) == 24, "AVCODEC_PACKETINFO is 24 bytes");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_PACKETINFO, dts) == 8, "AVCODEC_PACKETINFO.dts at 8");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_PACKETINFO, duration) == 16,
                               "AVCODEC_PACKETINFO.duration at 16");
QUORVEL_AVFORMAT_STATIC_ASSERT(sizeof(AVCODEC_FORMATINFO) == 304, "AVCODEC_FORMATINFO is 304 bytes");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_FORMATINFO, dlStartTime) == 264,
                               "AVCODEC_FORMATINFO.dlStartTime at 264");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_FORMATINFO, dlEndTime) == 272,
                               "AVCODEC_FORMATINFO.dlEndTime at 272");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_FORMATINFO, nStreamIndex) == 280,
                               "AVCODEC_FORMATINFO.nStreamIndex at 280");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_FORMATINFO, pWriteFunc) == 288,
                               "AVCODEC_FORMATINFO.pWriteFunc at 288");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVCODEC_FORMATINFO, pWriteContext) == 296,
                               "AVCODEC_FORMATINFO.pWriteContext at 296");

/* ------------------------------------------------------------------------ */
/* Error state                                                               */
/* ------------------------------------------------------------------------ */

/** True when the most recent entry-point call failed. The spelling is part of the ABI. */
extern QUORVEL_AVFORMAT_API bool AVForamt_IsErrorOccur;
/** Code of the most recent failure; successful calls do not reset it. */
extern QUORVEL_AVFORMAT_API uint64_t AVForamt_dwErrorCode;

/** Conversion: task, I/O buffer, format context or stream map not allocated. */
#define ERROR_AVFORMAT_CONVERT_MALLOC 0x80D0002
/** Conversion: null task handle, or a call out of order. */
#define ERROR_AVFORMAT_CONVERT_PARAMETER 0x80D0010
/** Conversion: the input could not be opened, or the output file not opened for writing. */
#define ERROR_AVFORMAT_CONVERT_OPEN 0x80D0011
/** Conversion: the input's streams could not be analysed. */
#define ERROR_AVFORMAT_CONVERT_STREAMINFO 0x80D0012
/** Conversion: no output container for that name (unknown format or file extension). */
#define ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT 0x80D0021
/** Conversion: an output stream could not be created. */
#define ERROR_AVFORMAT_CONVERT_NEWSTREAM 0x80D0032
/** Conversion: codec parameters could not be copied into an output stream. */
#define ERROR_AVFORMAT_CONVERT_CODECPAR 0x80D0033
/** Conversion: the output container refused its header (streams it can't hold, no streams, ...). */
#define ERROR_AVFORMAT_CONVERT_WRITEHEADER 0x80D0034
/** Conversion: the worker thread could not be started. */
#define ERROR_AVFORMAT_CONVERT_THREAD 0x80D0035
/** Conversion: GetStatus was given no place for the status. */
#define ERROR_AVFORMAT_CONVERT_STATUS 0x80D0040
/** Conversion: the input could not seek there. */
#define ERROR_AVFORMAT_CONVERT_SEEK 0x80D0061

/** Multiplexing and demultiplexing: an allocation failed. */
#define ERROR_AVFORMAT_PACKET_MALLOC 0x80D1001
/** Multiplexing and demultiplexing (and concatenation's GetStatus, Suspend): null task
 *  handle, a required pointer is null, an index out of range, or a call out of order. */
#define ERROR_AVFORMAT_PACKET_PARAMETER 0x80D1002
/** Demultiplexing Read: no further packet (end of input or read error). */
#define ERROR_AVFORMAT_PACKET_READ 0x80D1003
/** An input could not be opened, or an output file not opened for writing. */
#define ERROR_AVFORMAT_PACKET_OPEN 0x80D1004
/** No output container for that name (unknown format or file extension). */
#define ERROR_AVFORMAT_PACKET_OUTPUTFORMAT 0x80D1005
/** Codec parameters could not be copied into a new output stream. */
#define ERROR_AVFORMAT_PACKET_CODECPAR 0x80D1006
/** The output container refused its header. */
#define ERROR_AVFORMAT_PACKET_WRITEHEADER 0x80D1007
/** The worker could not be started, or the call is refused because the worker runs. */
#define ERROR_AVFORMAT_PACKET_THREAD 0x80D1008
/** GetStatus was given no place for the status. */
#define ERROR_AVFORMAT_PACKET_STATUS 0x80D1009
/** Demultiplexing Seek failed; GetAVCodec: null handle, no input, or no such stream. */
#define ERROR_AVFORMAT_PACKET_SEEK 0x80D1010
/** Multiplexing StreamWrite: the muxer refused the packet. */
#define ERROR_AVFORMAT_PACKET_WRITEFRAME 0x80D1011
/** Demultiplexing AVFormat_UNPack_ReadSized: the packet is larger than the buffer (its size is stored). */
#define ERROR_AVFORMAT_PACKET_BUFFERSIZE 0x80D1012

/** Concatenation: task or input list not allocated. */
#define ERROR_AVFORMAT_LINK_MALLOC 0x80D2002
/** Concatenation: null task handle, null input file name, or a call out of order. */
#define ERROR_AVFORMAT_LINK_PARAMETER 0x80D2003
/** Concatenation: an input could not be opened, or the output file not opened for writing. */
#define ERROR_AVFORMAT_LINK_OPEN 0x80D2004
/** Concatenation: an input's streams could not be analysed. */
#define ERROR_AVFORMAT_LINK_STREAMINFO 0x80D2005
/** Concatenation: no output container for that file name. */
#define ERROR_AVFORMAT_LINK_OUTPUTFORMAT 0x80D2006
/** Concatenation: codec parameters could not be copied into an output stream. */
#define ERROR_AVFORMAT_LINK_CODECPAR 0x80D2007
/** Concatenation: the output container refused its header. */
#define ERROR_AVFORMAT_LINK_WRITEHEADER 0x80D2008
/** Concatenation: the worker thread could not be started. */
#define ERROR_AVFORMAT_LINK_THREAD 0x80D2009

/**
 * Returns AVForamt_dwErrorCode (0 before any failure).
 * @param error_number if not NULL, receives the calling thread's errno first
 * Neither reads nor changes AVForamt_IsErrorOccur.
 */
QUORVEL_AVFORMAT_API uint64_t AVFormat_GetLastError(int* error_number);

/* ------------------------------------------------------------------------ */
/* Conversion: Init, Output, Input, Start; Suspend, GetStatus, Seek; Stop.   */
/* ------------------------------------------------------------------------ */

/**
 * Creates a conversion task.
 * @param progress  may be NULL (no progress calls). Called once per packet of a
 *                  kept stream (video, audio, subtitle), also for packets that
 *                  the start time keeps out; type is the stream's media type,
 *                  number counts those packets task-wide from 0, seconds is the
 *                  packet's presentation time on the output stream's time base.
 * @return the task handle, or NULL with ERROR_AVFORMAT_CONVERT_MALLOC.
 */
QUORVEL_AVFORMAT_API void* AVFormat_Convert_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context);

/**
 * Creates the output. Call once, before AVFormat_Convert_Input().
 * @param url    without @p write: the output file name or URL, whose name decides
 *               the container. With @p write: the short name of the container
 *               format ("mpegts", "matroska", "flv", ...), not a location.
 * @param start  seconds: packets whose output time is earlier are read and
 *               reported but not written; 0 or less keeps everything.
 * @param end    seconds: the task ends after the packet whose output time equals
 *               this value exactly (an exact comparison: a value that no packet
 *               hits runs to the end of the input); 0 or less runs to the end.
 *               Times are those of the input's own timeline, not shifted to 0.
 * @param write  caller write function (caller I/O bridge), or NULL
 * @param opaque handed back to @p write
 * Stores start and end only on success.
 * Errors: ERROR_AVFORMAT_CONVERT_PARAMETER (null task),
 *         ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT (unknown format or extension),
 *         ERROR_AVFORMAT_CONVERT_OPEN (the file can't be opened for writing),
 *         ERROR_AVFORMAT_CONVERT_MALLOC.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Output(void* task, const char* url, double start, double end,
                                                  AVFORMAT_IO_FUNCTION write, void* opaque);

/**
 * Opens and probes the input and creates one output stream for each of its
 * video, audio and subtitle streams; other streams (data, attachments) are
 * dropped. Call after AVFormat_Convert_Output().
 * Packets are routed to the output stream whose index equals their input
 * stream's index, while output streams are numbered in order among the kept
 * streams only. So when a dropped stream precedes a kept one, packets land in
 * another stream: with input streams [data, video, audio] the output holds
 * video as stream 0 and audio as stream 1; the video packets (input index 1)
 * are written into output stream 1, the audio stream, and the audio packets
 * (input index 2) have no output stream of that index and are dropped.
 * @param url    file name or URL, or NULL with @p read
 * @param read   caller read function (caller I/O bridge), or NULL. When both are
 *               given, @p url is opened first (a failure ends the call), then the
 *               input is read through @p read.
 * Errors: ERROR_AVFORMAT_CONVERT_PARAMETER (null task, no output yet, neither
 *         url nor read), ERROR_AVFORMAT_CONVERT_OPEN, ERROR_AVFORMAT_CONVERT_STREAMINFO,
 *         ERROR_AVFORMAT_CONVERT_NEWSTREAM, ERROR_AVFORMAT_CONVERT_CODECPAR,
 *         ERROR_AVFORMAT_CONVERT_MALLOC.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read,
                                                 void* opaque);

/**
 * Writes the output header and starts the worker. Call once.
 * Packets without a presentation time get times counted from the task-wide
 * packet number and the stream's frame rate.
 * Errors: ERROR_AVFORMAT_CONVERT_PARAMETER (null task, not set up, already
 *         started), ERROR_AVFORMAT_CONVERT_WRITEHEADER, ERROR_AVFORMAT_CONVERT_THREAD.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Start(void* task);

/** Pauses (true) or resumes (false) the worker. Error: ERROR_AVFORMAT_CONVERT_PARAMETER. */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Suspend(void* task, bool pause);

/**
 * Stores in @p running whether the worker still runs: false before Start and
 * once the input has ended or the end time was met.
 * Errors: ERROR_AVFORMAT_CONVERT_PARAMETER, ERROR_AVFORMAT_CONVERT_STATUS (null @p running).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_GetStatus(void* task, bool* running);

/**
 * Ends the task: stops and joins the worker, closes the input, writes the
 * trailer (on an output whose header was written), releases everything and
 * frees the task. Returns true (NULL is accepted), except from a read or
 * write function inside a call on this task (see Threads at the top):
 * ERROR_AVFORMAT_CONVERT_PARAMETER, nothing released.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Stop(void* task);

/**
 * Moves the input's read position to @p seconds (whole seconds on the input's
 * own timeline), landing on any frame, key frame or not.
 * Errors: ERROR_AVFORMAT_CONVERT_PARAMETER (null task, no input),
 *         ERROR_AVFORMAT_CONVERT_SEEK (also seconds whose microseconds do
 *         not fit in 64 bits, beyond about +-292,000 years).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Seek(void* task, long long seconds);

/* ------------------------------------------------------------------------ */
/* Demultiplexing: Init, Input, Output (optional); Start, or Read and        */
/* GetAVCodec without Start; Suspend, GetStatus, Seek; Stop.                 */
/* ------------------------------------------------------------------------ */

/**
 * Creates a demultiplexing task.
 * @param progress  called on the worker once per packet that an output claims,
 *                  also for packets that the output's start time keeps out:
 *                  type is the output's input stream index, number the output's
 *                  packet number from 0, seconds the packet's pts times the
 *                  output stream's time base. May be NULL: no calls are made.
 * @return the task handle, or NULL with ERROR_AVFORMAT_PACKET_MALLOC.
 */
QUORVEL_AVFORMAT_API void* AVFormat_UNPack_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context);

/**
 * Opens and probes the input. Call before Output, Start, Read, Seek and GetAVCodec.
 * @param url   file name or URL; ignored when @p read is given
 * @param read  caller read function (caller I/O bridge), or NULL
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, nothing to open, already
 *         started, or the input's streams could not be analysed),
 *         ERROR_AVFORMAT_PACKET_OPEN, ERROR_AVFORMAT_PACKET_MALLOC.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read,
                                                void* opaque);

/**
 * Creates one output per record and writes its header at once: a file output
 * holds its header when the call returns. Optional; call after Input and
 * before Start. A @p count of 0 or less does nothing and succeeds at any
 * stage (also before Input); only a null task fails then.
 * @param infos  points to the caller's variable that holds the address of an
 *               array of @p count record pointers. The records are copied
 *               (szName is read up to its 263rd character).
 * The i-th output takes the codec parameters of input stream i and receives
 * the packets of input stream infos[i]->nStreamIndex: name stream i in record i.
 * An nStreamIndex that names no input stream gives an output with no packets;
 * when several outputs name one stream, the first of them receives it.
 * Packets keep their input timestamps, counted in the output stream's time
 * base: exact where the container keeps the input's (Matroska to Matroska).
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, no input, already
 *         started, null infos or record, count above the input's number of
 *         streams), ERROR_AVFORMAT_PACKET_OUTPUTFORMAT, ERROR_AVFORMAT_PACKET_OPEN,
 *         ERROR_AVFORMAT_PACKET_MALLOC (a bridge buffer),
 *         ERROR_AVFORMAT_PACKET_CODECPAR (the output stream not made or described),
 *         ERROR_AVFORMAT_PACKET_WRITEHEADER. The first failure ends the call;
 *         outputs made before it stay in the task and are finished by Stop.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Output(void* task, AVCODEC_FORMATINFO*** infos, int count);

/**
 * Starts the worker, which writes each packet into the first output that
 * claims its stream, unchanged, and ends at the end of the input, on a write
 * failure, or after the packet whose time equals an output's end time
 * exactly (for every output). A task is started once; a pause asked for
 * before Start is dropped.
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, no input, already
 *         started), ERROR_AVFORMAT_PACKET_THREAD.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Start(void* task);

/**
 * Pulls the next packet of any stream, in the input's order, while no worker
 * runs: before Start, or once GetStatus reports that the worker has ended
 * (reading then goes on where the worker stopped). Outputs and their start
 * and end times play no part.
 *
 * This function is never told how large @p data is, so it needs a buffer at
 * least as large as any packet of the input. For input that is not trusted no
 * such bound exists: a packet may be far larger than the file it comes from
 * (a zlib-compressed Matroska block inflates to megabytes from a few bytes),
 * and a packet larger than the buffer overruns it. Use
 * AVFormat_UNPack_ReadSized() instead, which is told the buffer's size.
 * A packet that AVFormat_UNPack_ReadSized() kept is delivered first.
 *
 * @param stream_index receives the packet's stream index (required)
 * @param data         receives the packet's bytes (required): it must hold the
 *                     largest packet that the input can yield
 * @param size         receives the packet's size (required)
 * @param info         if not NULL, receives pts, dts and duration, unscaled
 *                     (AV_NOPTS_VALUE where unknown)
 * @param time_base    if not NULL, receives the time base those are counted
 *                     in: the packet's own, else its stream's
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task or required pointer, no
 *         input), ERROR_AVFORMAT_PACKET_THREAD (the worker runs, also paused),
 *         ERROR_AVFORMAT_PACKET_READ (end of input or read error).
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Read(void* task, int* stream_index, unsigned char* data, int* size,
                                               AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base);

/** Stores whether the worker still runs. Errors: ERROR_AVFORMAT_PACKET_PARAMETER, ERROR_AVFORMAT_PACKET_STATUS. */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetStatus(void* task, bool* running);

/**
 * Pauses (true) or resumes (false) the worker; a paused worker still counts
 * as running. Error: ERROR_AVFORMAT_PACKET_PARAMETER.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Suspend(void* task, bool pause);

/**
 * Moves the input's read position back to the key frame at or before
 * @p timestamp, counted in the time base of stream @p stream_index (-1:
 * microseconds). Allowed while the worker runs, which then goes on from there.
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, no input),
 *         ERROR_AVFORMAT_PACKET_SEEK (no such stream, or the input could not seek).
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Seek(void* task, int stream_index, unsigned long long timestamp);

/**
 * Ends the task at any stage: stops and joins the worker (also a paused one),
 * closes the input, writes each output's trailer, releases everything and
 * frees the task. A caller write function has received all of its output's
 * bytes when Stop returns. Returns true (NULL is accepted), except from a
 * read or write function inside a call on this task (see Threads at the
 * top): ERROR_AVFORMAT_PACKET_PARAMETER, nothing released.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Stop(void* task);

/**
 * Hands out a copy of an input stream's codec parameters and its time base,
 * after Input and until Stop, also while the worker runs.
 * @param codec_parameters if not NULL, receives a malloc()ed copy of the
 *        stream's AVCodecParameters (sizeof as in the FFmpeg headers the library
 *        was built against: it differs between FFmpeg versions, so read it with
 *        the same headers). Release it with free(), never with
 *        avcodec_parameters_free(): its pointers (extradata, side data, a custom
 *        channel map) still point into the task's input and dangle after
 *        AVFormat_UNPack_Stop(). Built against FFmpeg 6.1 or later, a
 *        framerate with numerator 0 is replaced by the stream's r_frame_rate
 *        (0/0 for most audio); older AVCodecParameters have no framerate.
 * @param time_base        if not NULL, receives the stream's time base
 * Errors: ERROR_AVFORMAT_PACKET_SEEK (null task, no input, no such stream),
 *         ERROR_AVFORMAT_PACKET_MALLOC (the copy's pointer then holds NULL).
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetAVCodec(void* task, int stream_index, void** codec_parameters,
                                                     AVCODEC_TIMEBASE* time_base);

/* ------------------------------------------------------------------------ */
/* Multiplexing: Init, Output, then Input and/or StreamCreate calls; Start   */
/* (input files) or StreamWrite (caller packets); Suspend, GetStatus; Stop.  */
/* ------------------------------------------------------------------------ */

/**
 * Creates a multiplexing task. The callback is called once per packet that the
 * worker reads (also one before the start time), with the media type of the
 * input's mapped stream, the input's packet number from 0 and the packet's
 * time in seconds on its output stream; a NULL callback gets no calls.
 * @return the task handle, or NULL with ERROR_AVFORMAT_PACKET_MALLOC.
 */
QUORVEL_AVFORMAT_API void* AVFormat_Packet_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context);

/**
 * Creates the output. Call before any Input or StreamCreate: once either has
 * added a stream, the output is not replaced (the inputs hold the indices of
 * its streams) and the call is refused. Before that, a later call replaces
 * the output.
 * @param name  without @p write: the output file name; with @p write: the
 *              container format's short name
 * @param start, end  as for AVFormat_Convert_Output(), on each packet's time on
 *              its output stream; an end time hit exactly by a packet of any
 *              input ends the whole run
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task or name, streams already
 *         added, or a header was already written or tried), ERROR_AVFORMAT_PACKET_OUTPUTFORMAT,
 *         ERROR_AVFORMAT_PACKET_OPEN, ERROR_AVFORMAT_PACKET_MALLOC.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Output(void* task, const char* name, double start, double end,
                                                 AVFORMAT_IO_FUNCTION write, void* opaque);

/**
 * Adds an input file and one output stream per video and audio stream of it
 * (still pictures, MJPEG and JPEG 2000 video such as cover art, are skipped).
 * The worker carries the packets of every stream of the input into the output
 * stream of its last mapped stream, timed in that stream's time base: give it
 * files with one stream each. An input with no such stream is refused.
 * Output streams are numbered in creation order across
 * Input and StreamCreate. A failed call releases what it opened; output
 * streams it already made stay.
 * @param url, read  as for AVFormat_Convert_Input()
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, no output, nothing to
 *         open, the streams could not be analysed, no video or audio stream
 *         that is not a still picture, or a header was already written or
 *         tried), ERROR_AVFORMAT_PACKET_OPEN,
 *         ERROR_AVFORMAT_PACKET_MALLOC, ERROR_AVFORMAT_PACKET_CODECPAR.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read,
                                                void* opaque);

/**
 * Writes the header and starts the worker, which takes one packet from each
 * input in turn, in the order they were added, and ends when the first input
 * runs out (so the other inputs are cut there). Packets without a
 * presentation time get times from their input's packet number and frame
 * rate. Times are rescaled to the output streams, never shifted. Call once.
 * With no input the header is still written (most containers refuse one with
 * no stream: ERROR_AVFORMAT_PACKET_WRITEHEADER) and the worker ends at once.
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, no output, already
 *         started, or StreamWrite has written the header),
 *         ERROR_AVFORMAT_PACKET_WRITEHEADER, ERROR_AVFORMAT_PACKET_THREAD.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Start(void* task);

/**
 * Stores whether the worker still runs: false before Start and once an input
 * has run out or the end time was met; true while paused.
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER, ERROR_AVFORMAT_PACKET_STATUS (null @p running).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_GetStatus(void* task, bool* running);

/**
 * Pauses (true) or resumes (false) the worker; it takes effect between passes
 * over the inputs. Start clears a pause set before it.
 * Error: ERROR_AVFORMAT_PACKET_PARAMETER.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Suspend(void* task, bool pause);

/**
 * Ends the task at any stage, started or fed by the caller: stops and joins the
 * worker, writes the trailer (on an output whose header was written), releases
 * the inputs and the output and frees the task. Returns true (NULL is
 * accepted), except from a read or write function inside a call on this task
 * (see Threads at the top): ERROR_AVFORMAT_PACKET_PARAMETER, nothing released.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Stop(void* task);

/**
 * Adds an output stream made from @p codec_parameters (a const AVCodecParameters*,
 * for example from AVFormat_UNPack_GetAVCodec(); it is deep-copied). The stream's
 * index is its place in creation order among all of the task's output streams.
 * The last video stream created is the task's video stream (see StreamWrite);
 * until one is created, stream 0 is.
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task or parameters, no output,
 *         or a header was already written or tried), ERROR_AVFORMAT_PACKET_THREAD
 *         (the worker runs), ERROR_AVFORMAT_PACKET_CODECPAR (the stream stays).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StreamCreate(void* task, void* codec_parameters);

/**
 * Writes one packet into output stream @p stream_index; the first call writes
 * the header, which is tried only once per task (after Start it is not written
 * again). Do not call Start on a task fed this way.
 * @param data, size  one encoded packet; copied before the call returns
 * @param time_base   required, num and den above 0: the time base of @p info's values. For the
 *                    task's video stream its den is taken as the frame rate:
 *                    the packet lasts 1/den seconds in whole microseconds
 *                    (1/25: 40000 us, 1/90000: 11 us), whatever info->duration says.
 * @param info        may be NULL: the packet then has no time stamps and no
 *                    duration, and the muxer decides whether it takes it.
 *                    No key-frame flag is passed on. Set times (and the
 *                    duration), rescaled to the stream, must lie within 2^31
 *                    seconds (some 68 years) either way of 0: muxers convert
 *                    times between their streams' time bases, and one that
 *                    overflows there can end the process (NUT's muxer does).
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task or time base, a time base
 *         with num or den at 0 or below, a time out of those bounds, no output,
 *         negative size or NULL data, no such stream), ERROR_AVFORMAT_PACKET_THREAD
 *         (the worker runs), ERROR_AVFORMAT_PACKET_WRITEHEADER (the header
 *         failed, reported by the call that tried it), ERROR_AVFORMAT_PACKET_WRITEFRAME
 *         (the muxer refused the packet, or the header failed earlier: no packet
 *         then reaches the muxer), ERROR_AVFORMAT_PACKET_MALLOC. The task stays
 *         usable after a failure.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StreamWrite(void* task, int stream_index, const unsigned char* data,
                                                      int size, AVCODEC_TIMEBASE* time_base,
                                                      AVCODEC_PACKETINFO* info);

/* ------------------------------------------------------------------------ */
/* Concatenation: Init, Output, one Input per file in order; Start;          */
/* Suspend, GetStatus; Stop.                                                 */
/* ------------------------------------------------------------------------ */

/**
 * Creates a concatenation task.
 * @param progress  may be NULL (no progress calls). Called on the worker once
 *                  per routed packet, written or cut: type is the media type of
 *                  the input stream the packet came from, number counts the
 *                  packets of that type over all inputs from 1, seconds is the
 *                  packet's position on the output timeline.
 * @return the task handle, or NULL with ERROR_AVFORMAT_LINK_MALLOC.
 */
QUORVEL_AVFORMAT_API void* AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context);

/**
 * Creates the output file, whose name decides the container. Call once,
 * before the inputs; it may be called again after a failure.
 * Errors: ERROR_AVFORMAT_LINK_PARAMETER (null task, called after an Input or
 *         after Start), ERROR_AVFORMAT_LINK_OUTPUTFORMAT (no container for the
 *         name, or a NULL name: no output then), ERROR_AVFORMAT_LINK_OPEN.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_Output(void* task, const char* file);

/**
 * Appends an input file; inputs follow each other in call order, each read
 * from its beginning. The output's video and audio streams are described from
 * the first input that has each kind, from its first stream of that kind.
 * Later inputs are not compared with it: they must share codecs and time bases.
 * Each input continues where the previous one ended: its times are shifted by
 * the previous input's last timestamp plus that timestamp divided by its
 * packet count (integer division, in the inputs' time base).
 * @param start, end  the cut, in seconds on the output timeline; when both are
 *                    above 0, a packet is written only while its position is
 *                    at most @p start and at most @p end. Cut packets are still
 *                    reported and counted.
 * @param video, audio  the input's stream to copy for each kind; -1, or an
 *                    index that names no stream of the input, copies none. A
 *                    stream named as both is copied as audio.
 * Errors: ERROR_AVFORMAT_LINK_PARAMETER (null task or file name, no output,
 *         called after Start), ERROR_AVFORMAT_LINK_OPEN, ERROR_AVFORMAT_LINK_STREAMINFO,
 *         ERROR_AVFORMAT_LINK_CODECPAR (an output stream not made or described).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_Input(void* task, const char* file, double start, double end, int video,
                                              int audio);

/**
 * Writes the header and starts the worker (not paused). GetStatus reports
 * false once the worker has passed the last input; Stop is still needed.
 * Errors: ERROR_AVFORMAT_LINK_PARAMETER (null task, no output, called twice),
 *         ERROR_AVFORMAT_LINK_WRITEHEADER, ERROR_AVFORMAT_LINK_THREAD.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_Start(void* task);

/**
 * Stores whether the worker still runs. Reports with the multiplexing codes:
 * ERROR_AVFORMAT_PACKET_PARAMETER (null task), ERROR_AVFORMAT_PACKET_STATUS (null @p running).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_GetStatus(void* task, bool* running);

/**
 * Pauses (true) or resumes (false) the worker; accepted at any time.
 * Error (multiplexing code): ERROR_AVFORMAT_PACKET_PARAMETER (null task).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_Suspend(void* task, bool pause);

/**
 * Ends the task: stops and joins the worker, writes the trailer (if the header
 * was written), releases everything. Returns true (NULL is accepted). A
 * paused task must be resumed: Stop waits until another thread calls
 * AVFormat_Link_Suspend(task, false).
 */
QUORVEL_AVFORMAT_API bool AVFormat_Link_Stop(void* task);

/* ========================================================================== */
/* Additions beyond the original interface                                    */
/*                                                                            */
/* Everything below is new: callers written against the functions above see  */
/* no change in their behaviour. Each addition is named like the others       */
/* (AVFormat_<Family>_<Op>) and uses free codes in its family's range.        */
/* ========================================================================== */

/* ---- Demultiplexing: a Read that is told the buffer's size ---------------- */

/** Flags that AVFormat_UNPack_ReadSized() reports: FFmpeg's AV_PKT_FLAG_* values. */
#define AVFORMAT_PKT_FLAG_KEY 0x0001     /**< the packet holds a key frame */
#define AVFORMAT_PKT_FLAG_CORRUPT 0x0002 /**< the demuxer found the packet damaged */
#define AVFORMAT_PKT_FLAG_DISCARD 0x0004 /**< needed to decode others, but not to be shown */

/**
 * AVFormat_UNPack_Read() told the size of the caller's buffer, and reporting
 * the packet's flags too. Same rules as Read: while no worker runs, the next
 * packet of any stream in the input's order.
 *
 * A packet larger than @p capacity is not copied: the call fails with
 * ERROR_AVFORMAT_PACKET_BUFFERSIZE, stores the packet's size in @p size and its
 * stream in @p stream_index, and keeps the packet, which the next Read (of
 * either kind) delivers. A NULL @p data with @p capacity 0 asks for the next
 * packet's size that way. So a caller can start small and grow:
 *
 *     for (;;) {
 *       if (AVFormat_UNPack_ReadSized(task, &stream, buffer, capacity, &size, &flags, &info, &time_base))
 *         use(buffer, size);                                  // a whole packet
 *       else if (AVFormat_GetLastError(NULL) == ERROR_AVFORMAT_PACKET_BUFFERSIZE)
 *         buffer = realloc(buffer, capacity = size);          // kept: read again
 *       else
 *         break;                                              // end of input, or a failure
 *     }
 *
 * A kept packet is forgotten by Seek (reading goes on from the new position)
 * and by Start (the worker reads on from the input's position).
 *
 * @param stream_index receives the packet's stream index (required)
 * @param data         where the packet's bytes go; NULL only with @p capacity 0
 * @param capacity     bytes that @p data can take, 0 or more
 * @param size         receives the packet's size (required), also on the
 *                     buffer-size failure
 * @param flags        if not NULL, receives the packet's key-frame, corrupt and
 *                     discard flags (AVFORMAT_PKT_FLAG_*), nothing else
 * @param info, time_base  as for AVFormat_UNPack_Read()
 * Errors: ERROR_AVFORMAT_PACKET_PARAMETER (null task, stream_index or size,
 *         negative capacity, NULL data with a capacity above 0, no input),
 *         ERROR_AVFORMAT_PACKET_THREAD (the worker runs, also paused),
 *         ERROR_AVFORMAT_PACKET_BUFFERSIZE (the packet does not fit: kept),
 *         ERROR_AVFORMAT_PACKET_READ (end of input or read error),
 *         ERROR_AVFORMAT_PACKET_MALLOC.
 */
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_ReadSized(void* task, int* stream_index, unsigned char* data, int capacity,
                                                    int* size, int* flags, AVCODEC_PACKETINFO* info,
                                                    AVCODEC_TIMEBASE* time_base);

/* ---- Task reports: what a task did, and its first write error ------------- */

/**
 * What a task has done so far. The caller sets dwSize to the size of the
 * record it passes (sizeof(AVFORMAT_TASK_REPORT) of the header it was built
 * with, at least AVFORMAT_TASK_REPORT_MIN_SIZE); the library fills only the
 * fields that fit in dwSize and leaves dwSize and any bytes past its own
 * record untouched, so that the record can grow at its end.
 *
 * Without a report a failed write goes unnoticed: the original functions
 * succeed, and Stop returns true, also when the disk was full.
 */
typedef struct AVFORMAT_TASK_REPORT {
  /** Set by the caller: the record's size in bytes. */
  uint32_t dwSize;
  /** The first error of the output's I/O (an AVERROR value, e.g. AVERROR(ENOSPC)), 0 if none. Once
   *  an output has failed a write, FFmpeg writes nothing more to it. A caller write function fails a
   *  write by returning fewer bytes than it was given (reported as AVERROR(EIO)) or a negative value
   *  (reported as that value). Demultiplexing: the first among all its outputs. */
  int32_t nWriteError;
  /** Packets the worker took from the inputs (multiplexing: also the packets that StreamWrite hands to the muxer),
   *  dropped ones included. Packets that the caller takes with demultiplexing's Read are not counted. */
  int64_t llPacketsRead;
  /** Packets handed to the muxer that it accepted. */
  int64_t llPacketsWritten;
  /** Packets the muxer refused (av_interleaved_write_frame failed): the task drops them and goes on,
   *  except demultiplexing, which ends its run on the first. After a write error every packet is refused. */
  int64_t llPacketsRefused;
  /** Bytes that reached the output (the file, or the caller's write function); bytes still buffered are
   *  not counted yet. Demultiplexing: the sum over its outputs. */
  int64_t llBytesWritten;
  /** 1 once the trailer has been written (by Stop, on an output whose header was written; for
   *  demultiplexing, on every output), else 0. Only StopWithReport can see it set. */
  int32_t bTrailerWritten;
  /** av_write_trailer's result (demultiplexing: the first that failed), 0 if it succeeded or was not written. */
  int32_t nTrailerResult;
} AVFORMAT_TASK_REPORT;

/** The smallest dwSize accepted: the record as it was first published. */
#define AVFORMAT_TASK_REPORT_MIN_SIZE 48

QUORVEL_AVFORMAT_STATIC_ASSERT(sizeof(AVFORMAT_TASK_REPORT) == 48, "AVFORMAT_TASK_REPORT is 48 bytes");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVFORMAT_TASK_REPORT, llPacketsRead) == 8,
                               "AVFORMAT_TASK_REPORT.llPacketsRead at 8");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVFORMAT_TASK_REPORT, llBytesWritten) == 32,
                               "AVFORMAT_TASK_REPORT.llBytesWritten at 32");
QUORVEL_AVFORMAT_STATIC_ASSERT(offsetof(AVFORMAT_TASK_REPORT, nTrailerResult) == 44,
                               "AVFORMAT_TASK_REPORT.nTrailerResult at 44");

/**
 * Fills @p report with what the task has done so far. Valid from Init until
 * Stop, also while the worker runs (the counts are then a moment's view) and
 * after it has ended. The trailer is written by Stop: to learn its result,
 * end the task with the family's StopWithReport instead.
 *
 * Errors: the family's parameter code (ERROR_AVFORMAT_CONVERT_PARAMETER,
 * ERROR_AVFORMAT_PACKET_PARAMETER for demultiplexing and multiplexing,
 * ERROR_AVFORMAT_LINK_PARAMETER) for a null task, a null report or a dwSize
 * below AVFORMAT_TASK_REPORT_MIN_SIZE.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_GetReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_Packet_GetReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_Link_GetReport(void* task, AVFORMAT_TASK_REPORT* report);

/**
 * Stop, and then the report: does all that the family's Stop does (the task is
 * freed and its handle dangling afterwards, whatever the result) and fills
 * @p report as GetReport would after the trailer, so that bTrailerWritten,
 * nTrailerResult and the final llBytesWritten and nWriteError (the trailer
 * flushes the output) are known. Called on the task's own worker thread (from
 * the progress callback or a caller I/O function), it fills the report at once,
 * before the trailer.
 *
 * Returns true when the report was filled. Errors: the family's parameter
 * code (as for GetReport) for a null task, a null report or a dwSize below
 * AVFORMAT_TASK_REPORT_MIN_SIZE; the task is stopped all the same.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report);
QUORVEL_AVFORMAT_API bool AVFormat_Link_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report);


/* ---- Task options --------------------------------------------------------- */

/**
 * Sets one option of a task, by name and value (both strings). Valid from
 * Init until Start; an option that acts on Input or on Output must come before
 * that call (for the multi-input families, before the first Input). With no
 * option set, every function of the family behaves as described above.
 *
 *   name                  families     value, and what it does
 *   input.NAME            all          passed to the input's open: demuxer and
 *                                      protocol options (probesize,
 *                                      analyzeduration, rw_timeout, fflags, ...);
 *                                      every input of the task gets them
 *   input.format          all          forces the demuxer by its short name
 *                                      (raw streams through a read function)
 *   output.NAME           all          passed to the header write: muxer options
 *                                      (movflags=+faststart, ...)
 *   policy                all          "strict" for inputs from strangers (named
 *                                      inputs: the file protocol only; bridged
 *                                      inputs: no nested protocol; only
 *                                      self-contained demuxers; bounded probing
 *                                      and reads); "default"
 *   open_timeout          all          a duration ("2.5", "1500ms", "00:01:00"):
 *                                      each Input gives up once opening and
 *                                      analysing its input takes longer, and fails
 *                                      with the family's OPEN code (while opening)
 *                                      or its stream-analysis code (convert and
 *                                      link STREAMINFO, unpack and mux PARAMETER);
 *                                      ends waits that FFmpeg would keep up for as
 *                                      long as the input says (a live playlist
 *                                      waiting for its next version); "0": none
 *   mode                  all          "practical" sets every practical option
 *                                      below that the family has to 1; "defined"
 *                                      sets them all to 0
 *   keyframe_start        convert, unpack, link
 *                                      1: a cut starts at the key frame at or
 *                                      before its start time, found by seeking
 *                                      (demultiplexing: for the smallest start)
 *                                      (concatenation: with cut_per_input)
 *   end_exclusive         convert, unpack
 *                                      1: a packet is kept while its decode time is
 *                                      before the end time (every frame shown before
 *                                      it is kept); the run ends once every kept
 *                                      stream has passed it
 *   zero_start            convert, unpack
 *                                      1: every output timestamp is shifted by the
 *                                      same amount, so that the output starts at 0
 *   dense_streams         convert      1: each kept stream goes into an output
 *                                      stream of its own, in order
 *   rescale_times         unpack       1: times are rescaled into each output
 *                                      stream's time base
 *   interleave_by_time    mux          1: the next packet is the one with the
 *                                      smallest decode time across the inputs
 *   until_all_inputs_end  mux          1: the run goes on until every input ends
 *   all_streams           mux          1: each usable stream of an input gets an
 *                                      output stream of its own
 *   streams               mux          a stream specifier (v:0, a, s:1, #0x101, ...)
 *                                      choosing the streams of the next Input
 *                                      only; implies all_streams for that input
 *   continuous_times      link         1: each input starts where the previous one
 *                                      ended, decode times strictly increasing
 *   cut_per_input         link         1: each input's start and end are times on
 *                                      that input's own timeline; a packet is kept
 *                                      from the start while its decode time is
 *                                      before the end
 *   fragment_bridged_mp4  convert, unpack, mux
 *                                      1: an MP4/MOV output written to a caller
 *                                      function is fragmented, unless output.movflags
 *                                      is set
 *   dts_as_pts            all          1: a packet without a presentation time
 *                                      takes its decode time; times are made up
 *                                      from the frame rate only for a stream
 *                                      whose packets carry no time at all
 *   outputs_independent   unpack       1: a packet that one output refuses is
 *                                      counted (llPacketsRefused) and the other
 *                                      outputs go on; an output whose I/O failed
 *                                      ends alone
 *   keep_codec_tag        all          1: an output stream keeps the input's codec
 *                                      tag where the output container accepts it
 *                                      (no tag tables, or tables that map the tag
 *                                      to the codec or have none for the codec),
 *                                      cleared otherwise; set before Input
 *
 * Booleans take 1/0, true/false, yes/no, on/off. docs/options.md has examples.
 * Errors: the family's parameter code for a null task, name or value; the
 * family's OPTION code for a name it does not know, OPTION_VALUE for a value
 * it does not take, OPTION_LATE for an option set after the call it acts on.
 * An input.NAME or output.NAME entry that FFmpeg does not use fails the call
 * that passes it (Input, Output, Start) with the family's OPTION_UNUSED code,
 * and an input refused by the strict policy fails Input with POLICY.
 */
QUORVEL_AVFORMAT_API bool AVFormat_Convert_SetOption(void* task, const char* name, const char* value);
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_SetOption(void* task, const char* name, const char* value);
QUORVEL_AVFORMAT_API bool AVFormat_Packet_SetOption(void* task, const char* name, const char* value);
QUORVEL_AVFORMAT_API bool AVFormat_Link_SetOption(void* task, const char* name, const char* value);

/** Conversion SetOption: no such option for this family. */
#define ERROR_AVFORMAT_CONVERT_OPTION 0x80D0070
/** Conversion SetOption: the option does not take that value. */
#define ERROR_AVFORMAT_CONVERT_OPTION_VALUE 0x80D0071
/** Conversion SetOption: too late, the call that the option acts on was made. */
#define ERROR_AVFORMAT_CONVERT_OPTION_LATE 0x80D0072
/** Conversion Input or Start: FFmpeg did not use an input. or output. option. */
#define ERROR_AVFORMAT_CONVERT_OPTION_UNUSED 0x80D0073
/** Conversion Input: the strict policy refuses the input (a URL, a protocol, a demuxer). */
#define ERROR_AVFORMAT_CONVERT_POLICY 0x80D0074
/** Multiplexing and demultiplexing SetOption: no such option for this family. */
#define ERROR_AVFORMAT_PACKET_OPTION 0x80D1013
/** Multiplexing and demultiplexing SetOption: the option does not take that value. */
#define ERROR_AVFORMAT_PACKET_OPTION_VALUE 0x80D1014
/** Multiplexing and demultiplexing SetOption: too late, the call that the option acts on was made. */
#define ERROR_AVFORMAT_PACKET_OPTION_LATE 0x80D1015
/** Multiplexing and demultiplexing Input, Output or Start: FFmpeg did not use an input. or output. option. */
#define ERROR_AVFORMAT_PACKET_OPTION_UNUSED 0x80D1016
/** Multiplexing and demultiplexing Input: the strict policy refuses the input. */
#define ERROR_AVFORMAT_PACKET_POLICY 0x80D1017
/** Concatenation SetOption: no such option for this family. */
#define ERROR_AVFORMAT_LINK_OPTION 0x80D2010
/** Concatenation SetOption: the option does not take that value. */
#define ERROR_AVFORMAT_LINK_OPTION_VALUE 0x80D2011
/** Concatenation SetOption: too late, the call that the option acts on was made. */
#define ERROR_AVFORMAT_LINK_OPTION_LATE 0x80D2012
/** Concatenation Input or Start: FFmpeg did not use an input. or output. option. */
#define ERROR_AVFORMAT_LINK_OPTION_UNUSED 0x80D2013
/** Concatenation Input: the strict policy refuses the input. */
#define ERROR_AVFORMAT_LINK_POLICY 0x80D2014


/* ---- Error texts and the library's version --------------------------------- */

/**
 * The name of an error code as the header spells it ("ERROR_AVFORMAT_CONVERT_OPEN"
 * for 0x80D0011), for every ERROR_AVFORMAT_* code; NULL for a code that the
 * library never reports. The string is static: never free it.
 * Neither reads nor changes the error state.
 */
QUORVEL_AVFORMAT_API const char* AVFormat_GetErrorName(uint64_t code);

/**
 * One sentence in English saying what failed and its usual cause, for every
 * ERROR_AVFORMAT_* code; for a code that the library never reports, a fixed
 * sentence saying so. Never NULL; the string is static: never free it.
 * Neither reads nor changes the error state.
 */
QUORVEL_AVFORMAT_API const char* AVFormat_GetErrorText(uint64_t code);

/** The version of this header: major, minor, patch, and the three as one number. */
#define QUORVEL_AVFORMAT_VERSION_MAJOR 0
#define QUORVEL_AVFORMAT_VERSION_MINOR 1
#define QUORVEL_AVFORMAT_VERSION_PATCH 0
#define QUORVEL_AVFORMAT_VERSION                                                      \
  ((QUORVEL_AVFORMAT_VERSION_MAJOR << 16) | (QUORVEL_AVFORMAT_VERSION_MINOR << 8) | \
   QUORVEL_AVFORMAT_VERSION_PATCH)

/**
 * The version of the library that is loaded, as QUORVEL_AVFORMAT_VERSION
 * encodes it (major << 16 | minor << 8 | patch). A caller built with an
 * older header can check that the library is at least as new as that header.
 * Neither reads nor changes the error state.
 */
QUORVEL_AVFORMAT_API unsigned AVFormat_GetVersion(void);


/* ---- End of the additions -------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif /* QUORVEL_AVFORMAT_H */
