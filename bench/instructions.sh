#!/usr/bin/env bash
# Instructions per request of the probe pipeline (parse + handle + build), counted by
# callgrind over exactly N requests, collecting only inside RootSm::processOnePacket.
set -euo pipefail
cd "$(dirname "$0")/.."
n=${1:-10000}
out=$(mktemp -d)
valgrind --tool=callgrind --callgrind-out-file="$out/cg.out" --collect-atstart=no \
  --toggle-collect='Ravel::ProbeResponder::RootSm::processOnePacket*' \
  build/bin/probe_pipeline_bench --count "$n" 2>"$out/vg.log"
ir=$(sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$out/vg.log")
echo "{\"requests\": $n, \"instructions\": $ir, \"per_request\": $((ir / n))}"
rm -rf "$out"
