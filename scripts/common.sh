# What scripts/test and scripts/demo share. Sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
top=$PWD
jobs=$(nproc)

needRoot() {
    [ "$(id -u)" = 0 ] && return
    echo "$1: private mount namespaces and loop devices need root: sudo $1" >&2
    exit 1
}

# step NAME COMMAND...: runs one step and tells how long it took.
steps=()
step() {
    local name=$1 start=$SECONDS
    shift
    echo "== $name"
    "$@"
    steps+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
}

setUp() {
    scripts/setup "$@"
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
}

# build PRESET [CMAKE OPTIONS...]
build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@" >"build-$preset.out" 2>&1 || { cat "build-$preset.out"; return 1; }
    rm -f "build-$preset.out"
    cmake --build --preset "$preset" -j "$jobs"
}
