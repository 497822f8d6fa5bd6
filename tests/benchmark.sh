#!/bin/sh
# Throughput of the default output, -csv, -csvl2t and -jsonl with full
# decoding: writes a large trace with the trace writer (once) and times quon
# over it.
#   benchmark.sh <quon> <write_trace> [megabytes]
set -eu
quon=$1
writer=$2
mb=${3:-${QUON_BENCH_MB:-512}}
dir=${QUON_BENCH_DIR:-/tmp/quon-bench}
mkdir -p "$dir"
trace="$dir/big-$mb.etl"
[ -f "$trace" ] || "$writer" big "$mb" "$trace"
bytes=$(stat -c %s "$trace")

# Start-up: a run on a file that isn't a trace loads the templates and stops.
printf 'not a trace' > "$dir/empty.txt"
start=$(date +%s.%N)
"$quon" -quiet -log "$dir/empty.txt" >/dev/null 2>&1 || true
end=$(date +%s.%N)
echo "start-up (template load included): $(echo "($end - $start) * 1000" | bc -l | cut -c1-6) ms"

# The output goes through a pipe to a line count, so that the figures are
# those of the reader and not of the disk it would write to.
for mode in "" "-csv" "-csvl2t" "-jsonl"; do
  start=$(date +%s.%N)
  rows=$( { /usr/bin/time -f "%M" -o "$dir/rss" "$quon" -quiet $mode -log "$trace"; } | wc -l)
  end=$(date +%s.%N)
  secs=$(echo "$end - $start" | bc -l)
  echo "mode '${mode:-default}': $bytes bytes, $rows lines in $secs s:" \
    "$(echo "$bytes / 1048576 / $secs" | bc -l | cut -c1-7) MB/s," \
    "$(echo "$rows / $secs" | bc -l | cut -d. -f1) rows/s, peak RSS $(cat "$dir/rss") KiB"
done
