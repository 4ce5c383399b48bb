#!/bin/sh
# Inventories the installed software of the Wine prefix with iac.exe and compares it with
# the expected instances. The computer name is the host's, so it is left out of the compare.
# Usage: check-software.sh IAC_EXE EXPECTED_JSONL
set -eu
out=$(wine "$1" collect --live --class KestovaSG_InstalledApplication \
        --class KestovaSG_InstalledFix --format jsonl | tr -d '\r' |
      sed -e 's/"SystemID":"[^"]*"/"SystemID":"*"/' -e 's/SystemID=\\"[^"\\]*\\"/SystemID=*/')
printf '%s\n' "$out" | diff -u "$2" -
