#!/usr/bin/env bash
# orvex demo / info / convert / append / data / axis: output and exit codes.
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 3 >/dev/null
check "demo exit" 0 $?
"$orvex" validate "$dir/d.oxp" >/dev/null
check "demo validates" 0 $?
json=$("$orvex" info "$dir/d.oxp" --json)
check "info exit" 0 $?
check "identification" '"ORX_PR06"' "$(echo "$json" | grep -m1 '"identification"' | sed 's/.*: //; s/,$//')"
check "map sizes" "8 6 64" "$(echo "$json" | python3 -c 'import json,sys; o=[x for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Raman Map")][0]; print(o["sizeX"], o["sizeY"], o["sizeGraph"])')"
check "nothing skipped" "0" "$(echo "$json" | python3 -c 'import json,sys; print(len(json.load(sys.stdin)["skipped"]))')"
map=$(echo "$json" | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Raman Map")][0])')

# Raw values: 8*6 spectra of 64 floats.
"$orvex" data "$dir/d.oxp" "$map" -o "$dir/map.f32"
check "data exit" 0 $?
check "data size" $((8 * 6 * 64 * 4)) "$(stat -c %s "$dir/map.f32")"
check "data to stdout" $((8 * 6 * 64 * 4)) "$("$orvex" data "$dir/d.oxp" "$map" -o - | wc -c)"
"$orvex" data "$dir/d.oxp" 9999 -o - >/dev/null 2>&1
check "data of a missing object" 1 $?

# Axis in rel. 1/cm, rising.
"$orvex" axis "$dir/d.oxp" "$map" > "$dir/axis.txt"
check "axis exit" 0 $?
check "axis length" 64 "$(wc -l < "$dir/axis.txt")"
check "axis rises" "yes" "$(python3 -c 'import sys; v=[float(l) for l in open(sys.argv[1])]; print("yes" if all(b>a for a,b in zip(v,v[1:])) and 50<v[0]<200 else "no")' "$dir/axis.txt")"

# Convert keeps the values; the compatible form has the old identification.
"$orvex" convert "$dir/d.oxp" "$dir/c.oxp" >/dev/null
check "convert exit" 0 $?
cmp -s "$dir/map.f32" <("$orvex" data "$dir/c.oxp" "$map" -o -)
check "convert keeps values" 0 $?
"$orvex" convert "$dir/d.oxp" "$dir/old.oxp" --compatible
check "compatible identification" "ORX_PRCT" "$(head -c 8 "$dir/old.oxp")"
"$orvex" convert "$dir/d.oxp" "$dir/all.oxd" >/dev/null
check "data file identification" "ORX_DA06" "$(head -c 8 "$dir/all.oxd")"
"$orvex" convert "$dir/d.oxp" "$dir/x.txt" >/dev/null 2>&1
check "convert to an unknown extension" 2 $?

# Append twice: twice the objects, IDs unique.
"$orvex" append "$dir/d.oxp" "$dir/d.oxp" "$dir/all.oxd" -o "$dir/a.oxp" >/dev/null
check "append exit" 0 $?
check "append counts and unique IDs" "yes" "$("$orvex" info "$dir/a.oxp" --json | python3 -c 'import json,sys; o=json.load(sys.stdin)["objects"]; ids=[x["id"] for x in o]; print("yes" if len(ids)==len(set(ids)) and len([x for x in o if x["caption"].startswith("Raman Map")])==3 else "no %d" % len(ids))')"

# Pictures: an image out as PNG, in again as a bitmap, out again unchanged; BMP and TIFF too.
topo=$(echo "$json" | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Topography")][0])')
"$orvex" export-bitmap "$dir/d.oxp" "$topo" -o "$dir/topo.png"
check "export-bitmap exit" 0 $?
"$orvex" import-bitmap "$dir/topo.png" --into "$dir/d.oxp" -o "$dir/withbitmap.oxp" >/dev/null
check "import-bitmap exit" 0 $?
bitmap=$("$orvex" info "$dir/withbitmap.oxp" --json | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["class"]=="TDBitmap"][0])')
"$orvex" export-bitmap "$dir/withbitmap.oxp" "$bitmap" -o "$dir/again.png"
cmp -s "$dir/topo.png" "$dir/again.png"
check "picture round trip" 0 $?
"$orvex" export-bitmap "$dir/withbitmap.oxp" "$bitmap" -o "$dir/again.bmp" && "$orvex" import-bitmap "$dir/again.bmp" -o "$dir/frombmp.oxp" >/dev/null && "$orvex" export-bitmap "$dir/frombmp.oxp" 1 -o "$dir/again.tif"
check "bmp and tiff" 0 $?
"$orvex" export-bitmap "$dir/d.oxp" "$topo" -o "$dir/x.gif" 2>/dev/null
check "unknown picture format" 2 $?
"$orvex" import-bitmap "$dir/none.png" -o "$dir/none.oxp" 2>/dev/null
check "missing picture" 2 $?

# Errors in the system's words.
err=$("$orvex" info "$dir/missing.oxp" 2>&1 >/dev/null)
check "unreadable exit" 2 $?
check "unreadable message" "cannot open '$dir/missing.oxp': no such file" "$err"
"$orvex" example-tags -o "$dir/t.oxt" >/dev/null
err=$("$orvex" info "$dir/t.oxt" 2>&1 >/dev/null)
check "wrong identification exit" 1 $?
check "wrong identification message" "'$dir/t.oxt' is not a project or data file (identification \"ORX_EXMP\")" "$err"
head -c 3000 "$dir/d.oxp" > "$dir/cut.oxp"
"$orvex" info "$dir/cut.oxp" >/dev/null 2>&1
rc=$?
[ $rc -le 1 ] || { echo "FAIL: truncated project: exit $rc"; fails=$((fails + 1)); }

[ $fails -eq 0 ] && echo "cli_project: all checks passed"
exit $fails
