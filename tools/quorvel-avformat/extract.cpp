// SPDX-License-Identifier: MIT
// extract IN STREAMS=OUT[,start=S][,end=E]... | extract IN --all [--name TEMPLATE]:
// streams taken out of IN, each into a container of its own. `split` is its
// other name.
#include <fmt/core.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "outputs.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct ExtractOptions {
  std::string input, format, name_template = "{stem}.{index}.{type}.{ext}";
  bool all = false;
  std::vector<std::string> targets;
};

// A container that takes the codec as it is: the codec's own file type where
// there is one, Matroska otherwise.
std::string Extension(const AVCodecParameters& p) {
  static const std::map<AVCodecID, const char*> kOwn = {
      {AV_CODEC_ID_AAC, "m4a"},    {AV_CODEC_ID_MP3, "mp3"},      {AV_CODEC_ID_FLAC, "flac"},
      {AV_CODEC_ID_OPUS, "opus"},  {AV_CODEC_ID_VORBIS, "ogg"},   {AV_CODEC_ID_AC3, "ac3"},
      {AV_CODEC_ID_EAC3, "eac3"},  {AV_CODEC_ID_SUBRIP, "srt"},   {AV_CODEC_ID_ASS, "ass"},
      {AV_CODEC_ID_WEBVTT, "vtt"}, {AV_CODEC_ID_PCM_S16LE, "wav"}};
  const auto own = kOwn.find(p.codec_id);
  if (own != kOwn.end()) return own->second;
  return p.codec_type == AVMEDIA_TYPE_VIDEO ? "mkv" : p.codec_type == AVMEDIA_TYPE_AUDIO ? "mka" : "mks";
}

