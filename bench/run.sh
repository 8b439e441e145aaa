#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Benchmarks every family against a bare libavformat loop doing the same work
# and against the ffmpeg command-line tool, in one run, and prints one table
# of median wall times, ratios and peak resident memory.
#
#   bench/run.sh                 full run: ~800 MB and 1.2-million-packet fixtures
#   bench/run.sh --smoke         tiny fixtures, one round: checks that the harness works
#   bench/run.sh --runs 7        measured rounds (default 5; the median is reported)
#   bench/run.sh --only 'scale|cut'  only the jobs whose name matches (an extended regex)
#   bench/run.sh --instructions  exact instruction counts (valgrind's callgrind) of the
#                                bare loops and the library on 90,000-packet files
#
# Environment:
#   QUORVEL_BENCH_DIR    fixture cache, outside the repository (default /var/tmp/quorvel-bench)
#   QUORVEL_BENCH_OUT    where outputs are written and deleted again (default: a
#                        directory in /dev/shm when it has room, else in the cache)
#   QUORVEL_BENCH_BUILD  build directory (default build-bench in the repository)
#
# Contenders run alternately: every round runs each contender once, in an
# order that rotates from round to round, after one unmeasured warm-up round
# that also checks that every contender works (the smoke run has only one
# round, measured, and judges no target). A library contender whose family
# is not in the build (its Init returns no task) is reported as n/a. Timing is
# never asserted: the script fails only when a contender fails.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
mode=full
runs=5
only=
while [ $# -gt 0 ]; do
  case "$1" in
    --smoke | --quick) mode=smoke; runs=1 ;;
    --instructions) mode=instructions; runs=1 ;;
    --runs) runs=$2; shift ;;
    --only) only=$2; shift ;;
    -h | --help) sed -n '2,22p' "$0"; exit 0 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
  shift
done

cache=${QUORVEL_BENCH_DIR:-/var/tmp/quorvel-bench}
fixtures=$cache/$mode
build=${QUORVEL_BENCH_BUILD:-$root/build-bench}
log() { printf '%s\n' "$*" >&2; }

# ---------------------------------------------------------------- build
if [ "$mode" = instructions ]; then "$root/scripts/setup-debian.sh" valgrind; else "$root/scripts/setup-debian.sh" python3-av; fi
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEL_BUILD_BENCH=ON \
  -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
bin=$build/bench
# The Python rows: the package in python/ on the library just built, with Debian's Python.
export QUORVEL_AVFORMAT_LIBRARY=$build/libQuorvel_AVFormat.so PYTHONPATH=$root/python
PY=(/usr/bin/python3 "$root/bench/python_jobs.py")

# ---------------------------------------------------------------- fixtures
# A short MPEG-4 720p + AAC segment is encoded once and copied end to end with
# the concat demuxer (no re-encoding) up to the large file's size. Noise keeps
# the video packets large. The packet-heavy files are 16-bit PCM at 8 kHz in
# 8-sample packets (one per millisecond).
case $mode in
  full) seg_size=1280x720 seg_seconds=10 big_copies=36 part_copies=12 heavy_part_seconds=400 ;;
  smoke) seg_size=320x240 seg_seconds=1 big_copies=3 part_copies=1 heavy_part_seconds=1 ;;
  instructions) seg_size=320x240 seg_seconds=1 big_copies=3 part_copies=1 heavy_part_seconds=30 ;;
esac
stamp="fixtures v1 $seg_size $seg_seconds $big_copies $part_copies $heavy_part_seconds"

ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }

concat_list() {  # FILE... : a concat demuxer list on stdout
  local file
  for file in "$@"; do printf "file '%s'\n" "$file"; done
}

