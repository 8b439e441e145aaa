#include "support/fixtures.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

namespace qtest {
namespace {

// One scratch directory per test process, removed when the process ends
// unless QUORVEL_KEEP_TEST_FILES is set.
struct Scratch {
  Scratch() {
    const char* base = std::getenv("TMPDIR");
    path = std::string(base != nullptr ? base : "/tmp") + "/quorvel-tests-" + std::to_string(getpid());
    mkdir(path.c_str(), 0755);
  }
  ~Scratch() {
    if (std::getenv("QUORVEL_KEEP_TEST_FILES") == nullptr) Run("rm -rf '" + path + "'");
  }
  std::string path;
};

std::string ScratchDirectory() {
  static const Scratch scratch;
  return scratch.path;
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && info.st_size > 0;
}

std::vector<std::string> Split(const std::string& line, char separator) {
  std::vector<std::string> fields;
  std::stringstream stream(line);
  std::string field;
  while (std::getline(stream, field, separator)) fields.push_back(field);
  return fields;
}

int64_t Ticks(const std::string& text) { return text == "N/A" || text.empty() ? AV_NOPTS_VALUE : std::stoll(text); }

}  // namespace

std::string TempPath(const std::string& name) { return ScratchDirectory() + "/" + name; }

int Run(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, got);
  const int status = pclose(pipe);
  if (output != nullptr) *output = std::move(text);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Clip(const std::string& name, const std::string& arguments) {
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);
  const std::string path = TempPath(name);
  if (!Exists(path)) {
    const std::string command =
        std::string(QUORVEL_FFMPEG_TOOL) + " -nostdin -v error -y " + arguments + " '" + path + "'";
    EXPECT_EQ(Run(command), 0) << command;
  }
  return path;
}

static const char* kVideo = "-f lavfi -i testsrc=d=2:s=160x120:r=25";
static const char* kAudio = "-f lavfi -i sine=f=440:d=2:r=44100";

std::string VideoAudioClip(const std::string& extension) {
  return Clip("video_audio." + extension, std::string(kVideo) + " " + kAudio +
                                              " -map 0:v -map 1:a -c:v mpeg4 -g 10 -c:a aac -b:a 64k");
}

std::string VideoOnlyClip(const std::string& extension) {
  return Clip("video_only." + extension, std::string(kVideo) + " -c:v mpeg4 -g 10");
}

std::string AudioOnlyClip(const std::string& extension) {
  return Clip("audio_only." + extension, std::string(kAudio) + " -c:a aac -b:a 64k");
}

std::string RawH264Clip() {
  return Clip("raw.h264", "-f lavfi -i testsrc=d=1:s=160x120:r=25 -c:v libx264 -bf 0 -f h264");
}

void WriteSynthetic(const std::string& path, const std::string& format, const std::vector<SyntheticStream>& streams) {
  AVFormatContext* output = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&output, nullptr, format.c_str(), path.c_str()), 0) << format;
  for (const SyntheticStream& wanted : streams) {
    AVStream* stream = avformat_new_stream(output, nullptr);
    stream->time_base = wanted.time_base;
    AVCodecParameters* parameters = stream->codecpar;
    parameters->codec_type = wanted.type;
    parameters->codec_id = wanted.codec;
    parameters->codec_tag = wanted.tag;
    if (wanted.type == AVMEDIA_TYPE_VIDEO) {
      parameters->width = 160;
      parameters->height = 120;
      parameters->format = AV_PIX_FMT_YUV420P;
      stream->avg_frame_rate = stream->r_frame_rate = wanted.frame_rate;
    } else if (wanted.type == AVMEDIA_TYPE_AUDIO) {
      parameters->sample_rate = 48000;
      parameters->format = AV_SAMPLE_FMT_S16;
      av_channel_layout_default(&parameters->ch_layout, 1);
    }
  }
  ASSERT_GE(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), 0) << path;
  ASSERT_GE(avformat_write_header(output, nullptr), 0) << path;

  std::vector<int> written(streams.size(), 0);
  AVPacket* packet = av_packet_alloc();
  for (;;) {
    // The stream whose next packet comes first in time.
    int next = -1;
    for (size_t i = 0; i < streams.size(); ++i) {
      if (written[i] >= streams[i].count) continue;
      const int64_t pts = streams[i].first_pts + written[i] * streams[i].step;
      if (next < 0 || av_compare_ts(pts, output->streams[i]->time_base,
                                    streams[next].first_pts + written[next] * streams[next].step,
                                    output->streams[next]->time_base) < 0)
        next = static_cast<int>(i);
    }
    if (next < 0) break;
    const SyntheticStream& wanted = streams[next];
    ASSERT_GE(av_new_packet(packet, wanted.size), 0);
    for (int b = 0; b < wanted.size; ++b) packet->data[b] = static_cast<uint8_t>(written[next] + b);
    packet->stream_index = next;
    packet->pts = packet->dts = wanted.first_pts + written[next] * wanted.step;
    packet->duration = wanted.step;
    packet->flags = AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(packet, wanted.time_base, output->streams[next]->time_base);
    ASSERT_GE(av_interleaved_write_frame(output, packet), 0);
    ++written[next];
  }
  av_packet_free(&packet);
  av_write_trailer(output);
  avio_closep(&output->pb);
  avformat_free_context(output);
}

