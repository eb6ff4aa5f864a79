#!/usr/bin/env bash
# The filter viewer on the command line: shown on a graph, its settings, its refusals.
source "$(dirname "$0")/clitest.sh"

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 3 >/dev/null
map=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
out=$("$orvex" show "$dir/d.oxp" "$map" --viewer TVFilterForm --set SpatialAverageSize=3 -o "$dir/f.oxp" --json)
check "show exit" 0 $?
index=$(echo "$out" | py 'print(d["index"])')
check "filter viewer on the map" "TVFilterForm $map" "$(echo "$out" | py 'print(d["class"], d["ids"][0])')"
check "setting stored" "3" \
  "$("$orvex" viewer "$dir/f.oxp" "$index" --json | py 'print([s["value"] for s in d["settings"] if s["name"]=="SpatialAverageSize"][0])')"

# Refusals: exit 1, nothing written.
err=$("$orvex" viewer "$dir/f.oxp" "$index" --extract -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "extract without filters exit" 1 $?
contains "extract without filters says why" "the filter viewer holds no filters" "$err"
"$orvex" viewer "$dir/f.oxp" "$index" --set SpatialAverageSize=10 -o "$dir/bad.oxp" >/dev/null 2>&1
check "spatial size beyond 9 exit" 1 $?
echo "not a quick filter file" >"$dir/wrong.oxf"
"$orvex" viewer "$dir/f.oxp" "$index" --set "QuickFilterFile=$dir/wrong.oxf" -o "$dir/bad.oxp" >/dev/null 2>&1
check "wrong quick filter file exit" 1 $?
err=$("$orvex" viewer "$dir/f.oxp" "$index" --set "QuickFilterFile=$dir/wrong.oxf" -o "$dir/bad.oxp" 2>&1 >/dev/null)
contains "wrong quick filter file named" "Load failed" "$err"
check "nothing written" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"
"$orvex" show "$dir/d.oxp" "$map,$map" --viewer TVFilterForm -o "$dir/bad.oxp" >/dev/null 2>&1
check "two graphs refused" 1 $?

exit $((fails > 0))
