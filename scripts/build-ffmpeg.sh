#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Build a minimal, shared FFmpeg from the upstream release tarball that
# Debian's archive carries, and install it into a cache directory.
#
# Usage:
#   scripts/build-ffmpeg.sh [VERSION [CACHE_DIR]]
#
#   VERSION    upstream release, e.g. 9.0.2 (default: $QUORVEL_FFMPEG_VERSION,
#              else 9.0.2)
#   CACHE_DIR  where tarballs, build trees and installs live (default:
#              $QUORVEL_FFMPEG_CACHE, else /var/cache/quorvel-ffmpeg)
#
# The install prefix is CACHE_DIR/ffmpeg-VERSION.  It is printed as the last
# line of stdout; all progress goes to stderr, so callers can write
#
#   PKG_CONFIG_PATH="$(scripts/build-ffmpeg.sh)/lib/pkgconfig"
#
# If the prefix already holds an install made with the same configure flags,
# nothing is built.  The tarball is fetched with apt through a private apt
# configuration (own sources list, lists dir and cache), so the machine's own
# apt state is left untouched.  The archive address is read from the
# machine's apt sources at run time; QUORVEL_DEBIAN_ARCHIVE overrides it.
#
# Other knobs:
#   QUORVEL_FFMPEG_JOBS        parallel make jobs (default: nproc)
#   QUORVEL_FFMPEG_KEEP_BUILD  set to 1 to keep the build tree afterwards
set -euo pipefail

# Everything but the final prefix line goes to stderr.
exec 3>&1 1>&2

log() { printf '[build-ffmpeg] %s\n' "$*" >&2; }
die() { printf '[build-ffmpeg] error: %s\n' "$*" >&2; exit 1; }

VERSION="${1:-${QUORVEL_FFMPEG_VERSION:-9.0.2}}"
CACHE="${2:-${QUORVEL_FFMPEG_CACHE:-/var/cache/quorvel-ffmpeg}}"

[[ "$VERSION" =~ ^[0-9]+(\.[0-9]+)+$ ]] || die "bad version '$VERSION' (want e.g. 9.0.2)"

mkdir -p "$CACHE" 2>/dev/null || die "cannot create cache dir $CACHE (set QUORVEL_FFMPEG_CACHE)"
CACHE="$(cd "$CACHE" && pwd -P)"
PREFIX="$CACHE/ffmpeg-$VERSION"
STAMP="$PREFIX/.quorvel-build-stamp"
SRCDIR="$CACHE/src"
BUILDDIR="$CACHE/build-$VERSION"
APTDIR="$CACHE/apt"
TARBALL_NAME="ffmpeg_${VERSION}.orig.tar.xz"
TARBALL="$SRCDIR/$TARBALL_NAME"

CONFIGURE_FLAGS=(
    "--prefix=$PREFIX"
    --enable-shared
    --disable-static
    --disable-programs
    --disable-doc
    --disable-encoders
    --disable-hwaccels
    --disable-autodetect
    --disable-x86asm
    # --disable-autodetect also switches off threads and zlib; the distro
    # builds have both, and zlib is needed for compressed mov/mkv headers.
    --enable-pthreads
    --enable-zlib
    # Keep debug symbols in the installed libraries (sanitizer backtraces).
    --disable-stripping
    # Let the libraries find each other in PREFIX/lib: a consumer's own
    # (DT_RUNPATH) rpath does not cover libavformat's dependency on libavutil.
    --enable-rpath
)
STAMP_TEXT="$(printf '%s\n' "ffmpeg $VERSION" "${CONFIGURE_FLAGS[@]}")"

is_cached() {
    [[ -f "$PREFIX/lib/pkgconfig/libavformat.pc" && -f "$STAMP" ]] &&
        [[ "$(cat "$STAMP")" == "$STAMP_TEXT" ]]
}

finish() {
    echo "$PREFIX" >&3
    exit 0
}

if is_cached; then
    log "using cached FFmpeg $VERSION in $PREFIX"
    finish
fi

# One build per version at a time (CI runs may share the machine's cache).
exec 9>"$CACHE/.ffmpeg-$VERSION.lock"
if command -v flock >/dev/null 2>&1; then
    flock 9
fi
if is_cached; then
    log "using cached FFmpeg $VERSION in $PREFIX (built by a concurrent run)"
    finish
fi

START_TIME=$SECONDS

# ---------------------------------------------------------------- build deps
SUDO=()
if [[ $EUID -ne 0 ]]; then
    command -v sudo >/dev/null 2>&1 && SUDO=(sudo)