std::vector<ProbePacket> ProbePackets(const std::string& path) {
  std::string text;
  const std::string command = std::string(QUORVEL_FFPROBE_TOOL) +
                              " -v error -show_data_hash md5 -show_entries "
                              "packet=stream_index,pts,dts,duration,size,flags,data_hash -of default '" +
                              path + "'";
  std::vector<ProbePacket> packets;
  if (Run(command, &text) != 0) return packets;
  // Sections of key=value lines; side data sections inside a packet are skipped.
  std::stringstream lines(text);
  std::string line;
  ProbePacket packet;
  bool in_side_data = false;
  while (std::getline(lines, line)) {
    if (line == "[PACKET]") {
      packet = ProbePacket();
    } else if (line == "[/PACKET]") {
      packets.push_back(packet);
    } else if (line.rfind("[SIDE_DATA", 0) == 0) {
      in_side_data = true;
    } else if (line.rfind("[/SIDE_DATA", 0) == 0) {
      in_side_data = false;
    } else if (!in_side_data) {
      const size_t equals = line.find('=');
      if (equals == std::string::npos) continue;
      const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
      if (key == "stream_index") packet.stream = std::stoi(value);
      else if (key == "pts") packet.pts = Ticks(value);
      else if (key == "dts") packet.dts = Ticks(value);
      else if (key == "duration") packet.duration = Ticks(value);
      else if (key == "size") packet.size = std::stoi(value);
      else if (key == "flags") packet.flags = value;
      else if (key == "data_hash") packet.hash = value;
    }
  }
  return packets;
}

std::vector<ProbeStream> ProbeStreams(const std::string& path) {
  std::string text;
  const std::string command = std::string(QUORVEL_FFPROBE_TOOL) +
                              " -v error -show_entries stream=index,codec_type,codec_name,time_base -of csv=p=0 '" +
                              path + "'";
  std::vector<ProbeStream> streams;
  if (Run(command, &text) != 0) return streams;
  std::stringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const std::vector<std::string> fields = Split(line, ',');  // index, codec_name, codec_type, time_base
    if (fields.size() < 4) continue;
    ProbeStream stream;
    stream.index = std::stoi(fields[0]);
    stream.codec_name = fields[1];
    stream.codec_type = fields[2];
    const std::vector<std::string> base = Split(fields[3], '/');
    if (base.size() == 2) stream.time_base = AVRational{std::stoi(base[0]), std::stoi(base[1])};
    // MPEG-TS lists its streams once more under each program.
    if (stream.index == static_cast<int>(streams.size())) streams.push_back(stream);
  }
  return streams;
}

std::vector<ProbePacket> OfStream(const std::vector<ProbePacket>& packets, int stream) {
  std::vector<ProbePacket> selected;
  for (const ProbePacket& packet : packets)
    if (packet.stream == stream) selected.push_back(packet);
  return selected;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace qtest
