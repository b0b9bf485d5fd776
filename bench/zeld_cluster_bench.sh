#!/bin/bash
# Whole-process benchmarks of kxzel-testinstall against three zeld-testinstall
# nodes on 127.0.0.1 (no tiebreaker disk), each node in its own temporary
# directory: vget and vput medians, updates per second with concurrent
# clients; then, on a repository seeded with a large state (bench/seedstate),
# the vput median there and the time a restarted node takes to catch up.
#
#   bench/zeld_cluster_bench.sh [build-dir] [runs] [clients] [values]
set -euo pipefail
BUILD=${1:-build}
RUNS=${2:-200}
CLIENTS=${3:-8}
VALUES=${4:-100000}
ZELD=$(realpath "$BUILD/zeld-testinstall")
KX=$(realpath "$BUILD/kxzel-testinstall")
SEED=$(realpath "$BUILD/bench/seedstate")
T=$(mktemp -d /tmp/zeld-cluster-bench.XXXXXX)
declare -A PID PORT
cleanup() {
  for p in "${PID[@]}"; do { kill -9 "$p"; wait "$p"; } 2>/dev/null || true; done
  rm -rf "$T"
}
trap cleanup EXIT

start() {  # start NAME [port]: a node in $T/NAME; waits for its port file
  local d=$T/$1
  mkdir -p "$d"
  rm -f "$d/zeld.port"
  ZEL_BASE=$d "$ZELD" -P "${2:-0}" >>"$d.log" 2>&1 &
  PID[$1]=$!
  for _ in $(seq 500); do [ -s "$d/zeld.port" ] && break; sleep 0.01; done
  PORT[$1]=$(cat "$d/zeld.port")
}
stop() { kill "${PID[$1]}"; wait "${PID[$1]}" 2>/dev/null || true; unset "PID[$1]"; }
# The shell's own clock, read in place: $(...) would start a subshell per reading.
now() { T_NOW=${EPOCHREALTIME/./}; }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
time_runs() {  # the median whole-process time of "$@" in microseconds over $1 runs
  local n=$1
  shift
  for _ in $(seq "$n"); do
    now; s=$T_NOW; "$@"; now; echo $((T_NOW - s))
  done | median
}
kx() { "$KX" "$@" >/dev/null 2>&1; }

echo "process start floor (/bin/true) median: $(time_runs "$RUNS" /bin/true) us"

# A small repository.
for n in a1 a2 a3; do start $n; done
export ZEL_BASE=$T/client
mkdir -p "$ZEL_BASE/committed"
"$KX" init -c 7 -n "127.0.0.1:${PORT[a1]},127.0.0.1:${PORT[a2]},127.0.0.1:${PORT[a3]}" >/dev/null
kx vput name value
echo "3 nodes: vget median: $(time_runs "$RUNS" kx vget name) us ($RUNS runs)"
i=0
vput_next() { i=$((i + 1)); kx vput bench "$i"; }
echo "3 nodes: vput median: $(time_runs "$RUNS" vput_next) us ($RUNS runs)"
PER=50
now; s=$T_NOW
pids=()
for c in $(seq "$CLIENTS"); do
  (for k in $(seq "$PER"); do kx vput "c$c" "$k"; done) &
  pids+=($!)
done
wait "${pids[@]}"
now; e=$T_NOW
echo "3 nodes: updates/s with $CLIENTS clients: $((CLIENTS * PER * 1000000 / (e - s)))"
for n in a1 a2 a3; do stop $n; done

# A repository whose state holds $VALUES values.
for n in b1 b2 b3; do start $n; done
export ZEL_BASE=$T/bigclient
mkdir -p "$ZEL_BASE/committed"
"$SEED" 9 "$VALUES" "$ZEL_BASE" "127.0.0.1:${PORT[b1]}" "127.0.0.1:${PORT[b2]}" \
  "127.0.0.1:${PORT[b3]}"
kx vput v000000 first || { echo "vput on the seeded repository failed"; exit 1; }
j=0
big_next() { j=$((j + 1)); kx vput big "$j"; }
echo "$VALUES values: vput median: $(time_runs 20 big_next) us (20 runs)"
stop b3
for k in 1 2 3 4 5; do kx vput late "$k"; done
# A client that knows only node 3: its answer is node 3's own.
ONLY3=$T/only3
mkdir -p "$ONLY3/committed"
echo "3,0,127.0.0.1,${PORT[b3]},127.0.0.1" >"$ONLY3/zel.nodes"
now; s=$T_NOW
start b3 "${PORT[b3]}"
for _ in $(seq 3000); do
  out=$(ZEL_BASE=$ONLY3 "$KX" vget late 2>/dev/null || true)
  case $out in *vget:5:5*) break ;; esac
done
now; e=$T_NOW
case $out in *vget:5:5*) ;; *) echo "node 3 did not catch up"; exit 1 ;; esac
echo "$VALUES values: restarted node answers the latest value after $(((e - s) / 1000)) ms"