fi

ensure_packages() {
    local missing=() p
    for p in "$@"; do
        if [[ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)" != *"install ok installed"* ]]; then
            missing+=("$p")
        fi
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    log "installing build dependencies: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    if ! "${SUDO[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; then
        log "apt-get install failed; refreshing the package lists once and retrying"
        "${SUDO[@]}" apt-get update
        "${SUDO[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
    fi
}

ensure_packages build-essential pkg-config xz-utils zlib1g-dev

# ------------------------------------------------------- archive address
# Print "URI<TAB>SIGNED_BY" for the machine's main Debian archive (not the
# security archive).  SIGNED_BY is a keyring path or empty.
find_archive() {
    local f
    for f in /etc/apt/sources.list.d/*.sources; do
        [[ -f "$f" ]] || continue
        awk '
            function flush() {
                if (uris != "" && enabled != "no" && types ~ /deb/ &&
                    suites !~ /-security|\/updates/ && uris !~ /security/) {
                    split(uris, u, /[ \t]+/)
                    print u[1] "\t" signed
                    found = 1
                    exit
                }
                uris = ""; suites = ""; types = ""; signed = ""; enabled = ""
            }
            /^[ \t]*#/ { next }
            /^[ \t]*$/ { flush(); next }
            /^[^ \t]/ {
                key = tolower($0); sub(/:.*/, "", key)
                val = $0; sub(/^[^:]*:[ \t]*/, "", val); sub(/[ \t]+$/, "", val)
                if (key == "uris") uris = val
                else if (key == "suites") suites = val
                else if (key == "types") types = val
                else if (key == "enabled") enabled = tolower(val)
                else if (key == "signed-by" && val ~ /^\//) signed = val
            }
            END { if (!found) flush() }
        ' "$f"
    done
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -f "$f" ]] || continue
        awk '
            { sub(/#.*/, "") }
            $1 != "deb" && $1 != "deb-src" { next }
            {
                signed = ""; i = 2
                if ($2 ~ /^\[/) {
                    opts = ""
                    for (; i <= NF; i++) { opts = opts " " $i; if ($i ~ /\]$/) { i++; break } }
                    if (match(opts, /signed-by=[^] ]+/))
                        signed = substr(opts, RSTART + 10, RLENGTH - 10)
                }
                uri = $i; suite = $(i + 1)
                if (suite ~ /-security|\/updates/ || uri ~ /security/) next
                print uri "\t" signed
                exit
            }
        ' "$f"
    done
}

if [[ -n "${QUORVEL_DEBIAN_ARCHIVE:-}" ]]; then
    ARCHIVE_URI="$QUORVEL_DEBIAN_ARCHIVE"
    ARCHIVE_KEY=""
else
    ARCHIVE_LINE="$(find_archive)"
    ARCHIVE_LINE="${ARCHIVE_LINE%%$'\n'*}"
    [[ -n "$ARCHIVE_LINE" ]] || die "no Debian archive found in /etc/apt/sources.list{,.d/} (set QUORVEL_DEBIAN_ARCHIVE)"
    ARCHIVE_URI="${ARCHIVE_LINE%%$'\t'*}"
    ARCHIVE_KEY="${ARCHIVE_LINE#*$'\t'}"
fi
ARCHIVE_URI="${ARCHIVE_URI%/}"
if [[ -z "$ARCHIVE_KEY" && -f /usr/share/keyrings/debian-archive-keyring.gpg ]]; then
    ARCHIVE_KEY=/usr/share/keyrings/debian-archive-keyring.gpg
fi

# ------------------------------------------------------------ fetch tarball
fetch_tarball() {
    local opts="" apt_opts showsrc full_version sha want_sha dl

    mkdir -p "$APTDIR/lists/partial" "$APTDIR/cache/archives/partial" "$SRCDIR"
    [[ -n "$ARCHIVE_KEY" ]] && opts="[signed-by=$ARCHIVE_KEY] "
    {
        echo "deb-src ${opts}${ARCHIVE_URI} experimental main"
        echo "deb-src ${opts}${ARCHIVE_URI} unstable main"
    } >"$APTDIR/sources.list"

    apt_opts=(
        -o "Dir::Etc::SourceList=$APTDIR/sources.list"
        -o "Dir::Etc::SourceParts=/dev/null"
        -o "Dir::State::Lists=$APTDIR/lists"
        -o "Dir::Cache=$APTDIR/cache"
        -o "Dir::Etc::Preferences=/dev/null"
        -o "Dir::Etc::PreferencesParts=/dev/null"
    )

    log "refreshing private source lists from $ARCHIVE_URI (experimental, unstable)"
    apt-get "${apt_opts[@]}" update

    showsrc="$(apt-cache "${apt_opts[@]}" showsrc ffmpeg)"
    # Newest Debian revision of the wanted upstream version.
    full_version="$(
        awk -v up="$VERSION" '
            /^Version:/ {
                v = $2; u = v
                sub(/^[0-9]+:/, "", u); sub(/-[^-]*$/, "", u)
                if (u == up) print v
            }' <<<"$showsrc" |
            sort -u | sort -V | tail -n 1
    )"
    if [[ -z "$full_version" ]]; then
        log "versions of ffmpeg source offered:"
        awk '/^Version:/ { print "    " $2 }' <<<"$showsrc" | sort -u >&2
        die "FFmpeg $VERSION is not offered by the archive's experimental/unstable suites"
    fi

    want_sha="$(
        awk -v ver="$full_version" -v name="$TARBALL_NAME" '
            /^Package:/ { inrec = 0; insha = 0 }
            /^Version:/ { inrec = ($2 == ver) }
            /^[^ ]/ && !/^Checksums-Sha256:/ { insha = 0 }
            /^Checksums-Sha256:/ { insha = inrec; next }
            insha && $3 == name { print $1; exit }' <<<"$showsrc"
    )"

    dl="$(mktemp -d "$SRCDIR/.download.XXXXXX")"
    # apt needs to write there as its sandbox user when run as root.
    chmod 0777 "$dl"
    log "downloading ffmpeg=$full_version (only the upstream tarball is needed)"
    # The .dsc/.debian.tar.xz may be missing from the pool while the orig
    # tarball is present, so judge by the file, not by apt's exit status.
    (cd "$dl" && apt-get "${apt_opts[@]}" source --download-only "ffmpeg=$full_version") || true
    [[ -f "$dl/$TARBALL_NAME" ]] || { rm -rf "$dl"; die "download of $TARBALL_NAME failed"; }

    if [[ -n "$want_sha" ]]; then
        sha="$(sha256sum "$dl/$TARBALL_NAME" | awk '{ print $1 }')"
        [[ "$sha" == "$want_sha" ]] || { rm -rf "$dl"; die "sha256 mismatch for $TARBALL_NAME"; }
        log "sha256 verified: $sha"
    else
        log "warning: no sha256 for $TARBALL_NAME in the source index; relying on apt's checks"
    fi
    mv -f "$dl/$TARBALL_NAME" "$TARBALL"
    rm -rf "$dl"
}

