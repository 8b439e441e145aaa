// SPDX-License-Identifier: MIT
#include "support/fixtures.h"

extern "C" {
#include <libavutil/md5.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

namespace qtest {
namespace {

// One scratch directory per test process, removed when the process ends
// unless QUORVEL_KEEP_TEST_FILES is set.
struct Scratch {
  Scratch() { mkdir(path.c_str(), 0755); }
  ~Scratch() {
    if (std::getenv("QUORVEL_KEEP_TEST_FILES") == nullptr) Run("rm -rf '" + path + "'");
  }
  const char* base = std::getenv("TMPDIR");
  std::string path = std::string(base != nullptr ? base : "/tmp") + "/quorvel-tests-" + std::to_string(getpid());
};

int64_t Ticks(const std::string& text) {
  return text.empty() || text == "N/A" ? AV_NOPTS_VALUE : std::stoll(text);
}

// ffprobe's sections `prefix`<n> of its flat output, each as its fields with
// quotes removed; nested sections such as side data are left out.
std::vector<std::map<std::string, std::string>> Sections(const std::string& path, const std::string& options,
                                                         const std::string& prefix) {
  std::string text;
  std::vector<std::map<std::string, std::string>> sections;
  if (Run(std::string(QUORVEL_FFPROBE_TOOL) + " -v error -of flat " + options + " '" + path + "'", &text) != 0)
    return sections;
  std::istringstream lines(text);
  const std::string format = prefix + "%zu.%63[a-z_]=%255[^\n]";
  for (std::string line; std::getline(lines, line);) {
    size_t index = 0;
    char key[64], value[256];
    if (std::sscanf(line.c_str(), format.c_str(), &index, key, value) != 3) continue;
    if (index >= sections.size()) sections.resize(index + 1);
    std::string& field = sections[index][key] = value;
    field.erase(std::remove(field.begin(), field.end(), '"'), field.end());
  }
  return sections;
}

}  // namespace

std::string TempPath(const std::string& name) {
  static const Scratch scratch;
  return scratch.path + "/" + name;
}

int Run(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[65536];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, got);
  const int status = pclose(pipe);
  if (output != nullptr) *output = std::move(text);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Clip(const std::string& name, const std::string& arguments) {
  static std::mutex lock;
  static std::set<std::string> made;
  const std::lock_guard<std::mutex> guard(lock);
  const std::string path = TempPath(name);
  const std::string command =
      std::string(QUORVEL_FFMPEG_TOOL) + " -nostdin -v error -y " + arguments + " '" + path + "'";
  EXPECT_TRUE(!made.insert(name).second || Run(command) == 0) << command;
  return path;
}

static const std::string kVideo = "-f lavfi -i testsrc=d=2:s=160x120:r=25 ",
                         kAudio = "-f lavfi -i sine=f=440:d=2:r=44100 ";

std::string VideoAudioClip(const std::string& extension) {
  return Clip("video_audio." + extension, kVideo + kAudio + "-map 0:v -map 1:a -c:v mpeg4 -g 10 -c:a aac -b:a 64k");
}
std::string VideoOnlyClip(const std::string& extension) {
  return Clip("video_only." + extension, kVideo + "-c:v mpeg4 -g 10");
}
std::string AudioOnlyClip(const std::string& extension) {
  return Clip("audio_only." + extension, kAudio + "-c:a aac -b:a 64k");
}
std::string RawH264Clip() {
  return Clip("raw.h264", "-f lavfi -i testsrc=d=1:s=160x120:r=25 -c:v libx264 -bf 0 -f h264");
}
int64_t RawH264FrameMs() {
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, RawH264Clip().c_str(), nullptr, nullptr) < 0) return 0;
  const bool found = avformat_find_stream_info(input, nullptr) >= 0 && input->nb_streams > 0;
  const AVRational rate = found ? input->streams[0]->r_frame_rate : AVRational{0, 1};
  avformat_close_input(&input);
  return rate.num > 0 ? static_cast<int64_t>(1000 * rate.den / rate.num) : 0;
}