make_fixtures() {
  local dir=$fixtures.tmp
  rm -rf "$dir" && mkdir -p "$dir"
  log "Making fixtures in $fixtures (once)"
  df -h "$cache" >&2
  ff -f lavfi -i "testsrc2=size=$seg_size:rate=25,noise=alls=10:allf=t+u" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" -t "$seg_seconds" \
    -c:v mpeg4 -q:v 3 -c:a aac -b:a 128k -video_track_timescale 90000 "$dir/seg.mp4"
  local copies=()
  for _ in $(seq "$big_copies"); do copies+=("$dir/seg.mp4"); done
  concat_list "${copies[@]}" >"$dir/big.txt"
  ff -f concat -safe 0 -i "$dir/big.txt" -map 0 -c copy -video_track_timescale 90000 "$dir/big.mp4"
  # One file per stream, for muxing back together.
  ff -i "$dir/big.mp4" -map 0:v:0 -c copy -video_track_timescale 90000 "$dir/video.mp4" \
    -map 0:a:0 -c copy "$dir/audio.m4a"
  # Three parts for joining, each a third of the large file.
  copies=()
  for _ in $(seq "$part_copies"); do copies+=("$dir/seg.mp4"); done
  concat_list "${copies[@]}" >"$dir/part.txt"
  ff -f concat -safe 0 -i "$dir/part.txt" -map 0 -c copy -video_track_timescale 90000 "$dir/part1.mp4"
  cp "$dir/part1.mp4" "$dir/part2.mp4" && cp "$dir/part1.mp4" "$dir/part3.mp4"
  # Packet-heavy: three parts, and the whole made of them.
  ff -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=$heavy_part_seconds" \
    -af asetnsamples=n=8:p=0 -c:a pcm_s16le "$dir/heavy1.mkv"
  cp "$dir/heavy1.mkv" "$dir/heavy2.mkv" && cp "$dir/heavy1.mkv" "$dir/heavy3.mkv"
  concat_list "$dir/heavy1.mkv" "$dir/heavy2.mkv" "$dir/heavy3.mkv" >"$dir/heavy.txt"
  ff -f concat -safe 0 -i "$dir/heavy.txt" -map 0 -c copy "$dir/heavy.mkv"
  rm -f "$dir/seg.mp4" "$dir/big.txt" "$dir/part.txt" "$dir/heavy.txt"
  echo "$stamp" >"$dir/stamp"
  rm -rf "$fixtures" && mv "$dir" "$fixtures"
}

mkdir -p "$cache"
if [ "$(cat "$fixtures/stamp" 2>/dev/null)" != "$stamp" ]; then make_fixtures; fi
F=$fixtures
concat_list "$F/part1.mp4" "$F/part2.mp4" "$F/part3.mp4" >"$F/parts.txt"
concat_list "$F/heavy1.mkv" "$F/heavy2.mkv" "$F/heavy3.mkv" >"$F/heavy-parts.txt"

count_packets() {  # FILE: packets of all streams
  ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1" | awk '{n += $1} END {print n}'
}
# Short clips for the batch row, made once apart from the fixtures above: one
# clip encoded by ffmpeg and copied (200 of them; 10 in the smoke run).
clip_count=200
[ "$mode" = smoke ] && clip_count=10
clips=$cache/clips-$clip_count
if [ "$mode" != instructions ] && { [ -z "$only" ] || [[ "batch" =~ ^($only)$ ]]; } &&
  [ "$(cat "$clips/stamp" 2>/dev/null)" != "clips v1" ]; then
  log "Making $clip_count clips in $clips (once)"
  rm -rf "$clips.tmp" && mkdir -p "$clips.tmp"
  ff -f lavfi -i "testsrc2=size=640x360:rate=25" -f lavfi -i "sine=sample_rate=48000" -t 4 -c:v mpeg4 -q:v 3 \
    -c:a aac "$clips.tmp/clip.mp4"
  for i in $(seq "$clip_count"); do cp "$clips.tmp/clip.mp4" "$clips.tmp/$i.mp4"; done
  rm "$clips.tmp/clip.mp4" && echo "clips v1" >"$clips.tmp/stamp"
  rm -rf "$clips" && mv "$clips.tmp" "$clips"
fi

heavy_packets=$(count_packets "$F/heavy.mkv")
heavy_part_packets=$(count_packets "$F/heavy1.mkv")

# The cut: a quarter to three quarters of the large file. The conversion task
# ends on the packet whose output time (Matroska: whole milliseconds) equals
# its end time exactly, so the end is put on a video frame's time and checked
# to be that same double.
probe() { ffprobe -v error -select_streams v:0 -show_entries "$1" -of csv=p=0 "$F/big.mp4"; }
video_start=$(probe stream=start_time)
duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$F/big.mp4")
read -r cut_start cut_end < <(awk -v s="$video_start" -v d="$duration" 'BEGIN {
  s0 = int(s * 1000 + 0.5)
  a = s0 + 40 * int((d / 4 * 1000 - s0) / 40); b = s0 + 40 * int((d * 3 / 4 * 1000 - s0) / 40)
  while (b * 0.001 != b / 1000) b += 40
  printf "%.3f %.3f\n", a / 1000, b / 1000 }')
