#!/usr/bin/env bash
# orvex info (viewers) / show / viewer, and viewers through convert and append: output and exit codes.
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

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 3 >/dev/null
check "demo exit" 0 $?
text=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDText"][0])')
check "demo's viewer" "0 TVTextForm Text Viewer - About this data set (demo) [$text]" \
  "$("$orvex" info "$dir/d.oxp" --json | py 'v=d["viewers"][0]; print(v["index"], v["class"], v["title"], v["ids"])')"

# convert and the compatible form keep the viewer; append shifts its IDs.
"$orvex" convert "$dir/d.oxp" "$dir/c.oxp" >/dev/null && "$orvex" convert "$dir/c.oxp" "$dir/old.oxp" --compatible >/dev/null
check "convert exit" 0 $?
check "viewer after convert" "$("$orvex" viewer "$dir/d.oxp" 0 --json)" "$("$orvex" viewer "$dir/old.oxp" 0 --json)"
"$orvex" append "$dir/d.oxp" "$dir/d.oxp" -o "$dir/a.oxp" >/dev/null
next=$("$orvex" info "$dir/d.oxp" --json | py 'print(d["nextDataID"])')
check "appended viewer's IDs shifted" "[[$text], [$((text + next))]]" \
  "$("$orvex" info "$dir/a.oxp" --json | py 'print([v["ids"] for v in d["viewers"] if v["class"]=="TVTextForm"])')"

# show: a second text viewer with a setting.
# The new viewer comes after those the demo opened.
count=$("$orvex" info "$dir/d.oxp" --json | py 'print(len(d["viewers"]))')
out=$("$orvex" show "$dir/d.oxp" "$text" --viewer TVTextForm --set FontSize=12 -o "$dir/s.oxp" --json)
check "show exit" 0 $?
check "show prints the viewer" "$count TVTextForm [$text]" "$(echo "$out" | py 'print(d["index"], d["class"], d["ids"])')"
check "show's setting stored" "12" \
  "$("$orvex" viewer "$dir/s.oxp" "$count" --json | py 'print([s["value"] for s in d["settings"] if s["name"]=="FontSize"][0])')"
check "settings listed with limits" "FontSize Int 6.0 72.0" \
  "$("$orvex" viewer "$dir/s.oxp" "$count" --json | py 's=[s for s in d["settings"] if s["name"]=="FontSize"][0]; print(s["name"], s["kind"], float(s["min"]), float(s["max"]))')"

# Bad input: exit 1, one line naming the culprit and the choices, nothing written.
err=$("$orvex" show "$dir/d.oxp" 999 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "unknown ID exit" 1 $?
case "$err" in *"unknown object ID 999"*"IDs 1 to"*) ;; *) check "unknown ID message" "names 999 and the IDs" "$err" ;; esac
err=$("$orvex" show "$dir/d.oxp" "$text" --viewer TVNoSuchForm -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "unknown class exit" 1 $?
case "$err" in *TVNoSuchForm*TVTextForm*) ;; *) check "unknown class message" "names both classes" "$err" ;; esac
err=$("$orvex" show "$dir/d.oxp" 1 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "no viewer accepts exit" 1 $?
case "$err" in *"accepts IDs 1"*) ;; *) check "no viewer message" "names the IDs" "$err" ;; esac
err=$("$orvex" viewer "$dir/d.oxp" 0 --set FontSize=200 -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "value out of limits exit" 1 $?
case "$err" in *FontSize*) ;; *) check "out of limits message" "names FontSize" "$err" ;; esac
err=$("$orvex" viewer "$dir/d.oxp" 0 --set Colour=red -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "unknown setting exit" 1 $?
case "$err" in *Colour*FontSize*) ;; *) check "unknown setting message" "names Colour and the settings" "$err" ;; esac
err=$("$orvex" viewer "$dir/d.oxp" 9 2>&1 >/dev/null)
check "unknown index exit" 1 $?
case "$err" in *"no viewer 9"*"indices 0 to $((count - 1))"*) ;; *) check "unknown index message" "names 9 and the indices" "$err" ;; esac
"$orvex" viewer "$dir/d.oxp" 0 --extract -o "$dir/bad.oxp" >/dev/null 2>&1
check "nothing to extract exit" 1 $?
check "nothing written" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"

# A change by viewer --set is saved.
"$orvex" viewer "$dir/d.oxp" 0 --set WordWrap=false -o "$dir/w.oxp" >/dev/null
check "viewer --set exit" 0 $?
check "viewer --set stored" "false" \
  "$("$orvex" viewer "$dir/w.oxp" 0 --json | py 'print([s["value"] for s in d["settings"] if s["name"]=="WordWrap"][0])')"

[ "$fails" -eq 0 ] && echo "cli_viewer: all checks passed"
exit "$fails"
