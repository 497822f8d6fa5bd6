#!/bin/sh
# Throughput of the default output, -csv, -csvl2t and -jsonl with full
# decoding: writes a large trace with the trace writer (once) and times quon
# over it, then over each real sample trace larger than 1 MB (when the sample
# folder is there), named again and again in one -log list until the list
# holds at least 200 MB, so that start-up doesn't count.
#   benchmark.sh <quon> <write_trace> [megabytes] [samples-folder] [figures-file]
# The figures of the run are written to the figures file as well (default:
# none), so that the last run's figures can be kept beside the sources. Each
# figure is the fastest of QUON_BENCH_REPEAT runs (default 5), the forms
# taking turns.
set -eu
quon=$1
writer=$2
mb=${3:-${QUON_BENCH_MB:-512}}
samples=${4:-${QUON_SAMPLES_DIR:-}}
figures=${5:-${QUON_BENCH_FIGURES:-}}
repeat=${QUON_BENCH_REPEAT:-5}
dir=${QUON_BENCH_DIR:-/tmp/quon-bench}
mkdir -p "$dir"
trace="$dir/big-$mb.etl"
[ -f "$trace" ] || "$writer" big "$mb" "$trace"
report="$dir/figures.txt"
: > "$report"

say() {
  echo "$*"
  echo "$*" >> "$report"
}

# Start-up: a run on a file that isn't a trace loads the templates and stops.
printf 'not a trace' > "$dir/empty.txt"
start=$(date +%s.%N)
"$quon" -quiet -log "$dir/empty.txt" >/dev/null 2>&1 || true
end=$(date +%s.%N)
say "start-up (template load included): $(echo "($end - $start) * 1000" | bc -l | cut -c1-6) ms"

# run_forms <label> <bytes> <list>: each output form over the -log list. The
# output goes through a pipe to a line count, so that the figures are those
# of the reader and not of the disk it would write to.
run_forms() {
  label=$1
  bytes=$2
  list=$3
  # The fastest of a few runs of each form: on a machine shared with other
  # work a single run measures the neighbours as much as the program. The
  # forms take turns, round after round, so that a slow spell of the machine
  # falls on all of them alike rather than on the one that ran then.
  for name in default -csv -csvl2t -jsonl; do rm -f "$dir/best$name"; done
  run=0
  while [ "$run" -lt "$repeat" ]; do
    run=$((run + 1))
    for name in default -csv -csvl2t -jsonl; do
      mode=$name
      [ "$name" = default ] && mode=""
      start=$(date +%s.%N)
      n=$( { /usr/bin/time -f "%M %U %S" -o "$dir/rss.try" "$quon" -quiet $mode -log "$list"; } | wc -l)
      end=$(date +%s.%N)
      t=$(echo "$end - $start" | bc -l)
      if [ ! -f "$dir/best$name" ] || [ "$(echo "$t < $(head -n 1 "$dir/best$name")" | bc -l)" = 1 ]; then
        { echo "$t"; echo "$n"; cat "$dir/rss.try"; } > "$dir/best$name"
      fi
    done
  done
  for name in default -csv -csvl2t -jsonl; do
    { read -r secs; read -r rows; read -r rss user sys; } < "$dir/best$name"
    # The processor time of quon alone as well: on a machine shared with
    # other work the wall time also counts the waits.
    cpu=$(echo "$user + $sys" | bc -l)
    say "$label mode '$name': $bytes bytes, $rows lines in $(echo "$secs" | cut -c1-6) s:" \
      "$(echo "$bytes / 1048576 / $secs" | bc -l | cut -c1-7) MB/s," \
      "$(echo "$rows / $secs" | bc -l | cut -d. -f1) rows/s," \
      "cpu $cpu s ($(echo "$bytes / 1048576 / $cpu" | bc -l | cut -c1-7) MB/s), peak RSS $rss KiB"
  done
}

run_forms "synthetic $(basename "$trace")" "$(stat -c %s "$trace")" "$trace"

# The real samples, when the folder is there.
if [ -n "$samples" ] && [ -d "$samples" ]; then
  find "$samples" -name '*.etl' -size +1M | sort | while read -r sample; do
    size=$(stat -c %s "$sample")
    list=$sample
    total=$size
    while [ "$total" -lt $((200 * 1048576)) ]; do
      list="$list | $sample"
      total=$((total + size))
    done
    run_forms "sample ${sample#"$samples"/} x$((total / size))" "$total" "$list"
  done
else
  say "real samples: folder absent, skipped"
fi

if [ -n "$figures" ]; then
  {
    echo "# The benchmark's last figures (cmake --build <dir> --target benchmark):"
    echo "# input MB/s and rows/s per output form, output counted through a pipe;"
    echo "# the fastest of $repeat runs each, the forms taking turns."
    cat "$report"
  } > "$figures"
fi
