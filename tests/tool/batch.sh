#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# `batch` from a shell: a table of mixed jobs and the results line each one
# gives; a batch stopped by Ctrl-C and one killed outright, both resumed to
# completion; shards that split the jobs between them. Outputs are read back
# by ffprobe. Usage: batch.sh TOOL
# Checks are strings that `check` evaluates: single quotes keep them whole.
# shellcheck disable=SC2016,SC2010,SC2034,SC2002
set -uo pipefail
T=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0
fail() { failed=$((failed + 1)); echo "FAILED: $*"; }
check() { eval "$2" || fail "$1: $2"; }  # check WHAT CONDITION

ff() { ffmpeg -nostdin -v error -y "$@" || exit 1; }
ff -f lavfi -i testsrc=d=2:s=160x120:r=25 -f lavfi -i sine=d=2 -c:v mpeg4 -g 25 -c:a aac in.mp4
ff -i in.mp4 -c copy in.mkv
echo 'not media' >text.mp4
types() { ffprobe -v error -show_entries stream=codec_type -of csv=p=0 "$1" 2>/dev/null | tr '\n' ' ' | sed 's/ $//'; }

# Mixed jobs: LINE OUTCOME ERROR :: JOB, with the output each done job wrote and its streams.
cat >table <<'EOF'
done - :: {"convert": {"input": "in.mp4", "output": "c.mkv", "start": 0.5, "end": "1.5"}} :: c.mkv=video audio
done - :: {"extract": {"input": "in.mkv", "outputs": ["v:0=v.mkv", "a:0=a.mka"]}} :: a.mka=audio
done - :: {"extract": {"input": "in.mkv", "all": true, "name": "t{index}.{ext}"}} :: t1.m4a=audio
done - :: {"mux": {"output": "m.mp4", "inputs": ["in.mkv:v", "in.mp4:a"]}} :: m.mp4=video audio
done - :: {"concat": {"output": "j.mkv", "inputs": ["in.mkv", "in.mp4,start=1"], "exact-cut": true}} :: j.mkv=video audio
done - :: {"convert": {"input": "in.mp4", "output": "old.mkv", "overwrite": true}} :: old.mkv=video audio
failed ERROR_AVFORMAT_CONVERT_OPEN :: {"convert": {"input": "missing.mp4", "output": "x1.mkv"}} :: x1.mkv=
failed ERROR_AVFORMAT_CONVERT_OPEN :: {"convert": {"input": "text.mp4", "output": "x2.mkv"}} :: x2.mkv=
failed ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT :: {"convert": {"input": "in.mp4", "output": "x3.xyz"}} :: x3.xyz=
failed ERROR_AVFORMAT_PACKET_OPEN :: {"mux": {"output": "x4.mkv", "inputs": ["in.mkv", "missing.mka"]}} :: x4.mkv=
failed ERROR_AVFORMAT_LINK_OUTPUTFORMAT :: {"concat": {"output": "x5.xyz", "inputs": ["in.mkv"]}} :: x5.xyz=
failed failure :: {"convert": {"input": "in.mp4", "output": "keep.mkv"}} :: keep.mkv=
failed failure :: {"extract": {"input": "in.mkv", "outputs": ["s:0=x6.mks"]}} :: x6.mks=
failed usage :: {"convert": {"input": "in.mp4", "output": "x7.mkv", "end": "0.5", "start": 1}} :: x7.mkv=
failed usage :: {"convert": {"input": "in.mp4", "output": "x8.mkv", "bogus": 1}} :: x8.mkv=
failed usage :: {"convert": {"input": "-", "output": "x9.mkv"}} :: x9.mkv=
failed usage :: {"play": {"input": "in.mp4"}} :: -=
failed usage :: {"convert": ["in.mp4"]} :: -=
failed usage :: {"convert": {"input": "in.mp4", "output": "x10.mkv"} :: x10.mkv=
EOF
sed 's/.* :: \(.*\) :: .*/\1/' table >mixed.jsonl
echo keep >keep.mkv && echo old >old.mkv
"$T" -q batch mixed.jsonl --jobs 3 >results 2>err
check "mixed jobs exit 1" '[ $? -eq 1 ]'
n=0
while IFS= read -r row; do
  n=$((n + 1))
  got=$(jq -r "select(.line == $n) | \"\(.outcome) \(.error.name // \"-\")\"" results)
  [ "$got" = "${row%% :: *}" ] || fail "line $n: got '$got', wanted '${row%% :: *}'"
  out=${row##* :: }
  [ "${out%%=*}" = - ] || [ "$(types "${out%%=*}")" = "${out#*=}" ] || fail "line $n: ${out%%=*} is '$(types "${out%%=*}")'"
done <table
check "one results line a job" '[ "$(wc -l <results)" -eq "$n" ]'
check "an existing output stays" '[ "$(cat keep.mkv)" = keep ]'
check "no temporary file stays" '! ls | grep -q part-'
check "a malformed line names its line" 'jq -e "select(.line == $n) | .error.text | startswith(\"line $n: not JSON\")" results >/dev/null'
check "the failure tells the system's reason" 'grep -qF "missing.mp4\\\": No such file" results'

# Usage errors of the batch itself.
for args in "missing.jsonl" "mixed.jsonl --shard 3/3" "mixed.jsonl --shard x" "mixed.jsonl --resume" "mixed.jsonl --jobs 0"; do
  # shellcheck disable=SC2086
  "$T" -q batch $args >/dev/null 2>&1
  check "batch $args exits 2" '[ $? -eq 2 ]'
done

# Shards of one jobs file: each job in exactly one of them.
for i in 0 1 2; do
  mkdir "s$i" && cp in.mp4 in.mkv text.mp4 keep.mkv old.mkv "s$i/"
  (cd "s$i" && "$T" -q batch ../mixed.jsonl --shard "$i/3" >../shard$i)
done
check "shards cover every job once" '[ "$(jq .line shard? | sort -n | tr "\n" " ")" = "$(seq 1 "$n" | tr "\n" " ")" ]'
check "shard 1 is lines 2, 5, ..." '[ "$(jq -c .line shard1 | sort -n | head -n 2 | tr "\n" " ")" = "2 5 " ]'

# Jobs of every family into out/: stopped with Ctrl-C, killed, then resumed.
ff -f lavfi -i testsrc=d=8:s=160x120:r=25 -f lavfi -i sine=d=8 -c:v mpeg4 -g 25 -c:a aac long.mkv
mkdir out
for i in $(seq 1 12); do
  echo "{\"convert\": {\"input\": \"long.mkv\", \"output\": \"out/c$i.mkv\"}}"
  echo "{\"extract\": {\"input\": \"long.mkv\", \"outputs\": [\"0=out/v$i.mkv\", \"1=out/a$i.mka\"]}}"
  echo "{\"mux\": {\"output\": \"out/m$i.mp4\", \"inputs\": [\"long.mkv:v\", \"in.mp4:a\"]}}"
  echo "{\"concat\": {\"output\": \"out/j$i.mkv\", \"inputs\": [\"long.mkv\", \"in.mkv\", \"long.mkv\"]}}"
done >many
stopped() {  # stopped SIGNAL LINES: a batch run until its results have LINES lines, then the signal
  "$T" -q batch many --jobs 2 --results r --resume & pid=$!
  for _ in $(seq 1 500); do [ "$(cat r 2>/dev/null | wc -l)" -ge "$2" ] && break; sleep 0.01; done
  kill "-$1" "$pid"; { wait "$pid"; } 2>/dev/null
}
stopped INT 6
check "Ctrl-C exits 130" '[ $? -eq 130 ]'
check "Ctrl-C leaves no temporary file" '! ls out | grep -q part-'
check "interrupted jobs leave no output" '[ -z "$(jq -r "select(.outcome == \"interrupted\") | .outputs[]" r | xargs -r ls 2>/dev/null)" ]'
stopped KILL 24
ls out | grep -v part- >whole
check "a kill leaves only whole files under final names" '[ -z "$(while read -r f; do [ -n "$(types "out/$f")" ] || echo "$f"; done <whole)" ]'
check "a kill leaves only its own temporary names" '[ -z "$(ls out | grep part- | grep -v "\.part-$pid\.")" ]'
check "the kill came before the end" '[ "$(wc -l <whole)" -lt 60 ]'
"$T" -q batch many --jobs 2 --results r --resume
check "resume exits 0" '[ $? -eq 0 ]'
check "every job done" '[ "$(jq -r "select(.outcome == \"done\") | .id" r | sort -u | wc -l)" -eq 48 ]'
check "every output is media" '[ -z "$(ls out | grep -v part- | grep -vxFf whole | while read -r f; do [ -n "$(types "out/$f")" ] || echo "$f"; done)" ] && [ "$(ls out | grep -vc part-)" -eq 60 ]'
lines=$(wc -l <r)
check "resume again runs nothing" '"$T" -q batch many --results r --resume && [ "$(wc -l <r)" -eq "$lines" ]'

echo "batch: $n mixed jobs, 48 resumed, $failed failed"
[ "$failed" -eq 0 ]
