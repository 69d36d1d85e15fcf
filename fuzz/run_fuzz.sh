#!/usr/bin/env bash
# run_fuzz.sh HARNESS SEED_DIR WORK_DIR SECONDS: the seeds, then new inputs for SECONDS on one core. New corpus
# entries and a crash's input go to WORK_DIR (the seeds are never changed); a crash fails the test.
set -euo pipefail
harness=$1 seeds=$2 work=$3 seconds=$4
mkdir -p "$work/corpus"
"$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
  -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" "$seeds"