# The late cut: from 85 % to 95 % of the large file, with the practical end
# (exclusive), which needs no exact frame time.
read -r late_start late_end < <(awk -v d="$duration" 'BEGIN { printf "%.2f %.2f\n", d * 0.85, d * 0.95 }')

# ---------------------------------------------------------------- outputs
out=${QUORVEL_BENCH_OUT:-}
if [ -z "$out" ]; then
  need_kib=$((4 * 1024 * 1024))
  [ "$mode" = smoke ] && need_kib=$((64 * 1024))
  shm_free=$(df -Pk /dev/shm 2>/dev/null | awk 'NR == 2 {print $4}')
  if [ -w /dev/shm ] && [ "${shm_free:-0}" -gt "$need_kib" ]; then out=/dev/shm/quorvel-bench-$$; else out=$cache/out-$$; fi
fi
results=$(mktemp -d "${TMPDIR:-/tmp}/quorvel-bench-results.XXXXXX")
mkdir -p "$out"
trap 'rm -rf "$out" "$results"' EXIT

# ---------------------------------------------------------------- contenders
# add JOB KIND LABEL -- COMMAND...  (KIND: bare, lib, ffmpeg, or ref for a
# reference row that no target is judged against; py for the Python package,
# judged against its job's pyav row (PyAV), else its lib row). A command writes its
# outputs as $out/<id>.*; "-o" before "--" sends its standard output to a file.
ids=() jobs=() kinds=() labels=() commands=() stdouts=()
add() {
  local job=$1 kind=$2 label=$3 stdout=""
  shift 3
  [ -z "$only" ] || [[ $job =~ ^($only)$ ]] || return 0
  if [ "$1" = -o ]; then stdout=$2; shift 2; fi
  shift  # --
  ids+=("$job.${#ids[@]}")
  jobs+=("$job") kinds+=("$kind") labels+=("$label") stdouts+=("$stdout")
  commands+=("$(printf '%q ' "$@")")
}
FF=(ffmpeg -nostdin -hide_banner -loglevel error -y)
o=$out

job=convert  # conversion, no cut
add $job bare "bare loop" -- "$bin/bare_remux" "$F/big.mp4" "$o/$job.bare.mkv"
add $job lib "library" -- "$bin/lib_convert" "$F/big.mp4" "$o/$job.lib.mkv"
add $job py "Python convert()" -- "${PY[@]}" convert "$F/big.mp4" "$o/$job.py.mkv"
add $job ffmpeg "ffmpeg -c copy" -- "${FF[@]}" -i "$F/big.mp4" -map 0 -c copy "$o/$job.ffmpeg.mkv"

job=cut  # conversion with a cut
add $job bare "bare loop" -- "$bin/bare_remux" -s "$cut_start" -e "$cut_end" "$F/big.mp4" "$o/$job.bare.mkv"
add $job lib "library" -- "$bin/lib_convert" -s "$cut_start" -e "$cut_end" "$F/big.mp4" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -ss/-to on the output" -- "${FF[@]}" -i "$F/big.mp4" -ss "$cut_start" -to "$cut_end" \
  -map 0 -c copy "$o/$job.ffmpeg.mkv"
add $job ref "ffmpeg -ss/-to on the input (seeks)" -- "${FF[@]}" -ss "$cut_start" -to "$cut_end" -i "$F/big.mp4" \
  -map 0 -c copy "$o/$job.ffseek.mkv"

job=bridge  # conversion written through a caller write function
add $job bare "bare loop, write callback" -- "$bin/bare_remux" -w matroska "$F/big.mp4" "$o/$job.bare.mkv"
add $job lib "library, caller write function" -- "$bin/lib_convert" -w matroska "$F/big.mp4" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg to a pipe" -o "$o/$job.ffmpeg.mkv" -- "${FF[@]}" -i "$F/big.mp4" -map 0 -c copy -f matroska -

job=split  # one file per stream
add $job bare "bare loop" -- "$bin/bare_split" "$F/big.mp4" "$o/$job.bare.v.mp4" "$o/$job.bare.a.m4a"
add $job lib "library" -- "$bin/lib_split" "$F/big.mp4" "$o/$job.lib.v.mp4" "$o/$job.lib.a.m4a"
add $job ffmpeg "ffmpeg -map" -- "${FF[@]}" -i "$F/big.mp4" -map 0:0 -c copy "$o/$job.ffmpeg.v.mp4" \
  -map 0:1 -c copy "$o/$job.ffmpeg.a.m4a"

