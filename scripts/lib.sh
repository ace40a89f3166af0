# Shared by the scripts beside it, which source it. It moves to the top of the project.
# shellcheck shell=bash

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

libraryFolders=(platform mpls decap pw mcast inspect)
sourceFolders=("${libraryFolders[@]}" driver sim agent tests fuzz bench)
jobs=$(nproc)

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

# sourceFiles FOLDER... -- SUFFIX...: the files of those kinds, each ended by a zero byte.
sourceFiles() {
   local folders=() suffixes=() folder suffix
   while [ "$1" != -- ]; do
      folder=$1; shift
      if [ -d "$folder" ]; then folders+=("$folder"); fi
   done
   shift
   for suffix in "$@"; do suffixes+=(-o -name "*.$suffix"); done
   if [ ${#folders[@]} -gt 0 ]; then
      find "${folders[@]}" -type f \( "${suffixes[@]:1}" \) -print0 | sort -z
   fi
}

# buildPreset PRESET [TARGET...]: configures and builds in build/PRESET.
buildPreset() {
   local preset=$1; shift
   cmake --preset "$preset" && cmake --build --preset "$preset" -j "$jobs" ${1+--target "$@"}
}
