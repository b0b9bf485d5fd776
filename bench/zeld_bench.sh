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
cleanup() { [ -n "$PID" ] && kill -9 "$PID" 2>/dev/null; rm -rf "$T"; }
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

now() { date +%s%N; }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
time_runs() {  # prints the median whole-process time in microseconds
  for _ in $(seq "$RUNS"); do
    s=$(now); "$@"; e=$(now); echo $(((e - s) / 1000))
  done | median
}
echo "vget median: $(time_runs kx vget name) us ($RUNS runs)"
i=0
vput_next() { i=$((i + 1)); kx vput bench "$i"; }
echo "vput median: $(time_runs vput_next) us ($RUNS runs)"

head -c $((MIB * 1048576)) /dev/urandom >"$T/big"
s=$(now); kx fput big "$T/big"; e=$(now)
echo "fput ${MIB} MiB: $(((e - s) / 1000000)) ms"
s=$(now); kx fget big "$T/big.out"; e=$(now)
echo "fget ${MIB} MiB: $(((e - s) / 1000000)) ms"
cmp -s "$T/big" "$T/big.out" || { echo "fget returned other bytes"; exit 1; }
rm -f "$T/big" "$T/big.out"

PER=50
s=$(now)
pids=()
for c in $(seq "$CLIENTS"); do
  (for k in $(seq "$PER"); do kx vput "c$c" "$k"; done) &
  pids+=($!)
done
wait "${pids[@]}"
e=$(now)
echo "updates/s with $CLIENTS clients: $((CLIENTS * PER * 1000000000 / (e - s)))"