void WriteSynthetic(const std::string& path, const std::string& format, const std::vector<SyntheticStream>& streams) {
  AVFormatContext* output = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&output, nullptr, format.c_str(), path.c_str()), 0) << format;
  // Every packet as (time in seconds, stream), in the order they are written.
  std::vector<std::pair<double, size_t>> order;
  for (size_t i = 0; i < streams.size(); ++i) {
    const SyntheticStream& wanted = streams[i];
    for (int n = 0; n < wanted.count; ++n)
      order.emplace_back(static_cast<double>(wanted.first_pts + n * wanted.step) * av_q2d(wanted.time_base), i);
    AVStream* stream = avformat_new_stream(output, nullptr);
    AVCodecParameters* p = stream->codecpar;
    stream->time_base = wanted.time_base;
    p->codec_type = wanted.type, p->codec_id = wanted.codec, p->codec_tag = wanted.tag;
    if (wanted.type == AVMEDIA_TYPE_VIDEO) {
      p->width = 160, p->height = 120, p->format = AV_PIX_FMT_YUV420P;
      stream->avg_frame_rate = stream->r_frame_rate = wanted.frame_rate;
    } else if (wanted.type == AVMEDIA_TYPE_AUDIO) {
      p->sample_rate = 48000, p->format = AV_SAMPLE_FMT_S16;
      av_channel_layout_default(&p->ch_layout, 1);
    }
  }
  std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  ASSERT_GE(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), 0) << path;
  ASSERT_GE(avformat_write_header(output, nullptr), 0) << path;
  std::vector<int> written(streams.size(), 0);
  AVPacket* packet = av_packet_alloc();
  for (const auto& [seconds, i] : order) {
    const SyntheticStream& wanted = streams[i];
    ASSERT_GE(av_new_packet(packet, wanted.size), 0);
    for (int b = 0; b < wanted.size; ++b) packet->data[b] = static_cast<uint8_t>(written[i] + b);
    packet->stream_index = static_cast<int>(i), packet->flags = AV_PKT_FLAG_KEY, packet->duration = wanted.step;
    packet->pts = packet->dts = wanted.first_pts + written[i]++ * wanted.step;
    av_packet_rescale_ts(packet, wanted.time_base, output->streams[i]->time_base);
    ASSERT_GE(av_interleaved_write_frame(output, packet), 0);
  }
  av_packet_free(&packet);
  av_write_trailer(output);
  avio_closep(&output->pb);
  avformat_free_context(output);
}

std::shared_ptr<AVCodecParameters> StreamParameters(AVMediaType type, int width) {
  std::shared_ptr<AVCodecParameters> p(avcodec_parameters_alloc(),
                                       [](AVCodecParameters* q) { avcodec_parameters_free(&q); });
  p->codec_type = type, p->codec_id = type == AVMEDIA_TYPE_VIDEO ? AV_CODEC_ID_MPEG4 : AV_CODEC_ID_PCM_S16LE;
  p->width = width, p->height = 120, p->sample_rate = 48000;
  av_channel_layout_default(&p->ch_layout, 1);
  return p;
}

std::vector<ProbePacket> ProbePackets(const std::string& path) {
  std::vector<ProbePacket> packets;
  for (auto& f :
       Sections(path, "-show_data_hash md5 -show_entries packet=stream_index,pts,dts,duration,size,flags,data_hash",
                "packets.packet."))
    packets.push_back({std::stoi(f["stream_index"]), Ticks(f["pts"]), Ticks(f["dts"]), Ticks(f["duration"]),
                       std::stoi(f["size"]), f["data_hash"], f["flags"]});
  return packets;
}

std::vector<ProbeStream> ProbeStreams(const std::string& path) {
  std::vector<ProbeStream> streams;
  for (auto& f :
       Sections(path, "-show_data_hash md5 -show_entries stream=index,codec_type,codec_name,time_base,extradata_hash",
                "streams.stream.")) {
    ProbeStream stream{std::stoi(f["index"]), f["codec_type"], f["codec_name"], {0, 1}, f["extradata_hash"]};
    std::sscanf(f["time_base"].c_str(), "%d/%d", &stream.time_base.num, &stream.time_base.den);
    streams.push_back(stream);
  }
  return streams;
}

std::vector<StreamShape> ShapesOf(const std::string& path) {
  const std::vector<ProbeStream> streams = ProbeStreams(path);
  std::vector<StreamShape> shapes(streams.size());
  std::string frames;
  Run(QUORVEL_FFPROBE_TOOL " -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 '" + path + "'",
      &frames);
  std::istringstream counts(frames);
  for (const ProbeStream& stream : streams)
    counts >> shapes[stream.index].frames, shapes[stream.index].type = stream.codec_type;
  for (const ProbePacket& p : ProbePackets(path)) {
    StreamShape& shape = shapes[p.stream];
    const double base = av_q2d(streams[p.stream].time_base);
    ++shape.packets, shape.first = std::min(shape.first, p.pts * base), shape.last = std::max(shape.last, p.pts * base);
    shape.end = std::max(shape.end, (p.pts + p.duration) * base);
  }
  return shapes;
}

std::vector<ProbePacket> OfStream(const std::vector<ProbePacket>& packets, int stream) {
  std::vector<ProbePacket> selected;
  std::copy_if(packets.begin(), packets.end(), std::back_inserter(selected),
               [stream](const ProbePacket& packet) { return packet.stream == stream; });
  return selected;
}

std::string Md5(const uint8_t* data, size_t size) {
  uint8_t sum[16];
  char hex[3];
  std::string text = "MD5:";
  av_md5_sum(sum, data, size);
  for (const uint8_t byte : sum) text += (std::snprintf(hex, sizeof hex, "%02x", byte), hex);
  return text;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

}  // namespace qtest