job=pull  # every packet handed to the caller
add $job bare "bare loop, bytes copied out" -- "$bin/bare_pull" -c "$F/big.mp4"
add $job ref "bare loop, zero-copy" -- "$bin/bare_pull" "$F/big.mp4"
add $job lib "library Read" -- "$bin/lib_pull" "$F/big.mp4"
add $job py "Python Demuxer.packets()" -- "${PY[@]}" pull "$F/big.mp4"
add $job pyav "PyAV container.demux()" -- "${PY[@]}" pyav-pull "$F/big.mp4"
add $job ffmpeg "ffmpeg -f null" -- "${FF[@]}" -i "$F/big.mp4" -map 0 -c copy -f null -

job=mux  # two single-stream files into one
add $job bare "bare loop" -- "$bin/bare_mux" "$o/$job.bare.mkv" "$F/video.mp4" "$F/audio.m4a"
add $job lib "library" -- "$bin/lib_mux" "$o/$job.lib.mkv" "$F/video.mp4" "$F/audio.m4a"
add $job ffmpeg "ffmpeg -map" -- "${FF[@]}" -i "$F/video.mp4" -i "$F/audio.m4a" -map 0 -map 1 -c copy \
  "$o/$job.ffmpeg.mkv"

job=feed  # caller-fed: Read from one file, StreamWrite into a new muxer
add $job bare "bare loop, bytes through the caller" -- "$bin/bare_feed" -c "$F/big.mp4" "$o/$job.bare.mkv"
add $job ref "bare loop, zero-copy" -- "$bin/bare_feed" "$F/big.mp4" "$o/$job.zero.mkv"
add $job lib "library Read + StreamWrite" -- "$bin/lib_feed" "$F/big.mp4" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -c copy" -- "${FF[@]}" -i "$F/big.mp4" -map 0 -c copy "$o/$job.ffmpeg.mkv"

job=concat  # three files end to end
add $job bare "bare loop" -- "$bin/bare_concat" "$o/$job.bare.mkv" "$F/part1.mp4" "$F/part2.mp4" "$F/part3.mp4"
add $job lib "library" -- "$bin/lib_concat" "$o/$job.lib.mkv" "$F/part1.mp4" "$F/part2.mp4" "$F/part3.mp4"
add $job ffmpeg "ffmpeg concat demuxer" -- "${FF[@]}" -f concat -safe 0 -i "$F/parts.txt" -map 0 -c copy \
  "$o/$job.ffmpeg.mkv"

# The practical modes (task option mode=practical) against the same jobs done
# by ffmpeg and by bare loops that do what the mode does.
job=late-cut  # a cut near the end: the practical mode seeks to the key frame before the start
add $job lib "library, mode=practical" -- "$bin/lib_convert" -o mode=practical -s "$late_start" -e "$late_end" \
  "$F/big.mp4" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -ss/-to on the input (seeks)" -- "${FF[@]}" -ss "$late_start" -to "$late_end" \
  -i "$F/big.mp4" -map 0 -c copy "$o/$job.ffmpeg.mkv"
add $job ref "library, defined behaviour (reads from the start)" -- "$bin/lib_convert" -s "$late_start" \
  -e "$late_end" "$F/big.mp4" "$o/$job.ref.mkv"
job=mux-time  # two single-stream files interleaved by time, each to its end
add $job bare "bare loop, by decode time" -- "$bin/bare_mux" -t "$o/$job.bare.mkv" "$F/video.mp4" "$F/audio.m4a"
add $job lib "library, mode=practical" -- "$bin/lib_mux" -o mode=practical "$o/$job.lib.mkv" "$F/video.mp4" \
  "$F/audio.m4a"
add $job ffmpeg "ffmpeg -map" -- "${FF[@]}" -i "$F/video.mp4" -i "$F/audio.m4a" -map 0 -map 1 -c copy \
  "$o/$job.ffmpeg.mkv"
job=concat-continuous  # three files end to end, all streams moved together
add $job bare "bare loop, continuous" -- "$bin/bare_concat" -c "$o/$job.bare.mkv" "$F/part1.mp4" "$F/part2.mp4" \
  "$F/part3.mp4"
add $job lib "library, mode=practical" -- "$bin/lib_concat" -o mode=practical "$o/$job.lib.mkv" "$F/part1.mp4" \
  "$F/part2.mp4" "$F/part3.mp4"
add $job ffmpeg "ffmpeg concat demuxer" -- "${FF[@]}" -f concat -safe 0 -i "$F/parts.txt" -map 0 -c copy \
  "$o/$job.ffmpeg.mkv"

