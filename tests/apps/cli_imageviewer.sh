#!/usr/bin/env bash
# The image viewer on the command line: the demo's viewer on the topography with its settings, changes and
# refusals through `orvex viewer --set`, the zoom window through --extract, and the viewer kept through
# convert and append.
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
setting() { # file, index, name
  "$orvex" viewer "$1" "$2" --json | py "print([s.get('value') for s in d['settings'] if s['name']=='$3'][0])"
}

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 3 >/dev/null
check "demo exit" 0 $?
index=$("$orvex" info "$dir/d.oxp" --json | py 'print([v["index"] for v in d["viewers"] if v["class"]=="TVImageForm"][0])')
topo=$("$orvex" info "$dir/d.oxp" --json |
  py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage" and "Topography" in o["caption"]][0])')
check "the demo's image viewer shows the topography" "True" \
  "$("$orvex" info "$dir/d.oxp" --json | py "print($topo in d['viewers'][$index]['ids'])")"

# Settings with their limits and choices; the shared cursor stands on the centre pixel.
check "CursorX limits" "CursorX Int 0.0 7.0" \
  "$("$orvex" viewer "$dir/d.oxp" "$index" --json | py 's=[s for s in d["settings"] if s["name"]=="CursorX"][0]; print(s["name"], s["kind"], float(s["min"]), float(s["max"]))')"
check "cursor at the centre" "4 3" "$(setting "$dir/d.oxp" "$index" CursorX) $(setting "$dir/d.oxp" "$index" CursorY)"
check "22 colour tables" "22 Gray Rainbow2" \
  "$("$orvex" viewer "$dir/d.oxp" "$index" --json | py 'c=[s for s in d["settings"] if s["name"]=="ColorTable"][0]["choices"]; print(len(c), c[0], c[-1])')"
check "zoom window is the whole image" "0 7 0 5" \
  "$(for n in ZoomStartX ZoomStopX ZoomStartY ZoomStopY; do setting "$dir/d.oxp" "$index" $n; done | xargs)"

# Changes are saved.
"$orvex" viewer "$dir/d.oxp" "$index" --set ColorTable=Gray --set ScaleKind="Square Root" --set ZoomStartX=1 \
  --set ZoomStopX=5 --set ZoomStartY=2 --set CursorX=6 -o "$dir/s.oxp" >/dev/null
check "set exit" 0 $?
check "settings stored" "Gray Square Root 1 5 2 6" \
  "$(for n in ColorTable ScaleKind ZoomStartX ZoomStopX ZoomStartY CursorX; do setting "$dir/s.oxp" "$index" $n; done | xargs)"

# Refusals: exit 1, one line naming the limits or the choices, nothing written.
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set CursorX=8 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "cursor beyond the image exit" 1 $?
case "$err" in *CursorX*"0 to 7"*) ;; *) check "cursor message" "names CursorX and 0 to 7" "$err" ;; esac
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set ZoomStartY=4 --set ZoomStopY=1 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "inverted zoom window exit" 1 $?
case "$err" in *ZoomStartY*empty*) ;; *) check "zoom message" "names the empty window" "$err" ;; esac
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set ColorTable=Purple -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "unknown table exit" 1 $?
case "$err" in *Purple*Gray*) ;; *) check "table message" "names Purple and the tables" "$err" ;; esac
check "nothing written" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"

# --extract makes the zoom window an image with the topography's values.
out=$("$orvex" viewer "$dir/s.oxp" "$index" --extract -o "$dir/e.oxp" --json)
check "extract exit" 0 $?
zoom=$(echo "$out" | py 'print(d["extracted"][0])')
check "zoom caption" "True" "$("$orvex" info "$dir/e.oxp" --json | py "print([o['caption'] for o in d['objects'] if o['id']==$zoom][0].endswith(' (Zoom)'))")"
"$orvex" data "$dir/e.oxp" "$topo" -o "$dir/topo.raw" >/dev/null && "$orvex" data "$dir/e.oxp" "$zoom" -o "$dir/zoom.raw" >/dev/null
check "zoom values" "True" "$(python3 -c "
import struct
t = struct.unpack('<48f', open('$dir/topo.raw','rb').read())
z = struct.unpack('<20f', open('$dir/zoom.raw','rb').read())
print(all(z[(y-2)*5 + (x-1)] == t[y*8 + x] for y in range(2, 6) for x in range(1, 6)))")"

# convert keeps the viewer as it is; append shifts all of its IDs.
"$orvex" convert "$dir/s.oxp" "$dir/c.oxp" >/dev/null
check "viewer after convert" "$("$orvex" viewer "$dir/s.oxp" "$index" --json)" "$("$orvex" viewer "$dir/c.oxp" "$index" --json)"
"$orvex" append "$dir/s.oxp" "$dir/s.oxp" -o "$dir/a.oxp" >/dev/null
next=$("$orvex" info "$dir/s.oxp" --json | py 'print(d["nextDataID"])')
ids=$("$orvex" info "$dir/s.oxp" --json | py "print(sorted(d['viewers'][$index]['ids']))")
check "appended viewer's IDs shifted" "$ids" \
  "$("$orvex" info "$dir/a.oxp" --json | py "v=[v for v in d['viewers'] if v['class']=='TVImageForm'][1]; print(sorted(i - $next for i in v['ids']))")"
check "appended viewer keeps its settings" "Gray 1 5" \
  "$(n=$("$orvex" info "$dir/a.oxp" --json | py 'print([v["index"] for v in d["viewers"] if v["class"]=="TVImageForm"][1])'); for s in ColorTable ZoomStartX ZoomStopX; do setting "$dir/a.oxp" "$n" $s; done | xargs)"

[ $fails -eq 0 ] && echo "cli_imageviewer: all checks passed"
exit $fails
