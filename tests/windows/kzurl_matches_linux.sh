#!/bin/bash
# The Windows kzurl prints exactly what the Linux kzurl prints: standard output,
# standard error and exit status, for every option set, over each input file.
#   kzurl_matches_linux.sh <wine-run> <kzurl.exe> <linux kzurl> <file>...
# Exits 77 (skipped) when the Linux kzurl or an input file is missing.
set -uo pipefail
wine_run="$1" windows="$2" linux="$3"
shift 3
if [ ! -x "$linux" ]; then
  echo "no Linux kzurl at $linux (build the release preset first): skipped"
  exit 77
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
status=0
for file in "$@"; do
  if [ ! -r "$file" ]; then
    echo "missing input $file: skipped"
    exit 77
  fi
  for options in "" "--print host" "--top" "--dedup"; do
    # shellcheck disable=SC2086  # the options are separate words
    (cd "$(dirname "$file")" && "$linux" $options "$(basename "$file")" >"$work/linux.out" 2>"$work/linux.err")
    linux_status=$?
    # shellcheck disable=SC2086
    (cd "$(dirname "$file")" && "$wine_run" "$windows" $options "$(basename "$file")" >"$work/windows.out" 2>"$work/windows.err")
    windows_status=$?
    lines="$(wc -l <"$work/linux.out")"
    if [ "$linux_status" != "$windows_status" ] || ! cmp -s "$work/linux.out" "$work/windows.out" ||
       ! cmp -s "$work/linux.err" "$work/windows.err"; then
      echo "DIFFERENT: kzurl $options $file (status $linux_status on Linux, $windows_status on Windows)"
      diff "$work/linux.out" "$work/windows.out" | head -n 10
      diff "$work/linux.err" "$work/windows.err" | head -n 10
      status=1
    else
      echo "same: kzurl $options $(basename "$file") ($lines lines, status $linux_status)"
    fi
  done
done
exit "$status"
