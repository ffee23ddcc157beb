# Shared by the scripts beside it; to be sourced.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

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

# build FOLDER TARGET [CMAKE-OPTION...]: configures and builds, with progress on a terminal, and
# with nothing but the outcome elsewhere. The full output lies in FOLDER/build.log.
build() {
    local folder=$1 target=$2
    shift 2
    mkdir -p "$folder" || fail "cannot write $folder"
    echo "Configuring $folder"
    cmake -S "$root" -B "$folder" -G Ninja "$@" > "$folder/build.log" 2>&1 || {
        tail -n 30 "$folder/build.log" >&2
        fail "configuring failed; the whole output is in $folder/build.log"
    }
    echo "Building $folder"
    if [ -t 1 ]; then
        ninja -C "$folder" "$target" || fail "the build failed; see above"
    else
        ninja -C "$folder" "$target" >> "$folder/build.log" 2>&1 || {
            grep -B 2 -A 30 -m 3 'FAILED' "$folder/build.log" >&2
            fail "the build failed; the whole output is in $folder/build.log"
        }
    fi
}

# build_package FOLDER ARCHITECTURE [CMAKE-OPTION...]: builds what is packed, as Debian wants it.
build_package() {
    local folder=$1 architecture=$2 flags units=/usr/lib/systemd/system
    shift 2
    debian_changelog > /dev/null # a missing entry is told now, not after minutes
    # Whatever the folder of the sources is called, the packages are the same.
    export DEB_CFLAGS_MAINT_APPEND="-ffile-prefix-map=$root=."
    export DEB_CXXFLAGS_MAINT_APPEND=$DEB_CFLAGS_MAINT_APPEND DEB_BUILD_MAINT_OPTIONS=hardening=+all
    flags=$(dpkg-architecture -f -a "$architecture" -c dpkg-buildflags --export=sh 2> /dev/null)
    eval "$flags"
    export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
    ! grep -q '^VERSION_ID="12"' /etc/os-release || units=${units#/usr} # there its debhelper looks
    build "$folder" packed -DCMAKE_INSTALL_PREFIX=/usr \
        -DULMO_SYSTEMD_UNIT_DIR="$units" "$@"
}

# debian_changelog: CHANGELOG.md's entry for the version in CMakeLists.txt, as Debian writes it.
debian_changelog() {
    local version date
    version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
    date=$(sed -n "s/^## \[$version\] - //p" "$root/CHANGELOG.md")
    [ -n "$date" ] || fail "CHANGELOG.md has no entry for version $version"
    printf 'ulmo-bluetoothmanager (%s) bookworm; urgency=medium\n\n' "$version"
    sed -nE "/^## \[$version\]/,/^## /{s/^  /    /p; s/^- /  * /p}" "$root/CHANGELOG.md"
    printf '\n -- %s  %s\n' "$(sed -n 's/^Maintainer: //p' "$root/packaging/debian/control")" \
        "$(date --utc --rfc-email --date "$date")"
}

# pack FOLDER ARCHITECTURE: makes the packages of what was built, and looks at them as Debian does.
pack() {
    local folder=$1 architecture=$2
    echo "Packing"
    rm -rf "$folder"/debian "$folder"/*.deb
    cp -r "$root/packaging/debian" "$folder/debian"
    debian_changelog > "$folder/debian/changelog"
    (cd "$folder" && DEB_RULES_REQUIRES_ROOT=no \
        dpkg-architecture -f -a "$architecture" -c debian/rules binary) \
        > "$folder/pack.log" 2>&1 || {
        tail -n 20 "$folder/pack.log" >&2
        fail "packing failed; the whole output is in $folder/pack.log"
    }
    lintian --allow-root --pedantic --fail-on error,warning,info,pedantic "$folder"/*.deb ||
        fail "lintian objects to the packages"
    ls "$folder"/*.deb
}
