#!/bin/sh
# Draws the two plots of docs/performance.md from the JSON of `make bench` (medians):
#   launch.png  time to start /bin/true against the caller's resident size, per launcher
#   crc16.png   CRC-16 throughput against buffer size, byte table against the paths in use now
# Usage: bench/plot.sh [BENCH_JSON] [OUTPUT_DIR]    (needs jq and gnuplot: apt-get install jq gnuplot-nox)
set -eu

json=${1:-build/default/bench.json}
out=${2:-docs}
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT

# One "argument value" line per median of a benchmark family, sorted by the argument.
series() {
    jq -r --arg family "$1" --arg field "$2" '
        .benchmarks[]
        | select(.aggregate_name == "median" and (.run_name | startswith($family + "/")))
        | (.run_name | split("/")) as $parts
        | [($parts[2] | tonumber),
           (if $field == "ms" then .real_time / ({"ns": 1e6, "us": 1e3, "ms": 1, "s": 1e-3}[.time_unit])
            else .bytes_per_second / 1e9 end)]
        | @tsv' "$json" | sort -n
}

for launcher in fork_exec posix_spawn admin_system_call; do
    series "launch/$launcher" ms | awk '$1 > 0' >"$data/$launcher"
done
for path in byte_table portable compute; do
    series "crc16/$path" gbps >"$data/$path"
done

gnuplot <<EOF
set terminal pngcairo size 900,560 font ",11" noenhanced
set grid
set key top left

set output "$out/launch.png"
set title "Starting /bin/true and waiting for it, against the caller's resident size"
set xlabel "resident size of the caller (MiB)"
set ylabel "time per launch (ms)"
set logscale xy
set xrange [8:3000]
plot "$data/fork_exec" using 1:2 with linespoints title "fork + exec", \
     "$data/posix_spawn" using 1:2 with linespoints title "posix_spawn", \
     "$data/admin_system_call" using 1:2 with linespoints title "admin_system_call"

set output "$out/crc16.png"
set title "CRC-16/ARC throughput against buffer size"
set xlabel "buffer size (bytes)"
set ylabel "throughput (GB/s)"
set logscale x 4
unset logscale y
set xrange [48:96000000]
set xtics ("64 B" 64, "1 KiB" 1024, "16 KiB" 16384, "256 KiB" 262144, "4 MiB" 4194304, "64 MiB" 67108864)
plot "$data/byte_table" using 1:2 with linespoints title "byte table (before)", \
     "$data/portable" using 1:2 with linespoints title "sixteen tables (portable path)", \
     "$data/compute" using 1:2 with linespoints title "crc16_compute (carry-less on x86-64)"
EOF
echo "wrote $out/launch.png and $out/crc16.png"