# The same jobs on the packet-heavy files: per-packet overhead.
H=$F/heavy.mkv
job=heavy-convert
add $job bare "bare loop" -- "$bin/bare_remux" "$H" "$o/$job.bare.mkv"
add $job lib "library" -- "$bin/lib_convert" "$H" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -c copy" -- "${FF[@]}" -i "$H" -map 0 -c copy "$o/$job.ffmpeg.mkv"
job=heavy-split
add $job bare "bare loop" -- "$bin/bare_split" "$H" "$o/$job.bare.mkv"
add $job lib "library" -- "$bin/lib_split" "$H" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -map" -- "${FF[@]}" -i "$H" -map 0:0 -c copy "$o/$job.ffmpeg.mkv"
job=heavy-pull
add $job bare "bare loop, bytes copied out" -- "$bin/bare_pull" -c "$H"
add $job ref "bare loop, zero-copy" -- "$bin/bare_pull" "$H"
add $job lib "library Read" -- "$bin/lib_pull" "$H"
add $job py "Python Demuxer.packets()" -- "${PY[@]}" pull "$H"
add $job pyav "PyAV container.demux()" -- "${PY[@]}" pyav-pull "$H"
add $job ffmpeg "ffmpeg -f null" -- "${FF[@]}" -i "$H" -map 0 -c copy -f null -
job=heavy-mux
add $job bare "bare loop" -- "$bin/bare_mux" "$o/$job.bare.mkv" "$F/heavy1.mkv" "$F/heavy2.mkv"
add $job lib "library" -- "$bin/lib_mux" "$o/$job.lib.mkv" "$F/heavy1.mkv" "$F/heavy2.mkv"
add $job ffmpeg "ffmpeg -map" -- "${FF[@]}" -i "$F/heavy1.mkv" -i "$F/heavy2.mkv" -map 0 -map 1 -c copy \
  "$o/$job.ffmpeg.mkv"
job=heavy-feed
add $job bare "bare loop, bytes through the caller" -- "$bin/bare_feed" -c "$H" "$o/$job.bare.mkv"
add $job ref "bare loop, zero-copy" -- "$bin/bare_feed" "$H" "$o/$job.zero.mkv"
add $job lib "library Read + StreamWrite" -- "$bin/lib_feed" "$H" "$o/$job.lib.mkv"
add $job ffmpeg "ffmpeg -c copy" -- "${FF[@]}" -i "$H" -map 0 -c copy "$o/$job.ffmpeg.mkv"
job=heavy-concat
add $job bare "bare loop" -- "$bin/bare_concat" "$o/$job.bare.mkv" "$F/heavy1.mkv" "$F/heavy2.mkv" "$F/heavy3.mkv"
add $job lib "library" -- "$bin/lib_concat" -v -1 -a 0 "$o/$job.lib.mkv" "$F/heavy1.mkv" "$F/heavy2.mkv" \
  "$F/heavy3.mkv"
add $job ffmpeg "ffmpeg concat demuxer" -- "${FF[@]}" -f concat -safe 0 -i "$F/heavy-parts.txt" -map 0 -c copy \
  "$o/$job.ffmpeg.mkv"

# Two conversions in one process: one after the other, and at the same time.
job=scale
add $job lib-seq "library, 2 one after the other" -- "$bin/lib_convert" \
  "$F/big.mp4" "$o/$job.ls.1.mkv" "$F/big.mp4" "$o/$job.ls.2.mkv"
add $job lib-par "library, 2 at once" -- "$bin/lib_convert" -p \
  "$F/big.mp4" "$o/$job.lp.1.mkv" "$F/big.mp4" "$o/$job.lp.2.mkv"
add $job bare-seq "bare loop, 2 one after the other" -- "$bin/bare_remux" \
  "$F/big.mp4" "$o/$job.bs.1.mkv" "$F/big.mp4" "$o/$job.bs.2.mkv"
add $job bare-par "bare loop, 2 at once (2 threads)" -- "$bin/bare_remux" -p \
  "$F/big.mp4" "$o/$job.bp.1.mkv" "$F/big.mp4" "$o/$job.bp.2.mkv"

# Many short clips remuxed: the tool's batch command, all in one process,
# against a shell loop of ffmpeg processes and xargs -P running as many
# ffmpeg processes at once as batch runs tasks (one per core).
job=batch
cores=$(nproc)
for i in $(seq "$clip_count"); do
  printf '{"convert": {"input": "%s/%d.mp4", "output": "%s/batch.b.%d.mkv"}}\n' "$clips" "$i" "$o" "$i" >&3
  printf '%s/%d.mp4 %s/batch.l.%d.mkv\n' "$clips" "$i" "$o" "$i" >&4
  printf -- '-i %s/%d.mp4 -map 0 -c copy %s/batch.x.%d.mkv\n' "$clips" "$i" "$o" "$i" >&5