std::string Stem(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  const auto dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// --all: every video, audio and subtitle stream, named after the template.
std::vector<SplitTarget> AllTargets(const ExtractOptions& options, const MediaFile& file, const CommonOptions& common) {
  std::vector<SplitTarget> targets;
  for (unsigned i = 0; i < file.count(); ++i) {
    const AVCodecParameters& p = *file.stream(i).codecpar;
    const char* type = av_get_media_type_string(p.codec_type);
    if (p.codec_type != AVMEDIA_TYPE_VIDEO && p.codec_type != AVMEDIA_TYPE_AUDIO &&
        p.codec_type != AVMEDIA_TYPE_SUBTITLE) {
      Note(common, fmt::format("stream {} ({}) is left out: only video, audio and subtitles are extracted", i,
                               type != nullptr ? type : "unknown"));
      continue;
    }
    SplitTarget target;
    target.stream = static_cast<int>(i);
    target.selector = std::to_string(i);
    try {
      target.output = fmt::format(fmt::runtime(options.name_template), fmt::arg("stem", Stem(options.input)),
                                  fmt::arg("index", i), fmt::arg("type", type),
                                  fmt::arg("codec", avcodec_get_name(p.codec_id)), fmt::arg("ext", Extension(p)));
    } catch (const fmt::format_error& error) {
      throw UsageError(fmt::format("--name \"{}\": {} (fields: stem, index, type, codec, ext)", options.name_template,
                                   error.what()));
    }
    targets.push_back(target);
  }
  return targets;
}

// Each specifier must name exactly one stream of the input.
void Resolve(SplitTarget& target, const MediaFile* file, const std::string& input) {
  if (file == nullptr) {
    if (target.stream < 0)
      throw UsageError(
          fmt::format("\"{}\": standard input can't be looked into first; name streams by number", target.selector));
    return;
  }
  const std::vector<int> matched = file->Match(target.selector);
  if (matched.empty()) throw ToolFailure(fmt::format("\"{}\" matches no stream of {}", target.selector, Shown(input)));
  if (matched.size() > 1)
    throw ToolFailure(fmt::format("\"{}\" matches {} streams of {} ({}); name one, {}:0 for instance", target.selector,
                                  matched.size(), Shown(input), fmt::join(matched, ", "), target.selector));
  target.stream = matched.front();
}

// The library gives the i-th output the codec parameters of input stream i
// and the packets of the stream that record i names, so output i must be
// stream i. Streams nobody asked for get an output that claims no stream and
// writes nowhere (FFmpeg's "null" container accepts any codec).
std::vector<AVCODEC_FORMATINFO> MakeRecords(const std::vector<SplitTarget>& targets, const std::string& format) {
  int count = 0;
  for (const SplitTarget& target : targets) count = std::max(count, target.stream + 1);
  std::vector<AVCODEC_FORMATINFO> records(count);
  for (AVCODEC_FORMATINFO& record : records) {
    std::memset(&record, 0, sizeof record);
    std::strcpy(record.szName, "null");
    record.nStreamIndex = -1;
    record.pWriteFunc = Discard;
  }
  for (const SplitTarget& target : targets) {
    AVCODEC_FORMATINFO& record = records[target.stream];
    const OutputTarget output = ResolveOutput(target.output, target.output == "-" ? format : "");
    std::strcpy(record.szName, output.name.c_str());  // its length is checked by CheckTargets
    record.pWriteFunc = output.write;
    record.nStreamIndex = target.stream;
    record.dlStartTime = target.start;
    record.dlEndTime = target.end;
  }
  return records;
}

// Before any output is looked at (an existing one may ask a question): the
// name that will be written, the temporary one in a batch, must fit the record.
void CheckTargets(const std::vector<SplitTarget>& targets, const ExtractOptions& options, const CommonOptions& common) {
  constexpr size_t kLongest = sizeof(AVCODEC_FORMATINFO::szName) - 1;
  std::set<int> streams;
  int piped = 0;
  for (const SplitTarget& target : targets) {
    if (!streams.insert(target.stream).second)
      throw UsageError(fmt::format("stream {} is asked for twice", target.stream));
    piped += target.output == "-";
    const std::string written =
        target.output != "-" && common.temporary_names ? TemporaryName(target.output) : target.output;
    if (written.size() > kLongest)
      throw UsageError(fmt::format("the output name \"{}\" is longer than {} bytes", written, kLongest));
  }
  if (piped > 1) throw UsageError("only one output can go to standard output");
  if (piped == 0 && !options.format.empty())
    throw UsageError("--format names the container for standard output only; a file's name decides its container");
}

void PrepareExtract(const ExtractOptions& options, const CommonOptions& common, Prepared& prepared) {
  const bool piped_in = options.input == "-";
  if (options.all == !options.targets.empty()) throw UsageError("give either STREAMS=OUT targets or --all");
  if (options.all && piped_in) throw UsageError("--all needs a named input");
  // The input is opened, and every specifier matched, before any output exists.
  std::unique_ptr<MediaFile> file;
  if (!piped_in) file = std::make_unique<MediaFile>(options.input, common, kDemultiplexing);
  std::vector<SplitTarget> targets;
  if (options.all) {
    targets = AllTargets(options, *file, common);
    if (targets.empty())
      throw ToolFailure(fmt::format("{} has no video, audio or subtitle stream", Shown(options.input)));
  }
  for (const std::string& text : options.targets) {
    targets.push_back(ParseSplitTarget(text));
    Resolve(targets.back(), file.get(), options.input);
  }
  CheckTargets(targets, options, common);

  RunSettings& settings = prepared.settings;
  settings = {ResolveProgress(common), std::nullopt, !piped_in && !common.no_keys};
  if (file) settings.span = file->span();
  file.reset();
  double last_end = 0.0;
  for (const SplitTarget& target : targets) last_end = target.end > 0.0 ? std::max(last_end, target.end) : 1e300;
  if (settings.span) settings.span->last = std::min(settings.span->last, last_end);
  prepared.files = std::make_unique<OutputFiles>(common, std::vector<std::string>{options.input});
  for (SplitTarget& target : targets) target.output = prepared.files->Claim(target.output);
  std::vector<AVCODEC_FORMATINFO> records = MakeRecords(targets, options.format);
  std::vector<AVCODEC_FORMATINFO*> pointers;
  for (AVCODEC_FORMATINFO& record : records) pointers.push_back(&record);
  AVCODEC_FORMATINFO** array = pointers.data();

  void* task = NewTask(kDemultiplexing, common, prepared);
  Check(AVFormat_UNPack_Input(task, piped_in ? nullptr : options.input.c_str(),
                              piped_in ? ReadStandardInput : nullptr, nullptr),
        "opening the input " + Shown(options.input), options.input, Role::kInput);
  prepared.files->Creating();
  if (!AVFormat_UNPack_Output(task, &array, static_cast<int>(records.size()))) {
    const uint64_t code = AVFormat_GetLastError(nullptr);
    std::string reason;
    for (const SplitTarget& target : targets) {
      if (reason.empty()) reason = SystemReason(target.output, Role::kOutput);
    }
    throw LibraryFailure{code, "creating the outputs", reason};
  }
  Check(AVFormat_UNPack_Start(task), "starting the demultiplexing task");
}

}  // namespace

void AddExtract(CLI::App& app, Builder& builder) {
  auto options = std::make_shared<ExtractOptions>();
  CLI::App* command = app.add_subcommand("extract", "Take streams out of IN, each into a container of its own");
  command->alias("split");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command->add_option("STREAMS=OUT", options->targets,
                      "A stream specifier naming one stream (1, v:0, a, s:1) and its output file (- for standard "
                      "output), with an optional cut: a:0=audio.mka,start=2,end=6");
  command->add_flag("--all", options->all, "Every video, audio and subtitle stream, each into a file of its own");
  command
      ->add_option("--name", options->name_template,
                   "With --all, the output names: {stem} (IN's name without its extension), {index}, {type}, "
                   "{codec}, {ext} (a container that takes the codec)")
      ->capture_default_str();
  command->add_option("-f,--format", options->format, "Container for an output written to standard output");
  command->footer(
      "Times in each output are rescaled into its container's time base and start at 0.\n"
      "`quorvel-avformat info IN` lists the streams. Examples:\n"
      "  quorvel-avformat extract in.mkv v:0=video.mkv a:0=audio.mka\n"
      "  quorvel-avformat extract in.mkv --all --name 'tracks/{index}-{type}.{ext}'");
  command->callback([options, &builder] {
    builder = [options](const CommonOptions& common, Prepared& prepared) { PrepareExtract(*options, common, prepared); };
  });
}

}  // namespace qtool
