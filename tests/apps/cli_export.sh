#!/usr/bin/env bash
# orvex formats / export: listings, files and their names, stored settings, and bad input (exit codes, one
# line per error, nothing left behind, an older file unchanged).
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}
py() { python3 -c "import json,sys; d=json.load(sys.stdin); $1"; }
size() { stat -c %s "$1"; }
int32at() { python3 -c "import struct,sys; print(struct.unpack_from('<i', open(sys.argv[1],'rb').read(), int(sys.argv[2]))[0])" "$1" "$2"; }

"$orvex" demo -o "$dir/d.oxp" --size 6x4x32 >/dev/null || { echo "FAIL: demo"; exit 1; }
# IDs of the demo: 5 map, 6 a single spectrum, 15 the topography image.

# --- formats -------------------------------------------------------------------------------------------
check "formats in list order" "Image ASCII|Graph ASCII|Matlab" \
  "$("$orvex" formats --json | py 'print("|".join(f["name"] for f in d))')"
check "formats: extension and classes" ".mat TDGraph" \
  "$("$orvex" formats --json | py 'f=d[2]; print(f["extension"], " ".join(f["classes"]))')"
check "formats: a parameter with default, value and choices" \
  "MatlabExportTypeIndex list DSO 6.0 DSO 6.0 ['DSO 6.0', 'Matlab Structure'] None None" \
  "$("$orvex" formats --json | py 'p=d[2]["parameters"][0]; print(p["name"], p["kind"], p["default"], p["value"], p["choices"], p["min"], p["unit"])')"
check "formats: the ASCII switch" "Header bool True True" \
  "$("$orvex" formats --json | py 'p=d[1]["parameters"][1]; print(p["name"], p["kind"], p["default"], p["value"])')"
check "formats text names the filters" "3" "$("$orvex" formats | grep -c -E '^(Image ASCII|Graph ASCII|Matlab)  \.')"

# --- one object to a file, to a folder ----------------------------------------------------------------
out=$("$orvex" export "$dir/d.oxp" 5 --format MATLAB -o "$dir/map.mat")
check "export exit" 0 $?
check "export prints path and bytes" "$dir/map.mat  $(size "$dir/map.mat")" "$out"
check "patched size = file size - 136" "$(($(size "$dir/map.mat") - 136))" "$(int32at "$dir/map.mat" 132)"
check "DSO by default (object class)" "3" "$(int32at "$dir/map.mat" 144)"
mkdir "$dir/into"
"$orvex" export "$dir/d.oxp" 15 --format "image ascii" -o "$dir/into" >/dev/null
check "an existing folder takes a file named after the caption" "Topography (demo).txt" "$(ls "$dir/into")"

# --- several objects into a folder, duplicates renamed, JSON ------------------------------------------
json=$("$orvex" export "$dir/d.oxp" 5,6,5 --format matlab -o "$dir/many" --json)
check "several: exit" 0 $?
# (":" is no character of a file name: it becomes "_")
check "several: files with IDs" "5 Raman Map (demo).mat|6 True Component 1_ Silicon (demo truth).mat|5 Raman Map (demo)_2.mat" \
  "$(echo "$json" | py 'import os; print("|".join(str(f["id"])+" "+os.path.basename(f["file"]) for f in d["files"]))')"
check "several: bytes as on disk" "True" \
  "$(echo "$json" | py 'import os; print(all(os.path.getsize(f["file"])==f["bytes"] for f in d["files"]))')"
check "several: info and no errors" "['Duplicate File Names were renamed.'] [] False" \
  "$(echo "$json" | py 'print(d["infos"], d["errors"], d["cancelled"])')"

# --- settings: --set, stored only with --save-settings --------------------------------------------------
"$orvex" export "$dir/d.oxp" 6 --format matlab -o "$dir/s.mat" --set MatlabExportTypeIndex="Matlab Structure" >/dev/null
check "--set applies" "2" "$(int32at "$dir/s.mat" 144)"
check "settings untouched without --save-settings" "DSO 6.0" \
  "$("$orvex" formats --json | py 'print(d[2]["parameters"][0]["value"])')"
"$orvex" export "$dir/d.oxp" 6 --format matlab -o "$dir/s.mat" --set MatlabExportTypeIndex=1 --save-settings >/dev/null
check "--save-settings stores (list value by index)" "Matlab Structure" \
  "$("$orvex" formats --json | py 'print(d[2]["parameters"][0]["value"])')"
"$orvex" export "$dir/d.oxp" 6 --format matlab -o "$dir/t.mat" >/dev/null
check "stored settings apply first" "2" "$(int32at "$dir/t.mat" 144)"
"$orvex" export "$dir/d.oxp" 6 --format matlab -o "$dir/t.mat" --set "MatlabExportTypeIndex=DSO 6.0" >/dev/null
check "then each --set" "3" "$(int32at "$dir/t.mat" 144)"

