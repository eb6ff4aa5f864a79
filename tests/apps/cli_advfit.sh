#!/usr/bin/env bash
# orvex tools / run AdvancedFittingTool: its parameter listing, a Lorentz fit of the demo map's silicon band
# against the known band position, the curves command, the replayable history, and bad input (exit 1, one
# line naming the culprit, nothing written).
source "$(dirname "$0")/clitest.sh" "$1"

"$orvex" demo -o "$dir/d.oxp" --size 16x12x1024 --seed 3 >/dev/null
objects() { "$orvex" info "$1" --json | py "print(' '.join(str(o['id']) for o in d['objects'] if $2))"; }
map=$(objects "$dir/d.oxp" 'o["class"]=="TDGraph"' | cut -d' ' -f1)
topo=$(objects "$dir/d.oxp" 'o["caption"].startswith("Topography")')
abundances=$(objects "$dir/d.oxp" 'o["caption"].startswith("True Abundance")')
cp "$dir/d.oxp" "$dir/keep.oxp"

# --- listing
list=$("$orvex" tools AdvancedFittingTool --json)
check "tools exit" 0 $?
check "tool" "AdvancedFittingTool TAdvancedFittingToolForm Advanced Fitting Tool" \
  "$(echo "$list" | py 't=d[0]; print(t["key"], t["class"], t["caption"])')"
check "parameters" "Function,Function Settings,Fit Parameters,Fit Mask,Data Reduction,Extract Chi^2,Extract Fit Fail Mask,Extract Fit Curves,Extract Replica,Number of Threads" \
  "$(echo "$list" | py 'print(",".join(p["name"] for p in d[0]["parameters"]))')"
check "function default and choices" "Gauss Gauss,Lorentz,PsdVoigt1,PsdVoigt2,ExpDecay,Polynom,User Defined" \
  "$(echo "$list" | py 'p=d[0]["parameters"][0]; print(p["default"], ",".join(p["choices"]))')"
check "commands" "Extract,Extract All,Extract Curves" \
  "$(echo "$list" | py 'print(",".join(c["name"] for c in d[0]["commands"]))')"

# --- Lorentz on the silicon band: median centre where silicon dominates, against its known position
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  -o "$dir/out.oxp" --json)
check "run exit" 0 $?
check "ten images" "10" "$(echo "$out" | py 'print(sum(1 for o in d if o["class"]=="TDImage"))')"
check "captions" "Raman Map (demo) (Fit Lorentz: x0)|Raman Map (demo) (Fit Lorentz: Fit Fail Mask)" \
  "$(echo "$out" | py 'print(d[1]["caption"] + "|" + d[-1]["caption"])')"
x0=$(echo "$out" | py 'print([o["id"] for o in d if o["caption"].endswith(": x0)")][0])')
fail=$(echo "$out" | py 'print([o["id"] for o in d if o["caption"].endswith("Fail Mask)")][0])')
"$orvex" data "$dir/out.oxp" "$x0" -o "$dir/x0.raw" && "$orvex" data "$dir/out.oxp" "$fail" -o "$dir/fail.raw"
check "data of the images" 0 $?
i=0
for a in $abundances; do "$orvex" data "$dir/d.oxp" "$a" -o "$dir/a$i.raw"; i=$((i + 1)); done
check "silicon centre" "ok" "$($numpy -c "
import numpy as np
x0 = np.fromfile('$dir/x0.raw', '<f4'); fail = np.fromfile('$dir/fail.raw', '<f4')
a = np.array([np.fromfile('$dir/a%d.raw' % i, '<f4') for i in range(4)])
sel = (a.argmax(0) == 0) & (fail == 0)
m = np.median(x0[sel]) if sel.sum() >= 5 else float('nan')
print('ok' if abs(m - 520.7) <= 0.3 else 'median %g over %d pixels' % (m, sel.sum()))
")"

# --- the history repeats the run
hist=$("$orvex" history "$dir/out.oxp" "$x0" --json | py 'print(d[-1]["text"])')
contains "history is the command" "orvex run AdvancedFittingTool --input $map --set 'Function=Lorentz'" "$hist"
contains "history has the mask" "--set 'Fit Mask=490:550'" "$hist"
"$orvex" replay "$dir/out.oxp" "$x0" --on "$dir/d.oxp" --input "$map" -o "$dir/rep.oxp" --json >"$dir/rep.json"
check "replay exit" 0 $?
rx0=$(py 'print([o["id"] for o in d if o["caption"].endswith(": x0)")][0])' <"$dir/rep.json")
"$orvex" data "$dir/rep.oxp" "$rx0" -o "$dir/rx0.raw"
check "replay gives the same centres" "" "$(cmp "$dir/x0.raw" "$dir/rx0.raw" 2>&1)"

# --- row settings and the curves command
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  --set 'Fit Parameters=y0|Extract Value=false; y0|Extract Error=false; A|Extract Error=false' \
  --set 'Extract Chi^2=false' -o "$dir/rows.oxp" --json)
check "rows exit" 0 $?
check "rows leave out their images" "6" "$(echo "$out" | py 'print(len(d))')"
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --command 'Extract Curves' --set Function=Lorentz \
  --set 'Fit Mask=490:550' -o "$dir/curves.oxp" --json)
check "curves exit" 0 $?
check "curves" "TDGraph Raman Map (demo) (Fit Lorentz: Curves)" "$(echo "$out" | py 'print(d[0]["class"], d[0]["caption"])')"

# --- bad input: exit 1, one line naming the culprit, nothing written
bad() { # description, needle, args...
  local what="$1" needle="$2"
  shift 2
  local err
  err=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" "$@" -o "$dir/bad.oxp" 2>&1 >/dev/null)
  check "$what exit" 1 $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what writes nothing" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"
  check "$what leaves the input" "" "$(cmp "$dir/d.oxp" "$dir/keep.oxp" 2>&1)"
}
bad "unknown row" '"q"' --input "$map" --set 'Fit Parameters=q|Start Value=1'
bad "bad column value" "x0|Lower Limit" --input "$map" --set 'Fit Parameters=x0|Lower Limit=low'
bad "unknown function" "Function" --input "$map" --set Function=Spline
bad "bad settings" "NumberOfFunctions" --input "$map" --set 'Function Settings=NumberOfFunctions=many'
bad "empty mask" "Fit mask is empty" --input "$map" --set 'Fit Mask=none'
bad "unreadable mask" "Fit Mask" --input "$map" --set 'Fit Mask=here to there'
bad "too few points" "fit points" --input "$map" --set 'Fit Mask=0:1 px'
bad "not a graph" "is no graph" --input "$topo"

[ $fails -eq 0 ] && echo "cli_advfit: all checks passed"
exit $((fails > 0))
