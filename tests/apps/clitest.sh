# Shared set-up of the command-line test scripts, sourced with the orvex program as the first argument: a
# temporary folder that goes at the end, private user folders, and the checks that count failures.
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}
contains() { # description, needle, haystack
  case "$3" in *"$2"*) ;; *) echo "FAIL: $1: [$2] not in [$3]"; fails=$((fails + 1)) ;; esac
}
py() { python3 -c "import json,sys; d=json.load(sys.stdin); $1"; }
# The interpreter with numpy (a python3 earlier on PATH may lack Debian's packages).
numpy=/usr/bin/python3
$numpy -c "import numpy" 2>/dev/null || numpy=python3
