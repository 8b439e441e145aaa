#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Mutation testing: plants each fault of scripts/mutations.txt in src/, one at
# a time, rebuilds, runs the test suite and says whether a test caught it.
#
#   scripts/mutate.sh                  every fault (first the unmutated suite must pass)
#   scripts/mutate.sh --only A,B       only the faults with these ids
#   scripts/mutate.sh --list           the faults, without building anything
#   scripts/mutate.sh --check          only checks that every fault's text is still in its file
#   scripts/mutate.sh --keep-going     a fault whose text is gone is reported (stale) and skipped
#
# Output: one line per fault, "ID  caught|SURVIVED|build-error|stale  what it does
# (the first test that failed)", then "caught N of M" (faults that did not build
# or are stale are not counted). Each fault's build and test output is kept in
# build-mutate/mutants/ID.log.
#
# It builds in build-mutate/ (configured once: RelWithDebInfo, warnings not
# errors, tests on), rebuilding incrementally for each fault. A mutated file is
# restored as soon as its fault has run, also on Ctrl-C or an error; src/ is
# never left modified. A restored file is newer than what was built from the
# fault, so the next build recompiles it.
set -euo pipefail
cd "$(dirname "$0")/.."

list_file=scripts/mutations.txt
build_dir=build-mutate
only="" mode=run keep_going=0
while [ $# -gt 0 ]; do
  case "$1" in
    --only) only=${2:?--only needs a list of ids}; shift ;;
    --only=*) only=${1#--only=} ;;
    --list) mode=list ;;
    --check) mode=check ;;
    --keep-going) keep_going=1 ;;
    -h | --help) sed -n '2,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "mutate.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

command -v perl >/dev/null || { echo "mutate.sh needs perl (scripts/setup-debian.sh installs it)" >&2; exit 2; }

