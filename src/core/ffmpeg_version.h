// SPDX-License-Identifier: MIT
// Which FFmpeg features the headers being compiled against have: the one
// place where the supported versions (5.1 to 9.0) are told apart. Macros
// only, so that the command-line tool can share them too.
#pragma once

#include <libavcodec/version.h>
#include <libavformat/version.h>
#include <libavutil/version.h>

// AVCodecParameters::framerate exists from libavcodec 60.11 (FFmpeg 6.1) on.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 11, 100)
#define QUORVEL_HAS_CODECPAR_FRAMERATE 1
#else
#define QUORVEL_HAS_CODECPAR_FRAMERATE 0
#endif

// The write function of an AVIOContext takes const bytes from libavformat 61 (FFmpeg 7) on.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
#define QUORVEL_AVIO_WRITE_TAKES_CONST 1
#else
#define QUORVEL_AVIO_WRITE_TAKES_CONST 0
#endif
