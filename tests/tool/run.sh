#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The command-line tool as a user meets it, from a shell: every case of the
# table in `cases` runs in one scratch folder with a few clips made by ffmpeg,
# and every example of docs/tool.md runs as written. Outputs are read back by
# ffprobe. Usage: run.sh TOOL
set -uo pipefail
tool=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
docs=$here/../../docs/tool.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
PATH="$(dirname "$tool"):$PATH"
export PATH
T=$tool

# Clips: video and audio (the audio tagged English), the same as Matroska,
# parts to join, one-stream files, an MPEG-TS stream as broadcast carries it.
ff() { ffmpeg -nostdin -v error -y "$@" || exit 1; }
ff -f lavfi -i testsrc=d=4:s=160x120:r=25 -f lavfi -i sine=d=4 -c:v mpeg4 -g 25 -c:a aac \
  -metadata:s:a:0 language=eng in.mp4
ff -i in.mp4 -c copy in.mkv
for n in 1 2 3; do ff -i in.mp4 -c copy -t 2 "part$n.mkv"; done
ff -i in.mp4 -c copy -an video.mkv
ff -i in.mp4 -c copy -vn audio.mka
ff -f lavfi -i testsrc=d=4:s=160x120:r=25 -f lavfi -i sine=d=4 -c:v mpeg2video -c:a mp2 live.ts

# Checks, each true or false; a case passes when all of its checks do.
types() { ffprobe -v error -show_entries stream=codec_type -of csv=p=0 "$1" 2>/dev/null | tr '\n' ' ' | sed 's/ $//'; }
probe() { [ "$(types "$1")" = "$2" ]; }                 # probe FILE "video audio"
# Counted per stream by ffprobe: a line per packet would also count side data lines.
packets() { ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1" 2>/dev/null | awk '{ n += $1 } END { print n + 0 }'; }
count() { [ "$(packets "$1")" -eq "$2" ]; }              # count FILE N
samepackets() { [ "$(packets "$1")" -eq "$(packets "$2")" ]; }
duration() {                                             # duration FILE MIN MAX
  local d; d=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$1" 2>/dev/null)
  awk -v d="$d" -v lo="$2" -v hi="$3" 'BEGIN { exit !(d != "" && d >= lo && d <= hi) }'
}
absent() { [ ! -e "$1" ]; }
holds() { [ "$(cat "$1")" = "$2" ]; }                    # holds FILE TEXT
err() { grep -qF -- "$1" err; }
out() { grep -qF -- "$1" out; }
# The JSON's key paths in first-seen order, against a golden file: values may
# change with FFmpeg's version, the schema may not.
schema() { jq -r 'paths | map(if type == "number" then "#" else . end) | join(".")' out | awk '!seen[$0]++' |
  diff -u "$here/golden/$1" - >&2; }

failed=0
run_case() {  # STATUS COMMAND CHECKS
  local status=$1 command=$2 checks=$3 got
  bash -c "T='$T'; $command" </dev/null >out 2>err
  got=$?
  if [ "$got" -ne "$status" ] || ! eval "${checks:-true}"; then
    failed=$((failed + 1))
    printf 'FAILED: %s\n  exit %s (wanted %s), checks: %s\n' "$command" "$got" "$status" "$checks"
    sed 's/^/  | /' err | head -n 8
  fi
}

# A case is a line STATUS :: COMMAND :: CHECKS (the tool is $T).
cases=0
while IFS= read -r line; do
  [[ "$line" =~ ^[[:space:]]*(#|$) ]] && continue
  rest=${line#* :: }
  cases=$((cases + 1))
  run_case "${line%% :: *}" "${rest%% :: *}" "${rest#* :: }"
done <"$here/cases"

# The documented examples, between the markers in docs/tool.md, each as written.
examples=0
while IFS= read -r line; do
  command=${line#    }
  examples=$((examples + 1))
  outputs=$(grep -oE '[A-Za-z0-9_./-]+\.(mkv|mka|mp4|ts|m4a)' <<<"$command" | grep -vxE 'in\.(mp4|mkv)|part[123]\.mkv|video\.mkv|audio\.mka|live\.ts' || true)
  check=true
  for file in $outputs; do check="$check && [ -n \"\$(types $file)\" ]"; done
  run_case 0 "rm -f $(echo $outputs); $command" "$check"
done < <(sed -n '/<!-- examples -->/,/<!-- \/examples -->/p' "$docs" | grep -E '^    (quorvel-avformat|cat) ')

echo "$cases cases, $examples documented examples, $failed failed"
[ "$cases" -gt 0 ] && [ "$examples" -gt 0 ] && [ "$failed" -eq 0 ]
