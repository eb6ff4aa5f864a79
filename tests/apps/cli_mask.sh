#!/usr/bin/env bash
# orvex mask: a mask graph from ranges in the axis's unit or in points, its values, its output, bad input.
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
# The values of a one-spectrum graph as the indices of its ones, e.g. "10-20" or "0-3,40-63".
ones() {
  "$orvex" data "$1" "$2" -o - | python3 -c "
import struct,sys
b=sys.stdin.buffer.read(); v=struct.unpack('<%df' % (len(b)//4), b)
assert all(x in (0.0, 1.0) for x in v), v
runs=[]; i=0
while i < len(v):
    if v[i] == 1.0:
        j=i
        while j+1 < len(v) and v[j+1] == 1.0: j+=1
        runs.append('%d-%d' % (i, j)); i=j+1
    else: i+=1
print(','.join(runs) if runs else 'none', len(v))"
}

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 3 >/dev/null
check "demo exit" 0 $?
graph=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
next=$("$orvex" info "$dir/d.oxp" --json | py 'print(d["nextDataID"])')
# Bounds halfway between axis points 9|10 and 20|21, in the unit the axis shows.
axis=$("$orvex" axis "$dir/d.oxp" "$graph")
lo=$(echo "$axis" | python3 -c "import sys; v=[float(x) for x in sys.stdin]; print((v[9]+v[10])/2)")
hi=$(echo "$axis" | python3 -c "import sys; v=[float(x) for x in sys.stdin]; print((v[20]+v[21])/2)")

out=$("$orvex" mask "$dir/d.oxp" "$graph" --ranges "$lo:$hi" -o "$dir/m.oxp")
check "mask exit" 0 $?
check "mask prints the new object" "$next  TDGraph  \"Mask\"" "$out"
check "mask values: the axis range" "10-20 64" "$(ones "$dir/m.oxp" "$next")"
check "mask graph tagged and shaped" "1 1 64" \
  "$("$orvex" info "$dir/m.oxp" --json | py "o=[o for o in d['objects'] if o['id']==$next][0]; print(o['sizeX'], o['sizeY'], o['sizeGraph'])")"

check "mask category saved with the graph" "DataCategories Mask" \
  "$("$orvex" tags "$dir/m.oxp" | grep -A1 'DataCategories$' | tail -2 | tr -s ' \n' ' ' | sed 's/^ //;s/ $//')"

# Points, union, inversion, a name, JSON.
out=$("$orvex" mask "$dir/d.oxp" "$graph" --ranges "0:3 px, 60:70 px,5:5px" --invert --name "Fit Range" \
  -o "$dir/p.oxp" --json)
check "json exit" 0 $?
check "json output" "[{'id': $next, 'class': 'TDGraph', 'caption': 'Fit Range'}]" "$(echo "$out" | py 'print(d)')"
check "inverted point ranges" "4-4,6-59 64" "$(ones "$dir/p.oxp" "$next")"
"$orvex" mask "$dir/d.oxp" "$graph" --ranges all -o "$dir/all.oxp" >/dev/null
check "all" "0-63 64" "$(ones "$dir/all.oxp" "$next")"
"$orvex" mask "$dir/d.oxp" "$graph" --ranges none --invert -o "$dir/none.oxp" >/dev/null
check "none inverted" "0-63 64" "$(ones "$dir/none.oxp" "$next")"

# A mask graph read back as a mask; OUT may be FILE.
cp "$dir/m.oxp" "$dir/same.oxp"
"$orvex" mask "$dir/same.oxp" "$graph" --ranges "graph:$next,40:41 px" -o "$dir/same.oxp" >/dev/null
check "graph: item, written over FILE" "10-20,40-41 64" "$(ones "$dir/same.oxp" "$((next + 1))")"

# Bad input: exit 1, one line naming the problem, OUT not written, an existing OUT unchanged.
bad() { # description, expected exit, pattern, arguments...
  local description="$1" code="$2" pattern="$3"
  shift 3
  err=$("$orvex" mask "$@" 2>&1 >/dev/null)
  check "$description exit" "$code" $?
  case "$err" in *$pattern*) ;; *) check "$description message" "contains $pattern" "$err" ;; esac
  check "$description: one line" 1 "$(echo "$err" | wc -l)"
}
cp "$dir/m.oxp" "$dir/keep.oxp"
bad "unparsable" 1 "expected lo:hi" "$dir/d.oxp" "$graph" --ranges "abc" -o "$dir/keep.oxp"
bad "not a number" 1 "must be numbers" "$dir/d.oxp" "$graph" --ranges "1:x" -o "$dir/keep.oxp"
bad "lo above hi" 1 "lo is above hi" "$dir/d.oxp" "$graph" --ranges "$hi:$lo" -o "$dir/keep.oxp"
bad "no point" 1 "selects no point" "$dir/d.oxp" "$graph" --ranges "100:200 px" -o "$dir/keep.oxp"
bad "no point on the axis" 1 "selects no point" "$dir/d.oxp" "$graph" --ranges "-9000:-8000" -o "$dir/keep.oxp"
bad "unknown unit" 1 "furlong" "$dir/d.oxp" "$graph" --ranges "1:2" --unit furlong -o "$dir/keep.oxp"
bad "unknown graph" 1 "no graph with ID 999" "$dir/d.oxp" 999 --ranges all -o "$dir/keep.oxp"
bad "missing mask graph" 1 "no graph with ID 998" "$dir/d.oxp" "$graph" --ranges "graph:998" -o "$dir/keep.oxp"
text=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDText"][0])')
bad "not a graph" 1 "no graph with ID $text" "$dir/d.oxp" "$text" --ranges all -o "$dir/keep.oxp"
bad "missing file" 2 "nothere.oxp" "$dir/nothere.oxp" "$graph" --ranges all -o "$dir/keep.oxp"
"$orvex" mask "$dir/d.oxp" "$graph" -o "$dir/keep.oxp" >/dev/null 2>&1
check "no --ranges exit" 2 $?
check "existing OUT unchanged" "same" "$(cmp -s "$dir/m.oxp" "$dir/keep.oxp" && echo same || echo changed)"
"$orvex" mask "$dir/d.oxp" "$graph" --ranges "abc" -o "$dir/new.oxp" >/dev/null 2>&1
check "nothing written" "no" "$([ -e "$dir/new.oxp" ] && echo yes || echo no)"

[ "$fails" -eq 0 ] && echo "all passed"
exit $((fails > 0))
