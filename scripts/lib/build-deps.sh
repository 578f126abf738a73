#!/bin/bash
# Fetches the Debian source packages of lz4 and freetype and cross-builds static
# libraries from them into $deps_prefix. Runs once; later calls find the stamp and return.
# $deps_prefix/provenance says which source package each installed file came from, so
# that the third-party notices can name it (tools/notices).
set -euo pipefail
source "$(dirname "$0")/common.sh"

stamp=$deps_prefix/.stamp
recipe_version=1
provenance=$deps_prefix/provenance
src_root=$cache_dir/sources

# provenance lines: <path below the prefix, a folder ending in "/"> TAB <unpacked source folder>
write_provenance() {
  local lz4_dir ft_dir
  lz4_dir=$(fetch_source lz4)
  ft_dir=$(fetch_source freetype)
  printf '%s\t%s\n' lib/liblz4.a "$lz4_dir" include/lz4.h "$lz4_dir" \
    lib/libfreetype.a "$ft_dir" include/freetype2/ "$ft_dir" > "$provenance.$$"
  mv "$provenance.$$" "$provenance"
}

enable_source_lists() {
  if grep -rqsE '^(Types:.*deb-src|deb-src )' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    return
  fi
  [[ $(id -u) == 0 ]] || die "Debian source lists are not enabled; run this script as root"
  note "enabling Debian source lists"
  local src=/etc/apt/sources.list.d/debian.sources
  [[ -f $src ]] || die "$src not found: cannot derive deb-src entries"
  sed 's/^Types: deb$/Types: deb-src/' "$src" > /etc/apt/sources.list.d/debian-src.sources
  apt-get update -qq || die "apt-get update failed after enabling source lists"
}

fetch_source() {   # fetch_source <package> -> prints the unpacked folder
  local pkg=$1 dir
  dir=$(find "$src_root" -maxdepth 1 -type d -name "$pkg-*" 2>/dev/null | sort | tail -n1)
  if [[ -z $dir ]]; then
    enable_source_lists
    mkdir -p "$src_root"
    (cd "$src_root" && apt-get source -qq "$pkg" >/dev/null 2>&1) \
      || die "apt-get source $pkg failed"
    dir=$(find "$src_root" -maxdepth 1 -type d -name "$pkg-*" | sort | tail -n1)
  fi
  [[ -n $dir ]] || die "source of $pkg not found after apt-get source"
  echo "$dir"
}

if [[ -f $stamp && $(cat "$stamp") == "$recipe_version" ]]; then
  # A prefix built before the provenance was recorded gets it from the kept sources.
  [[ -f $provenance ]] || write_provenance
  exit 0
fi

triple=x86_64-w64-mingw32
cc=$triple-gcc-posix
ar=$triple-gcc-ar-posix

note "cross-building lz4 and freetype (once)"
rm -rf "$deps_prefix"
mkdir -p "$deps_prefix/include" "$deps_prefix/lib"

# lz4: only the block format is needed, which is the single file lib/lz4.c.
lz4_dir=$(fetch_source lz4)
obj=$(mktemp -d)
$cc -O2 -c "$lz4_dir/lib/lz4.c" -o "$obj/lz4.o"
$ar rcs "$deps_prefix/lib/liblz4.a" "$obj/lz4.o"
cp "$lz4_dir/lib/lz4.h" "$deps_prefix/include/"
rm -rf "$obj"

# freetype: outline rasterizer and stroker only; every optional dependency off.
ft_dir=$(fetch_source freetype)
ft_build=$cache_dir/freetype-build
rm -rf "$ft_build"
cmake -S "$ft_dir" -B "$ft_build" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$repo_root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_INSTALL_PREFIX="$deps_prefix" -DBUILD_SHARED_LIBS=OFF \
  -DFT_DISABLE_ZLIB=ON -DFT_DISABLE_BZIP2=ON -DFT_DISABLE_PNG=ON \
  -DFT_DISABLE_HARFBUZZ=ON -DFT_DISABLE_BROTLI=ON >"$ft_build.log" 2>&1 \
  || die "configuring freetype failed (see $ft_build.log)"
cmake --build "$ft_build" -j2 >>"$ft_build.log" 2>&1 || die "building freetype failed (see $ft_build.log)"
cmake --install "$ft_build" >>"$ft_build.log" 2>&1 || die "installing freetype failed (see $ft_build.log)"
rm -rf "$ft_build"

write_provenance
echo "$recipe_version" > "$stamp"
