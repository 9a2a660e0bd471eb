#!/usr/bin/env bash
# Instructions per request of the probe pipeline (parse + handle + build), counted by
# callgrind: only RootSm::processOnePacket and what it calls are collected.
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(mktemp -d)
valgrind --tool=callgrind --callgrind-out-file="$out/cg.out" --collect-atstart=no \
  --toggle-collect='Ravel::ProbeResponder::RootSm::processOnePacket*' \
  build/bin/probe_pipeline_bench --benchmark_filter=BM_ProbePipeline \
  --benchmark_min_time=0.01 --benchmark_format=json >"$out/bench.json" 2>"$out/vg.log"
ir=$(callgrind_annotate "$out/cg.out" 2>/dev/null | awk '/PROGRAM TOTALS/ {gsub(",","",$1); print $1; exit}')
iters=$(/usr/bin/python3 -c "import json,sys; print(json.load(open('$out/bench.json'))['benchmarks'][0]['iterations'])")
# Google Benchmark runs a few warm-up rounds before the reported one: count them from the log.
echo "{\"instructions\": $ir, \"reported_iterations\": $iters}"
rm -rf "$out"
