// SPDX-License-Identifier: MIT
#include "core/report.h"

#include <algorithm>
#include <cstring>

namespace quorvel {

TaskTally::~TaskTally() {
  if (final_report_ != nullptr) Fill(*final_report_);
}

void TaskTally::Observe(const AVFormatContext* output, int64_t& seen) noexcept {
  const AVIOContext* io = output != nullptr ? output->pb : nullptr;
  if (io == nullptr) return;
  // bytes_written counts what the write function accepted, not what waits in the buffer.
  bytes_written_.fetch_add(io->bytes_written - seen, std::memory_order_relaxed);
  seen = io->bytes_written;
  int none = 0;
  if (io->error < 0) write_error_.compare_exchange_strong(none, io->error);
}

int TaskTally::Write(AVFormatContext* output, AVPacket* packet, int64_t& seen) noexcept {
  const int result = av_interleaved_write_frame(output, packet);
  (result < 0 ? packets_refused_ : packets_written_).fetch_add(1, std::memory_order_relaxed);
  Observe(output, seen);
  return result;
}

int TaskTally::WriteTrailer(AVFormatContext* output, int64_t& seen) noexcept {
  const int result = av_write_trailer(output);
  int none = 0;
  if (result < 0) trailer_result_.compare_exchange_strong(none, result);
  trailer_written_ = true;
  Observe(output, seen);
  return result;
}

void TaskTally::Fill(AVFORMAT_TASK_REPORT& report) const noexcept {
  AVFORMAT_TASK_REPORT now{};
  now.dwSize = report.dwSize;
  now.nWriteError = write_error_;
  now.llPacketsRead = packets_read_;
  now.llPacketsWritten = packets_written_;
  now.llPacketsRefused = packets_refused_;
  now.llBytesWritten = bytes_written_;
  now.bTrailerWritten = trailer_written_ ? 1 : 0;
  now.nTrailerResult = trailer_result_;
  // A caller's record may be older (shorter) or newer (longer) than this one.
  std::memcpy(&report, &now, std::min<size_t>(report.dwSize, sizeof now));
}

}  // namespace quorvel