if [[ -f "$TARBALL" ]]; then
    log "using downloaded tarball $TARBALL"
else
    fetch_tarball
fi

# -------------------------------------------------------------------- build
log "unpacking $TARBALL_NAME"
rm -rf "$BUILDDIR"
mkdir -p "$BUILDDIR"
tar -xJf "$TARBALL" -C "$BUILDDIR" --strip-components=1

JOBS="${QUORVEL_FFMPEG_JOBS:-$(nproc 2>/dev/null || echo 2)}"
cd "$BUILDDIR"
log "configuring: ${CONFIGURE_FLAGS[*]}"
./configure "${CONFIGURE_FLAGS[@]}"
log "building with $JOBS jobs"
make -j"$JOBS"

# Install into a staging tree beside the prefix and swap it in at the end, so
# that other users of a cached prefix never see it half-installed, and no
# files of an earlier install are left behind.
STAGE="$CACHE/.stage-ffmpeg-$VERSION"
OLD="$CACHE/.old-ffmpeg-$VERSION"
rm -rf "$STAGE" "$OLD"
log "installing into $PREFIX (staged in $STAGE)"
make install DESTDIR="$STAGE"
[[ -f "$STAGE$PREFIX/lib/pkgconfig/libavformat.pc" ]] || die "install did not produce libavformat.pc"

# The stamp is written last: a prefix holding it is a complete install.
printf '%s\n' "$STAMP_TEXT" >"$STAGE$STAMP"
if [[ -e "$PREFIX" ]]; then
    mv "$PREFIX" "$OLD"
fi
mv "$STAGE$PREFIX" "$PREFIX"

cd "$CACHE"
rm -rf "$OLD" "$STAGE"
if [[ "${QUORVEL_FFMPEG_KEEP_BUILD:-0}" != 1 ]]; then
    rm -rf "$BUILDDIR"
fi

log "FFmpeg $VERSION installed in $PREFIX ($((SECONDS - START_TIME)) s)"
finish