done 3>"$results/batch.jsonl" 4>"$results/batch.loop" 5>"$results/batch.xargs"
add $job batch "quorvel-avformat batch --jobs $cores" -- "$build/tools/quorvel-avformat/quorvel-avformat" -q batch \
  "$results/batch.jsonl" --jobs "$cores" --results /dev/null
# shellcheck disable=SC2016
add $job loop "shell loop of ffmpeg -c copy" -- bash -c 'while read -r in out; do
  ffmpeg -nostdin -hide_banner -loglevel error -y -i "$in" -map 0 -c copy "$out" || exit 1; done <"$1"' loop \
  "$results/batch.loop"
add $job xargs "xargs -P $cores ffmpeg -c copy" -- xargs -P "$cores" -L 1 -a "$results/batch.xargs" "${FF[@]}"

# ---------------------------------------------------------------- rounds
count=${#ids[@]}
declare -A state size
failed=0

count_instructions() {  # INDEX: the contender's instructions, once, under callgrind
  local i=$1 id=${ids[$1]} status=0
  local -a command
  eval "command=(${commands[$i]})"
  rm -f "$out/${jobs[$i]}".*
  valgrind --tool=callgrind --callgrind-out-file=/dev/null "${command[@]}" >"$results/$id.log" 2>&1 || status=$?
  if [ "$status" -eq 3 ] && [ "${kinds[$i]}" = lib ]; then
    state[$id]=n/a
  elif [ "$status" -ne 0 ]; then
    state[$id]=FAILED
    failed=1
    log "FAILED (exit $status): ${labels[$i]} [${jobs[$i]}]"
    tail -n 5 "$results/$id.log" >&2
  else
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$results/$id.log" >"$results/$id.instructions"
  fi
  rm -f "$out/${jobs[$i]}".*
}

run_one() {  # INDEX MEASURED(0/1): runs contender INDEX once
  local i=$1 measured=$2 id=${ids[$1]} status=0
  local job=${jobs[$1]} result=$results/${ids[$1]}.times
  [ "$measured" = 1 ] || result=$results/${ids[$1]}.warmup
  local -a command
  eval "command=(${commands[$i]})"
  local -a redirect=()
  [ -n "${stdouts[$i]}" ] && redirect=(-o "${stdouts[$i]}")
  rm -f "$out/$job".*
  "$bin/measure" "$result" "${redirect[@]}" -- "${command[@]}" >"$results/$id.log" 2>&1 || status=$?
  if [ "$status" -eq 3 ] && [ "${kinds[$i]}" != bare ] && [ "${kinds[$i]}" != ffmpeg ] && [ "${kinds[$i]}" != ref ]; then
    state[$id]=n/a
  elif [ "$status" -ne 0 ]; then
    state[$id]=FAILED
    failed=1
    log "FAILED (exit $status): ${labels[$i]} [$job]"
    sed 's/^/    /' "$results/$id.log" | tail -n 5 >&2
  elif [ -z "${size[$id]:-}" ]; then
    local files=()
    shopt -s nullglob
    files=("$out/$job".*)
    shopt -u nullglob
    size[$id]=0
    [ ${#files[@]} -eq 0 ] || size[$id]=$(cat "${files[@]}" | wc -c)
  fi
  rm -f "$out/$job".*
}

log "Fixtures: $F (cut $cut_start s to $cut_end s; heavy: $heavy_packets packets)"
first_round=0
[ "$mode" = full ] || first_round=1
log "Outputs: $out; $runs measured round(s) of $count contenders$([ $first_round = 0 ] && echo ' after a warm-up round')"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
started=$(date +%s)
for ((round = first_round; round <= runs; round++)); do
  for ((k = 0; k < count; k++)); do
    i=$(((k + round * 5) % count))
    [ -z "${state[${ids[$i]}]:-}" ] || continue
    if [ "$mode" = instructions ]; then
      case "${jobs[$i]}:${kinds[$i]}" in heavy-*:bare | heavy-*:lib | heavy-*:ref) count_instructions "$i" ;; esac
      continue
    fi
    run_one "$i" $((round > 0 ? 1 : 0))
  done
  [ "$round" -eq 0 ] || log "  round $round of $runs done ($(($(date +%s) - started)) s)"
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

# ---------------------------------------------------------------- table
if [ "$mode" = instructions ]; then
  echo "Instructions executed (callgrind), whole process; packet-heavy file: $heavy_packets packets ($heavy_part_packets per part)"
  echo
  echo "| job | contender | instructions | x bare | extra per packet |"
  echo "|---|---|---:|---:|---:|"
  declare -A base
  for ((i = 0; i < count; i++)); do
    [ "${kinds[$i]}" = bare ] && [ -s "$results/${ids[$i]}.instructions" ] && base[${jobs[$i]}]=$(cat "$results/${ids[$i]}.instructions")
  done
  for ((i = 0; i < count; i++)); do
    id=${ids[$i]} job=${jobs[$i]}
    case "$job:${kinds[$i]}" in heavy-*:bare | heavy-*:lib | heavy-*:ref) ;; *) continue ;; esac
    n=$(cat "$results/$id.instructions" 2>/dev/null || echo "${state[$id]:-?}")
    packets=$heavy_packets
    [ "$job" = heavy-mux ] && packets=$((2 * heavy_part_packets))
    awk -v job="$job" -v label="${labels[$i]}" -v n="$n" -v b="${base[$job]:-}" -v p="$packets" 'BEGIN {
      if (n !~ /^[0-9]+$/ || b == "") { printf "| %s | %s | %s | - | - |\n", job, label, n; exit }
      printf "| %s | %s | %d | %.3f | %+.0f |\n", job, label, n, n / b, (n - b) / p }'
  done
  [ "$failed" -eq 0 ] || exit 1
  exit 0
