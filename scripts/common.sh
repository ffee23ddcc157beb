# Shared by the scripts beside it; to be sourced.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() {
    printf '%s\n' "$*"
}

# What is wrong, and what to do.
fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# need_room FOLDER MEGABYTES: makes the folder, or says why nothing can be built there.
need_room() {
    local free
    mkdir -p "$1" 2> /dev/null && [ -w "$1" ] ||
        fail "cannot write $1; is this checkout read-only or another user's? Make a copy of it"
    free=$(($(df --output=avail -m "$1" | tail -n 1)))
    [ "$free" -ge "$2" ] || fail "the disk of $1 is full: $free MB are free, $2 are needed"
}

# build FOLDER [CMAKE-OPTION...] [-- TARGET...]: configures and builds, with progress on a terminal,
# and with nothing but the outcome elsewhere. The full output lies in FOLDER/build.log.
build() {
    local folder=$1 options=()
    shift
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    [ $# = 0 ] || shift
    mkdir -p "$folder" || fail "cannot write $folder"
    say "Configuring $folder"
    cmake -S "$root" -B "$folder" -G Ninja "${options[@]}" > "$folder/build.log" 2>&1 || {
        tail -n 30 "$folder/build.log" >&2
        fail "configuring failed; the whole output is in $folder/build.log"
    }
    say "Building $folder"
    if [ -t 1 ]; then
        ninja -C "$folder" "$@" || fail "the build failed; see above"
    else
        ninja -C "$folder" "$@" >> "$folder/build.log" 2>&1 || {
            grep -B 2 -A 30 -m 3 'FAILED' "$folder/build.log" >&2
            fail "the build failed; the whole output is in $folder/build.log"
        }
    fi
}

# pack FOLDER: makes the Debian packages from a build, and looks at them as Debian does.
pack() {
    local folder=$1
    (cd "$folder" && rm -f ./*.deb && cpack) > "$folder/pack.log" 2>&1 || {
        tail -n 20 "$folder/pack.log" >&2
        fail "packing failed; the whole output is in $folder/pack.log"
    }
    lintian --allow-root --fail-on error,warning "$folder"/*.deb || fail "lintian objects to the packages"
    ls "$folder"/*.deb
}
