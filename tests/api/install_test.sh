#!/bin/bash
# Installs the build where it was configured to go (inside the sandbox, so the machine never sees
# it) and builds the C program against what is there, as a stranger would: through pkg-config, once
# with the shared library and once with only the static one.
#
#   scripts/sandbox install_test.sh BUILD_FOLDER PREFIX LIBDIR INCLUDEDIR PROGRAM C_COMPILER [FLAG…]
set -euo pipefail
build=$1 prefix=$2 libdir=$3 includedir=$4 program=$5 cc=$6
shift 6
flags=("$@")  # of instrumented builds
fail() { echo "install: $*" >&2; exit 1; }
[ -n "${KAVRIN_SANDBOX:-}" ] || fail "run me through scripts/sandbox"
work=$(mktemp -d)
source=$(cd "$(dirname "$0")/../.." && pwd)

manifest_before=$(cat "$build/install_manifest.txt" 2> /dev/null || true)
cmake --install "$build" > "$work/log" || { cat "$work/log" >&2; fail "cmake --install failed"; }
# The build folder is the real one: what the installation notes there is put back.
if [ -n "$manifest_before" ]; then echo "$manifest_before" > "$build/install_manifest.txt"
else rm -f "$build/install_manifest.txt"; fi

# What has to be there.
for header in "$source"/include/*.h; do
  cmp "$header" "$includedir/kavrin/$(basename "$header")" || fail "$(basename "$header") is not installed"
done
for header in "$build"/generated/*.h; do
  cmp "$header" "$includedir/kavrin/$(basename "$header")" || fail "$(basename "$header") is not installed"
done
[ "$(ls "$includedir/kavrin" | wc -l)" = "$(ls "$source"/include/*.h "$build"/generated/*.h | wc -l)" ] ||
  fail "more than the public headers is installed"
[ -f "$libdir/libkavrin.a" ] || fail "no libkavrin.a"
[ -L "$libdir/libkavrin.so" ] && [ -L "$libdir/libkavrin.so.0" ] || fail "the links to the library are missing"
readelf -d "$libdir/libkavrin.so.0" | grep -q 'SONAME.*\[libkavrin\.so\.0\]' || fail "wrong soname"
[ -f "$libdir/pkgconfig/kavrin.pc" ] || fail "no kavrin.pc"

# What pkg-config says.
export PKG_CONFIG_PATH=$libdir/pkgconfig
pkg-config --validate kavrin || fail "kavrin.pc is not valid"
[ "$(pkg-config --variable=prefix kavrin)" = "$prefix" ] || fail "kavrin.pc names another prefix"
[ "$(pkg-config --variable=libdir kavrin)" = "$libdir" ] || fail "kavrin.pc names another libdir"
[ -n "$(pkg-config --modversion kavrin)" ] || fail "kavrin.pc has no version"
case " $(pkg-config --cflags-only-I kavrin) " in *" -I$includedir/kavrin "*) ;; *) fail "kavrin.pc does not name the headers" ;; esac
case " $(pkg-config --libs kavrin) " in *" -lyajl "*) fail "the shared library's user is told to link yajl" ;; esac

# -I as pkg-config gives it, so that system folders are not stripped and the flags are really used.
read -ra cflags <<< "$(PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 pkg-config --cflags kavrin)"
read -ra libs <<< "$(PKG_CONFIG_ALLOW_SYSTEM_LIBS=1 pkg-config --libs kavrin)"
read -ra static_libs <<< "$(PKG_CONFIG_ALLOW_SYSTEM_LIBS=1 pkg-config --static --libs kavrin)"
strict=(-std=c11 -Wall -Wextra -Wpedantic -Werror)

"$cc" "${strict[@]}" "${flags[@]}" "${cflags[@]}" -o "$work/shared" "$program" "${libs[@]}"
readelf -d "$work/shared" | grep -q 'NEEDED.*\[libkavrin\.so\.0\]' || fail "the program is not bound to libkavrin.so.0"
LD_LIBRARY_PATH=$libdir "$work/shared" > "$work/out" || fail "the program fails with the shared library"
grep -qx 'program: done' "$work/out" || fail "the program did not finish"

# Only the static library is left: the same command line with --static has to do.
rm "$libdir"/libkavrin.so*
"$cc" "${strict[@]}" "${flags[@]}" "${cflags[@]}" -o "$work/static" "$program" "${static_libs[@]}"
! readelf -d "$work/static" | grep -q 'libkavrin' || fail "the program still needs the shared library"
"$work/static" > "$work/out" || fail "the program fails with the static library"
grep -qx 'program: done' "$work/out" || fail "the program did not finish"
echo "install: headers, kavrin.pc, shared and static use are right"
