#!/usr/bin/env bash
# The graph viewer on the command line: the demo's graph viewer, its settings and refusals, the extraction of
# the spectrum on view, and the workbench's offscreen picture of a viewer (under xvfb-run).
source "$(dirname "$0")/clitest.sh"

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 5 >/dev/null
check "demo exit" 0 $?
index=$("$orvex" info "$dir/d.oxp" --json | py 'print([v["index"] for v in d["viewers"] if v["class"]=="TVMultiGraphForm"][0])')
map=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
setting() { # file, name
  "$orvex" viewer "$1" "$index" --json | py "print([s['value'] for s in d['settings'] if s['name']=='$2'][0])"
}
check "the demo's graph viewer shows the map" "$map" \
  "$("$orvex" viewer "$dir/d.oxp" "$index" --json | py 'print(d["ids"][0])')"
check "it opens on the centre pixel" "4 3" "$(setting "$dir/d.oxp" SpectrumX) $(setting "$dir/d.oxp" SpectrumY)"
check "in rel. 1/cm" "rel. 1/cm" "$(setting "$dir/d.oxp" XUnit)"

# Settings are applied and saved.
"$orvex" viewer "$dir/d.oxp" "$index" --set XUnit=nm --set SpectrumX=1 --set SpectrumY=2 -o "$dir/s.oxp" >/dev/null
check "viewer --set exit" 0 $?
check "unit stored" "nm" "$(setting "$dir/s.oxp" XUnit)"
check "position stored" "1 2" "$(setting "$dir/s.oxp" SpectrumX) $(setting "$dir/s.oxp" SpectrumY)"
xmin=$(setting "$dir/s.oxp" XMinimum)
check "the range is in nm now" "yes" "$(python3 -c "print('yes' if 500 < $xmin < 600 else 'no')")"

# Refusals: exit 1, the limits or choices named, nothing written.
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set SpectrumX=8 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "spectrum beyond the map exit" 1 $?
contains "the limit is named" "7" "$err"
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set XUnit=furlong -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "unknown unit exit" 1 $?
contains "the units are listed" "rel. 1/cm" "$err"
err=$("$orvex" viewer "$dir/d.oxp" "$index" --set XMinimum=1000 --set XMaximum=900 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "inverted range exit" 1 $?
contains "the inverted range is named" "XMinimum" "$err"
check "nothing written" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"

# --extract: the spectrum on view as a new graph.
out=$("$orvex" viewer "$dir/s.oxp" "$index" --extract -o "$dir/e.oxp" --json)
check "extract exit" 0 $?
new=$(echo "$out" | py 'print(d["extracted"][0])')
caption=$("$orvex" info "$dir/e.oxp" --json | py "print([o['caption'] for o in d['objects'] if o['id']==$new][0])")
contains "extracted caption" " (x=1, y=2)" "$caption"

# append keeps the viewer on its objects.
"$orvex" append "$dir/s.oxp" "$dir/s.oxp" -o "$dir/a.oxp" >/dev/null
next=$("$orvex" info "$dir/s.oxp" --json | py 'print(d["nextDataID"])')
check "appended graph viewer on the shifted map" "$((map + next))" \
  "$("$orvex" info "$dir/a.oxp" --json | py 'print([v["ids"][0] for v in d["viewers"] if v["class"]=="TVMultiGraphForm"][1])')"

# The workbench draws a viewer offscreen; a display is needed, xvfb-run gives one.
workbench="$(dirname "$orvex")/../workbench/orvex-project"
if [ -x "$workbench" ] && command -v xvfb-run >/dev/null; then
  xvfb-run -a -s "-screen 0 1280x1024x24" "$workbench" --export-view "$index" --size 640x480 -o "$dir/v.png" \
    "$dir/s.oxp" >/dev/null 2>&1
  check "export-view exit" 0 $?
  check "a 640x480 PNG" "640 480" "$(python3 -c "
import struct
b = open('$dir/v.png', 'rb').read(24)
print(*struct.unpack('>II', b[16:24])) if b[:8] == b'\x89PNG\r\n\x1a\n' else print('no png')")"
  text=$("$orvex" info "$dir/s.oxp" --json | py 'print([v["index"] for v in d["viewers"] if v["class"]=="TVTextForm"][0])')
  err=$(xvfb-run -a -s "-screen 0 1280x1024x24" "$workbench" --export-view "$text" -o "$dir/t.png" "$dir/s.oxp" 2>&1 >/dev/null)
  check "a text viewer draws no scene: exit" 1 $?
  contains "says why" "draws no scene" "$err"
  xvfb-run -a "$workbench" --export-view 99 -o "$dir/t.png" "$dir/s.oxp" >/dev/null 2>&1
  check "no such viewer exit" 1 $?
  "$workbench" --export-view "$index" "$dir/s.oxp" >/dev/null 2>&1
  check "no -o exit" 2 $?
  check "no picture for the failures" "no" "$([ -e "$dir/t.png" ] && echo yes || echo no)"
else
  echo "cli_graphviewer: the workbench or xvfb-run is missing; the offscreen picture is not checked"
fi

[ "$fails" -eq 0 ] && echo "cli_graphviewer: all checks passed"
exit "$fails"