fi

# One line per contender: job kind median_s peak_kib size_bytes state label
summary=$results/summary
for ((i = 0; i < count; i++)); do
  id=${ids[$i]}
  median=- peak=-
  if [ -z "${state[$id]:-}" ] && [ -s "$results/$id.times" ]; then
    median=$(awk '{print $1}' "$results/$id.times" | sort -g | awk '{v[NR] = $1}
      END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}')
    peak=$(awk 'BEGIN {m = 0} $2 > m {m = $2} END {print m}' "$results/$id.times")
  fi
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "${jobs[$i]}" "${kinds[$i]}" "$median" "$peak" "${size[$id]:--}" \
    "${state[$id]:-ok}" "${labels[$i]}" >>"$summary"
done

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')
memory=$(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)
table=$results/table.md
{
  echo "Machine: $(nproc) cores, $cpu, $memory; $(ffmpeg -version | head -n 1 | cut -d' ' -f1-3);" \
    "libavformat $(pkg-config --modversion libavformat)"
  echo "Mode: $mode, median of $runs round(s); load average before $load_before, after $load_after"
  echo "Cut: $cut_start s to $cut_end s; late cut: $late_start s to $late_end s; packet-heavy file: $heavy_packets packets ($heavy_part_packets per part)"
  echo
  awk -F'\t' -v judge="$([ "$mode" = full ] && echo 1 || echo 0)" -v heavy="$heavy_packets" -v heavy_part="$heavy_part_packets" \
    -v clips="$clip_count" -v cores="$(nproc)" '
    function ratio(a, b) { return (a == "-" || b == "-" || b == 0) ? "-" : sprintf("%.2f", a / b) }
    function mib(k) { return k == "-" ? "-" : sprintf("%.0f", k / 1024) }
    function packets_of(job) {
      if (job == "heavy-mux") return 2 * heavy_part
      return heavy
    }
    {
      n++; job[n] = $1; kind[n] = $2; med[n] = $3; peak[n] = $4; bytes[n] = $5; st[n] = $6; label[n] = $7
      if ($2 == "bare") bare[$1] = $3
      if ($2 == "lib") lib[$1] = $3
      if ($2 == "pyav") pyav[$1] = $3
      if ($2 == "ffmpeg") { ff[$1] = $3; ffpeak[$1] = $4 }
      if ($2 ~ /-seq$/) seq[substr($2, 1, length($2) - 4)] = $3
      if ($2 ~ /-par$/) par[substr($2, 1, length($2) - 4)] = $3
      if ($1 == "scale") scales++
      if ($1 == "batch") { batches++; if ($2 == "batch") batch = $3 }
    }
    END {
      print "| job | contender | median s | x bare | x ffmpeg | peak RSS MiB | RSS x ffmpeg | output MiB | targets |"
      print "|---|---|---:|---:|---:|---:|---:|---:|---|"
      for (i = 1; i <= n; i++) {
        if (job[i] == "scale" || job[i] == "batch") continue
        time = st[i] == "ok" ? sprintf("%.3f", med[i]) : st[i]
        size = bytes[i] == "-" || bytes[i] == 0 ? "-" : sprintf("%.1f", bytes[i] / 1048576)
        verdict = ""
        if (kind[i] == "lib" && st[i] == "ok" && !judge) {
          verdict = "(not judged: smoke)"
        } else if (kind[i] == "lib" && st[i] == "ok") {
          heavyjob = job[i] ~ /^heavy-/
          limit = heavyjob ? 1.10 : 1.05
          rb = ratio(med[i], bare[job[i]]); rf = ratio(med[i], ff[job[i]]); rm = ratio(peak[i], ffpeak[job[i]])
          missed = ""
          if (rb != "-" && rb + 0 > limit) missed = missed sprintf(", time %s > %.2f x bare", rb, limit)
          if (!heavyjob && rf != "-" && rf + 0 > 1.00) missed = missed sprintf(", time %s > 1.00 x ffmpeg", rf)
          if (rm != "-" && rm + 0 > 1.00) missed = missed sprintf(", memory %s > 1.00 x ffmpeg", rm)
          verdict = missed == "" ? "met" : "MISSED" missed
          if (heavyjob && bare[job[i]] != "-")
            verdict = verdict sprintf(" (%+.0f ns/packet vs bare)", (med[i] - bare[job[i]]) * 1e9 / packets_of(job[i]))
        } else if (kind[i] == "py" && st[i] == "ok") {
          # Python: against PyAV where it has a row, else against the C program
          against = (job[i] in pyav) ? "PyAV" : "C"; limit = against == "PyAV" ? 1.00 : 1.02
          r = ratio(med[i], against == "PyAV" ? pyav[job[i]] : lib[job[i]])
          verdict = sprintf("%s x %s", r, against)
          if (judge && r != "-") verdict = verdict (r + 0 <= limit ? " met" : sprintf(" MISSED (> %.2f)", limit))
        } else if (kind[i] == "ref" || kind[i] == "pyav") {
          verdict = "reference"
        }
        printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", job[i], label[i], time,
          ratio(med[i], bare[job[i]]), ratio(med[i], ff[job[i]]), mib(peak[i]), ratio(peak[i], ffpeak[job[i]]),
          size, verdict
      }
      # Each table only for the jobs that ran (--only may leave them out).
      if (scales) {
        print ""
        print "| two conversions in one process | one after the other s | at once s | at once / one after the other | target (<= 0.60) |"
        print "|---|---:|---:|---:|---|"
        split("lib bare", who, " ")
        for (w = 1; w <= 2; w++) {
          r = ratio(par[who[w]], seq[who[w]])
          target = who[w] == "lib" ? (r == "-" ? "-" : !judge ? "(not judged: smoke)" : r + 0 <= 0.60 ? "met" : "MISSED") : "reference"
          printf "| %s | %s | %s | %s | %s |\n", who[w] == "lib" ? "library" : "bare loop",
            seq[who[w]] == "-" ? "-" : sprintf("%.3f", seq[who[w]]), par[who[w]] == "-" ? "-" : sprintf("%.3f", par[who[w]]),
            r, target
        }
      }
      if (!batches) exit
      print ""
      printf "| %d clips remuxed, %d at once | median s | clips/s | x batch | target |\n", clips, cores
      print "|---|---:|---:|---:|---|"
      for (i = 1; i <= n; i++) {
        if (job[i] != "batch") continue
        r = ratio(med[i], batch)
        target = kind[i] == "batch" ? "" : r == "-" ? "-" : !judge ? "(not judged: smoke)" : \
          kind[i] == "loop" ? (r + 0 >= 3 ? "met (>= 3)" : "MISSED (< 3)") : (r + 0 > 1 ? "met (> 1)" : "MISSED (<= 1)")
        printf "| %s | %s | %s | %s | %s |\n", label[i], st[i] == "ok" ? sprintf("%.3f", med[i]) : st[i],
          st[i] == "ok" ? sprintf("%.0f", clips / med[i]) : "-", r, target
      }
    }' "$summary"
} >"$table"
cat "$table"
mkdir -p "$cache/results"
cp "$table" "$cache/results/$mode-$(date +%Y%m%d-%H%M%S).md"

if [ "$failed" -ne 0 ]; then
  log "Some contenders failed (see above)."
  exit 1
fi
log "bench: all $count contenders ran ($(grep -c $'\tn/a\t' "$summary" || true) n/a)"
