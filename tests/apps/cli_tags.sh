#!/usr/bin/env bash
# orvex tags / validate / example-tags: output and exit codes.
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache" XDG_RUNTIME_DIR="$dir/run"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}

"$orvex" example-tags -o "$dir/a.oxt" >/dev/null
check "example-tags exit" 0 $?
"$orvex" validate "$dir/a.oxt" >/dev/null
check "validate valid" 0 $?
out=$("$orvex" tags "$dir/a.oxt")
check "tags exit" 0 $?
check "root line" "Example" "$(echo "$out" | head -1)"
check "string quoted" '  Caption = "Example of a tag file (5 µm)"' "$(echo "$out" | grep Caption)"
check "array shortened" '    Spectrum = [0, 0.5, 1, 1.5, 2, 2.5, 3, 3.5, ...] (1024)' "$(echo "$out" | grep Spectrum)"
check "depth 0" "Example" "$("$orvex" tags --depth 0 "$dir/a.oxt")"
check "global option after command" 0 "$("$orvex" tags "$dir/a.oxt" --yes >/dev/null; echo $?)"
json=$("$orvex" --json tags "$dir/a.oxt" 2>/dev/null; echo "rc=$?")
check "unknown global option is a usage error" "rc=2" "$(echo "$json" | tail -1)"
json=$("$orvex" tags --json "$dir/a.oxt")
check "json identification" '"ORX_EXMP"' "$(echo "$json" | grep -m1 identification | sed 's/.*: //; s/,$//')"
# Truncated file: invalid (1) with offset; unreadable: 2; usage error: 2.
head -c 100 "$dir/a.oxt" > "$dir/t.oxt"
err=$("$orvex" validate "$dir/t.oxt" 2>&1 >/dev/null)
check "validate truncated" 1 $?
case "$err" in *"at offset"*) ;; *) echo "FAIL: no offset in [$err]"; fails=$((fails + 1)) ;; esac
"$orvex" tags "$dir/t.oxt" >/dev/null 2>&1
check "tags truncated" 1 $?
"$orvex" validate "$dir/missing.oxt" >/dev/null 2>&1
check "validate unreadable" 2 $?
"$orvex" tags >/dev/null 2>&1
check "missing argument" 2 $?
"$orvex" --version | grep -q '^orvex '
check "version" 0 $?
[ $fails -eq 0 ] && echo "cli_tags: all checks passed"
exit $fails