# --- bad input ----------------------------------------------------------------------------------------
cp "$dir/map.mat" "$dir/old.mat"
err=$("$orvex" export "$dir/d.oxp" 5 --format csv -o "$dir/x.csv" 2>&1 >/dev/null)
check "unknown format exit" 2 $?
check "unknown format names the formats" "1" "$(echo "$err" | grep -c 'unknown format "csv" (formats: Image ASCII, Graph ASCII, Matlab)')"

err=$("$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/map.mat" --set Colour=red 2>&1 >/dev/null)
check "unknown parameter exit" 1 $?
check "unknown parameter named" "1" "$(echo "$err" | grep -c 'unknown parameter "Colour" of Matlab')"
err=$("$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/map.mat" --set MatlabExportTypeIndex=CSV 2>&1 >/dev/null)
check "unknown value exit" 1 $?
check "unknown value: one line" "1" "$(echo "$err" | wc -l)"

err=$("$orvex" export "$dir/d.oxp" 5,999 --format matlab -o "$dir/nope" 2>&1 >/dev/null)
check "unknown ID exit" 1 $?
check "unknown ID named" "ID 999: no such data object" "$err"
err=$("$orvex" export "$dir/d.oxp" 15,16 --format matlab -o "$dir/nope" 2>&1 >/dev/null)
check "refused objects exit" 1 $?
check "refused objects: one line each" "ID 15 (Topography (demo)): not a graph (TDImage)|ID 16 (About this data set (demo)): not a graph (TDText)" \
  "$(echo "$err" | paste -sd '|')"
check "refusals leave no folder" "no" "$([ -e "$dir/nope" ] && echo yes || echo no)"

err=$("$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/missing/x.mat" 2>&1 >/dev/null)
check "unwritable target exit" 1 $?
check "unwritable target: one line" "1" "$(echo "$err" | grep -c '^Could not create file')"

err=$("$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/map.mat" --max-size 2000 2>&1 >/dev/null)
check "maximum size exit" 1 $?
check "maximum size message" "Could not write data (maximum export size exceeded)" "$err"
check "maximum size: older file unchanged" "same" "$(cmp -s "$dir/map.mat" "$dir/old.mat" && echo same)"
full=$(size "$dir/map.mat")
# The unique identifier inside is random, yet of one length: every export of an object has the same size.
sizes=$(for i in 1 2 3 4 5 6 7 8; do "$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/again.mat" --set "MatlabExportTypeIndex=DSO 6.0" >/dev/null; size "$dir/again.mat"; done | sort -u)
check "every export of one object has one size" "$full" "$sizes"
dso="MatlabExportTypeIndex=DSO 6.0"
"$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/limit.mat" --set "$dso" --max-size "$full" >/dev/null 2>&1
check "a file of exactly the maximum is refused" "1 no" "$? $([ -e "$dir/limit.mat" ] && echo yes || echo no)"
"$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/limit.mat" --set "$dso" --max-size "$((full + 1))" >/dev/null 2>&1
check "one byte more is enough" "0 $full" "$? $(size "$dir/limit.mat")"

# A file size limit makes the write short: the disk is full as far as the program can tell.
err=$( (trap '' XFSZ; ulimit -f 4; "$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/map.mat") 2>&1 >/dev/null)
check "short write exit" 1 $?
check "short write message" "Could not write data (not enough disk space available)" "$err"
check "short write: older file unchanged" "same" "$(cmp -s "$dir/map.mat" "$dir/old.mat" && echo same)"
check "nothing left behind" "" "$(ls "$dir" | grep -E '\.temp$')"

# Ctrl-C during a long export: "Export canceled.", exit 1, neither the file nor a temporary remains. The text
# export of 32 million values takes seconds; the signal comes as soon as its temporary file is there.
"$orvex" demo -o "$dir/big.oxp" --size 256x128x1024 >/dev/null
"$orvex" export "$dir/big.oxp" 5 --format "graph ascii" -o "$dir/big.txt" >/dev/null 2>"$dir/cancel.err" &
pid=$!
for _ in $(seq 600); do
  ls "$dir" | grep -q -E '^big\.txt\..*\.temp$' && break
  sleep 0.05
done
kill -INT "$pid"
wait "$pid"
check "Ctrl-C exit" 1 $?
check "Ctrl-C message" "Export canceled." "$(tail -n 1 "$dir/cancel.err")"
check "Ctrl-C leaves nothing" "" "$(ls "$dir" | grep -E '^big\.txt')"

if [ "$fails" -ne 0 ]; then echo "$fails check(s) failed"; exit 1; fi
echo "cli_export: all checks passed"
