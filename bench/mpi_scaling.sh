#!/usr/bin/env bash
# Renders the Cornell example on one process with one thread, then on two
# processes started by mpirun with one thread each, and prints the wall
# times, the speed-up, the seconds that rank 0 spent in communication (the
# photon gather and the AOV reduction) and those it waited for the other
# process before them. The two renders alternate ROUNDS times
# (default 3) and the shortest time of each counts, as other work on a shared
# machine only ever slows a run down. Needs a build with Open MPI:
#   bash bench/mpi_scaling.sh [BUILD_DIR [ROUNDS]]   (default build-test, 3)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-test}"
rounds="${2:-3}"
host="$build/lumivane"
mpirun="$(command -v mpirun)" || { echo "mpirun not found: install openmpi-bin"; exit 1; }
work="$(mktemp -d)"; trap 'rm -rf "$work"' EXIT
export OMP_NUM_THREADS=1 OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1

seconds() { date +%s.%N; }
run() {   # name, then the command; the report goes to $work/name.txt
    local name="$1"; shift
    rm -rf "$work/$name"; cp -r "$root/examples/cornell" "$work/$name"
    local t0; t0="$(seconds)"
    "$@" "$work/$name" > "$work/$name.txt" 2> "$work/$name.err"
    awk -v a="$(seconds)" -v b="$t0" 'BEGIN { print a - b }'
}

below() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(b == "" || a < b) }'; }
one=""; two=""; comm=""; wait=""
for ((k = 1; k <= rounds; ++k)); do
    t1="$(run one "$host")"
    t2="$(run two "$mpirun" --oversubscribe -np 2 "$host")"
    c="$(grep -o '[0-9.]* seconds in communication' "$work/two.err" | cut -d' ' -f1)"
    w="$(grep -o '[0-9.]* seconds waiting' "$work/two.err" | cut -d' ' -f1)"
    printf 'round %d: 1 process %8.3f s, 2 processes %8.3f s (communication %.4f s, waiting %.4f s)\n' \
        "$k" "$t1" "$t2" "$c" "$w"
    if below "$t1" "$one"; then one="$t1"; fi
    if below "$t2" "$two"; then two="$t2"; comm="$c"; wait="$w"; fi
done
printf 'cornell, 1 process  x 1 thread : %8.3f s\n' "$one"
printf 'cornell, 2 processes x 1 thread: %8.3f s (rank 0 in communication %.4f s, waiting %.4f s)\n' \
    "$two" "$comm" "$wait"
printf 'speed-up                       : %8.3f x\n' "$(awk -v a="$one" -v b="$two" 'BEGIN { print a / b }')"
