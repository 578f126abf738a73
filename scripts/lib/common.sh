# Shared settings and helpers of the project scripts. Sourced, not run.

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build_dir=${TESSEL_BUILD_DIR:-$repo_root/build}
# Third-party sources, their cross-built results and the template Wine prefix. Git
# ignores it; deleting it only costs the time to rebuild.
cache_dir=${TESSEL_CACHE_DIR:-$repo_root/.cache}
deps_prefix=$cache_dir/deps
wine_template=$cache_dir/wine-template
wine64=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver64
[[ -x $wineserver ]] || wineserver=/usr/lib/wine/wineserver

die() { echo "error: $*" >&2; exit 1; }
note() { echo "== $*" >&2; }

# Unix path -> the same file seen from Wine through its Z: drive.
winepath_of() { local p; p=$(readlink -f "$1"); echo "Z:${p//\//\\}"; }
