# shellcheck shell=bash disable=SC2034  # the other scripts use the names that are set here
# Shared by the scripts in this folder. Sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
top=$PWD
jobs=$(nproc)

# The outermost script prints the time of each step, also of the scripts that it calls, and the step that failed.
finish() {
    local status=$?
    [ $status = 0 ] || [ -z "$current" ] || printf ' FAILED  %s\n' "$current" >>"$STEP_TIMES"
    [ -z "$outermost" ] || cat "$STEP_TIMES"
}

current='' outermost=''
if [ -z "${STEP_TIMES:-}" ]; then
    outermost=yes
    mkdir -p build
    export STEP_TIMES=$top/build/step-times
    : >"$STEP_TIMES"
fi
trap finish EXIT

needRoot() {
    [ "$(id -u)" = 0 ] && return
    echo "$1: private mount namespaces and loop devices need root: sudo $1" >&2
    exit 1
}

# step NAME COMMAND...: runs one step and records how long it took.
step() {
    local start=$SECONDS
    current=$1
    shift
    echo "== $current"
    "$@"
    printf '%5d s  %s\n' $((SECONDS - start)) "$current" >>"$STEP_TIMES"
    current=''
}

setUp() {
    scripts/setup "$@"
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
}

# quietly NAME COMMAND...: shows the output of the command only when it fails.
quietly() {
    local output=build/$1.out
    shift
    "$@" >"$output" 2>&1 || { cat "$output"; return 1; }
    rm -f "$output"
}

# build PRESET [CMAKE OPTIONS...]
build() {
    quietly "$1" cmake --preset "$@"
    cmake --build --preset "$1" -j "$jobs"
}
