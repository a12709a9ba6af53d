#!/usr/bin/env bash
# Compares what the example prints for a playlist, listed and rewritten, with what is expected.
#
#   playlist_links.sh PROGRAM FOLDER FILE EXPECTED
set -uo pipefail
cd "$2" || exit 1
for options in "" "--prefix http://cache.example/"; do
  echo "== playlist_links${options:+ $options} $3"
  # shellcheck disable=SC2086
  "$1" $options "$3" 2>&1
  echo "== exit $?"
done | diff -a "$4" -
