#!/bin/bash
# Whole-process benchmarks of kxzel-testinstall against a running
# zeld-testinstall on 127.0.0.1 (one node, durable updates), in a temporary
# directory: vget and vput medians, a large fput and fget, and updates per
# second with concurrent clients.
#
#   bench/zeld_bench.sh [build-dir] [runs] [file-MiB] [clients]
set -euo pipefail
BUILD=${1:-build}
RUNS=${2:-200}
MIB=${3:-1024}
CLIENTS=${4:-8}
ZELD=$(realpath "$BUILD/zeld-testinstall")
KX=$(realpath "$BUILD/kxzel-testinstall")
T=$(mktemp -d /tmp/zeld-bench.XXXXXX)
PID=
cleanup() {
  if [ -n "$PID" ]; then { kill -9 "$PID"; wait "$PID"; } 2>/dev/null || true; fi
  rm -rf "$T"
}
trap cleanup EXIT
mkdir -p "$T/server" "$T/client/committed"
ZEL_BASE=$T/server "$ZELD" -P 0 >"$T/zeld.log" 2>&1 &
PID=$!
for _ in $(seq 500); do [ -s "$T/server/zeld.port" ] && break; sleep 0.02; done
PORT=$(cat "$T/server/zeld.port")
export ZEL_BASE=$T/client
kx() { "$KX" "$@" >/dev/null 2>&1; }
"$KX" init -c 7 -n "127.0.0.1:$PORT" >/dev/null
kx vput name value

# Microseconds from the shell's own clock (bash 5): timing with date(1) would
# add a process start to every measurement.
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
time_runs() {  # prints the median whole-process time in microseconds
  local s e
  for _ in $(seq "$RUNS"); do
    s=${EPOCHREALTIME/./}; "$@"; e=${EPOCHREALTIME/./}; echo $((e - s))
  done | median
}
# What starting any process costs here, the floor under every figure below.
echo "process start floor (/bin/true) median: $(time_runs /bin/true) us ($RUNS runs)"
echo "vget median: $(time_runs kx vget name) us ($RUNS runs)"
i=0
vput_next() { i=$((i + 1)); kx vput bench "$i"; }
echo "vput median: $(time_runs vput_next) us ($RUNS runs)"

head -c $((MIB * 1048576)) /dev/urandom >"$T/big"
s=${EPOCHREALTIME/./}; kx fput big "$T/big"; e=${EPOCHREALTIME/./}
echo "fput ${MIB} MiB: $(((e - s) / 1000)) ms"
s=${EPOCHREALTIME/./}; kx fget big "$T/big.out"; e=${EPOCHREALTIME/./}
echo "fget ${MIB} MiB: $(((e - s) / 1000)) ms"
cmp -s "$T/big" "$T/big.out" || { echo "fget returned other bytes"; exit 1; }
# Again, the output removed first. When received files went through the page
# cache this one reused the memory just freed and was far faster than the first
# in a virtual machine whose fresh pages are costly to touch; written direct,
# the two should agree.
rm -f "$T/big.out"
s=${EPOCHREALTIME/./}; kx fget big "$T/big.out"; e=${EPOCHREALTIME/./}
echo "fget ${MIB} MiB again: $(((e - s) / 1000)) ms"
rm -f "$T/big" "$T/big.out"

PER=50
s=${EPOCHREALTIME/./}
pids=()
for c in $(seq "$CLIENTS"); do
  (for k in $(seq "$PER"); do kx vput "c$c" "$k"; done) &
  pids+=($!)
done
wait "${pids[@]}"
e=${EPOCHREALTIME/./}
echo "updates/s with $CLIENTS clients: $((CLIENTS * PER * 1000000 / (e - s)))"