# The list's reader and the fault's applier, in perl:
#   ids                   the ids, one a line, in the list's order (all or --only's)
#   show ID               "file<TAB>what" of a fault
#   check ID              "ok", or "stale: why" (exit 1)
#   apply ID              plants the fault in its file
read -r -d '' faults_pl <<'PERL' || true
use strict; use warnings;
my ($list, $command, $id) = @ARGV;
open(my $in, '<', $list) or die "can't read $list: $!\n";
my (@faults, $fault);
while (my $line = <$in>) {
  chomp $line;
  next if $line =~ /^\s*#/;
  if ($line =~ /^\s*$/) { undef $fault; next; }
  $line =~ /^(id|file|what|from|to):\s*(.*?)\s*$/ or die "$list:$.: not 'key: value': $line\n";
  my ($key, $value) = ($1, $2);
  $value =~ s/\\(\\|n)/$1 eq 'n' ? "\n" : "\\"/ge;
  if ($key eq 'id') {
    die "$list:$.: id $value given twice\n" if grep { $_->{id} eq $value } @faults;
    $fault = { id => $value, edits => [] };
    push @faults, $fault;
    next;
  }
  die "$list:$.: $key before any id\n" unless $fault;
  if ($key eq 'from') { push @{$fault->{edits}}, [$value, undef]; }
  elsif ($key eq 'to') {
    my $edit = $fault->{edits}[-1];
    die "$list:$.: 'to' without its 'from'\n" unless $edit && !defined $edit->[1];
    $edit->[1] = $value;
  } else { $fault->{$key} = $value; }
}
for my $f (@faults) {
  for my $key (qw(file what)) { die "$list: fault $f->{id} has no $key\n" unless defined $f->{$key}; }
  die "$list: fault $f->{id} has no edit\n" unless @{$f->{edits}};
  for my $e (@{$f->{edits}}) { die "$list: fault $f->{id}: a 'from' without its 'to'\n" unless defined $e->[1]; }
}
if ($command eq 'ids') {
  my %wanted = map { $_ => 1 } grep { length } split /,/, ($id // '');
  my $all = !%wanted;
  for my $f (@faults) { print "$f->{id}\n" if $all || delete $wanted{$f->{id}}; }
  die "no fault with id: " . join(', ', sort keys %wanted) . "\n" if %wanted;
  exit 0;
}
my ($f) = grep { $_->{id} eq $id } @faults or die "no fault with id $id\n";
if ($command eq 'show') { print "$f->{file}\t$f->{what}\n"; exit 0; }
open(my $source, '<', $f->{file}) or do { print "stale: $f->{file} is missing\n"; exit 1; };
my $text = do { local $/; <$source> };
close $source;
for my $e (@{$f->{edits}}) {
  my ($from, $to) = @$e;
  my $count = () = $text =~ /\Q$from\E/g;
  if ($count != 1) {
    (my $shown = $from) =~ s/\n\s*/ \\n /g;
    print "stale: '$shown' occurs $count times in $f->{file}\n";
    exit 1;
  }
  if ($from eq $to) { print "stale: an edit that changes nothing\n"; exit 1; }
  $text =~ s/\Q$from\E/$to/;
}
if ($command eq 'check') { print "ok\n"; exit 0; }
die "unknown command $command\n" unless $command eq 'apply';
open(my $out, '>', $f->{file}) or die "can't write $f->{file}: $!\n";
print $out $text;
close $out or die "can't write $f->{file}: $!\n";
PERL
faults() { perl -e "$faults_pl" "$list_file" "$@"; }

ids_text=$(faults ids "$only")
mapfile -t ids <<<"$ids_text"
[ -n "$ids_text" ] || { echo "mutate.sh: no faults in $list_file" >&2; exit 2; }

row() { printf '%-36s %-11s %s\n' "$1" "$2" "$3"; }

if [ "$mode" = list ]; then
  for id in "${ids[@]}"; do
    IFS=$'\t' read -r file what < <(faults show "$id")
    row "$id" "$file" "$what"
  done
  echo "${#ids[@]} faults"
  exit 0
fi

stale=0
for id in "${ids[@]}"; do
  if ! verdict=$(faults check "$id"); then
    row "$id" stale "${verdict#stale: }"
    stale=$((stale + 1))
  fi
done
if [ "$mode" = check ]; then
  echo "${#ids[@]} faults, $stale stale"
  [ "$stale" -eq 0 ]
  exit
fi
if [ "$stale" -gt 0 ] && [ "$keep_going" -eq 0 ]; then
  echo "mutate.sh: $stale stale faults: re-anchor them in $list_file, or run with --keep-going" >&2
  exit 1
fi

# ---- the run

jobs=$(nproc)
if [ -x scripts/setup-debian.sh ]; then
  scripts/setup-debian.sh || { echo "mutate.sh: the build needs what scripts/setup-debian.sh installs" >&2; exit 2; }
fi
mkdir -p "$build_dir/mutants"
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEL_WERROR=OFF -DQUORVEL_BUILD_TESTS=ON \
    >"$build_dir/mutants/configure.log" 2>&1 || { cat "$build_dir/mutants/configure.log" >&2; exit 2; }
fi

backup=$(mktemp)
mutated=""
restore() {
  if [ -n "$mutated" ]; then
    cat "$backup" >"$mutated"  # a fresh modification time: the next build recompiles it
    mutated=""
  fi
}
trap 'restore; rm -f "$backup"' EXIT
trap 'restore; echo; echo "mutate.sh: interrupted; sources restored" >&2; exit 130' INT TERM

build() { cmake --build "$build_dir" -j "$jobs" >"$1" 2>&1; }
suite() { ctest --test-dir "$build_dir" -j "$jobs" --timeout 60 --stop-on-failure >>"$1" 2>&1; }
# The first test ctest reports as anything but passed: failed, timed out, crashed.
first_failure() {
  grep -E 'Test +#[0-9]+: ' "$1" | grep -v ' Passed ' | head -n1 | sed -E 's/.*Test +#[0-9]+: ([^ ]+).*/\1/'
}

started=$(date +%s)
echo "Building and running the unmutated suite ..."
if ! build "$build_dir/mutants/unmutated.log" || ! suite "$build_dir/mutants/unmutated.log"; then
  echo "mutate.sh: the unmutated suite fails; see $build_dir/mutants/unmutated.log" >&2
  exit 1
fi
echo "Unmutated suite passes ($(($(date +%s) - started)) s). Faults:"

caught=0 counted=0
for id in "${ids[@]}"; do
  IFS=$'\t' read -r file what < <(faults show "$id")
  log="$build_dir/mutants/$id.log"
  if ! faults check "$id" >/dev/null; then
    row "$id" stale "$what"
    continue
  fi
  cp "$file" "$backup"
  mutated=$file
  faults apply "$id"
  if ! build "$log"; then
    restore
    row "$id" build-error "$what"
    continue
  fi
  counted=$((counted + 1))
  if suite "$log"; then
    restore
    row "$id" SURVIVED "$what"
  else
    restore
    caught=$((caught + 1))
    failed=$(first_failure "$log")
    row "$id" caught "$what${failed:+  ($failed)}"
  fi
done
# Leave the build matching the sources again.
build "$build_dir/mutants/restored.log" || true
echo "caught $caught of $counted ($(( ($(date +%s) - started) / 60 )) min)"
