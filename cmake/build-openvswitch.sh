#!/usr/bin/env bash
# Builds the static Open vSwitch library once and keeps it outside the build folder: Debian ships its source
# (openvswitch-source) but no -dev package.  Prints the folder that holds include/ and libopenvswitch.a.
#
# The folder's name carries a hash of the source archive and of this script, so that a new package or a changed
# recipe is built anew and an old build is never mixed with it.
set -euo pipefail
archive=/usr/src/openvswitch/openvswitch.tar.gz
[ -r "$archive" ] || { echo "build-openvswitch: $archive is missing (package openvswitch-source)" >&2; exit 1; }
cache=${ZEM_CACHE:-/var/cache/zem-tarvik}
key=$(cat "$archive" "$0" | sha256sum | cut -c1-12)
target=$cache/openvswitch-$key
if [ ! -f "$target/done" ]; then
  mkdir -p "$cache"
  exec 9>"$cache/openvswitch.lock"
  flock 9
  if [ ! -f "$target/done" ]; then
    work=$(mktemp -d "$cache/openvswitch-build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    tar -xzf "$archive" -C "$work" --strip-components=1
    log=$cache/openvswitch-build.log
    echo "build-openvswitch: building the library once (about a minute and a half), log in $log" >&2
    if ! (
      cd "$work"
      ./configure --disable-ssl --disable-libcapng --disable-shared PYTHON3=/usr/bin/python3 \
        CFLAGS="-O2 -g1 -fPIC -fstack-protector-strong -fstack-clash-protection -D_FORTIFY_SOURCE=2 -ffile-prefix-map=$work=."
      printf 'include Makefile\nbuilt-sources: $(BUILT_SOURCES)\n' >built-sources.mk
      make -f built-sources.mk -j"$(nproc)" built-sources
      make -j"$(nproc)" lib/libopenvswitch.la
    ) >"$log" 2>&1; then
      tail -n 20 "$log" >&2
      exit 1
    fi
    rm -rf "$target"
    mkdir -p "$target/include/lib"
    cp "$work/lib/.libs/libopenvswitch.a" "$target/"
    cp -r "$work/include/openvswitch" "$target/include/"
    cp "$work/config.h" "$target/include/"
    cp "$work"/lib/*.h "$target/include/lib/"
    touch "$target/done"
  fi
fi
echo "$target"
