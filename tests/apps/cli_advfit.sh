#!/usr/bin/env bash
# orvex tools / run AdvancedFittingTool: its parameter listing, a Lorentz fit of the demo map's silicon band
# against the known band position, the curves command, the replayable history, one spectrum fitted alone
# (text and JSON, against orvex fit on the same points), and bad input (exit 1, one line naming the
# culprit, nothing written).
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
check "parameters" "Function,Function Settings,Fit Parameters,Fit Mask,Data Reduction,Extract Chi^2,Extract Fit Fail Mask,Extract Fit Curves,Extract Replica,Extract Fit Curve with Input Data Supporting Points,Show all Replica on Startup,Param Precision,Pixel X,Pixel Y,User Fit Functions File,Number of Threads,Fit Mode,Advanced Mode,# of Points,Preview Start Value,Preview Stop Value,Listen" \
  "$(echo "$list" | py 'print(",".join(p["name"] for p in d[0]["parameters"]))')"
check "function default and choices" "Gauss Gauss,Lorentz,PsdVoigt1,PsdVoigt2,ExpDecay,Polynom,User Defined" \
  "$(echo "$list" | py 'p=d[0]["parameters"][0]; print(p["default"], ",".join(p["choices"]))')"
check "commands" "Reset Range,Fit Once,<<,>>,Reset Params,Extract,Extract All,Extract Curves" \
  "$(echo "$list" | py 'print(",".join(c["name"] for c in d[0]["commands"]))')"

# --- Lorentz on the silicon band: median centre where silicon dominates, against its known position
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  --all -o "$dir/out.oxp" --json)
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
contains "history is the command" "orvex run AdvancedFittingTool --input $map --all --set 'Function=Lorentz'" "$hist"
contains "history has the mask" "--set 'Fit Mask=490:550'" "$hist"
"$orvex" replay "$dir/out.oxp" "$x0" --on "$dir/d.oxp" --input "$map" -o "$dir/rep.oxp" --json >"$dir/rep.json"
check "replay exit" 0 $?
rx0=$(py 'print([o["id"] for o in d if o["caption"].endswith(": x0)")][0])' <"$dir/rep.json")
"$orvex" data "$dir/rep.oxp" "$rx0" -o "$dir/rx0.raw"
check "replay gives the same centres" "" "$(cmp "$dir/x0.raw" "$dir/rx0.raw" 2>&1)"

# --- row settings and the curves command
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  --set 'Fit Parameters=y0|Extract Value=false; y0|Extract Error=false; A|Extract Error=false' \
  --set 'Extract Chi^2=false' --all -o "$dir/rows.oxp" --json)
check "rows exit" 0 $?
check "rows leave out their images" "6" "$(echo "$out" | py 'print(len(d))')"
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --command 'Extract Curves' --set Function=Lorentz \
  --set 'Fit Mask=490:550' -o "$dir/curves.oxp" --json)
check "curves exit" 0 $?
check "curves" "TDGraph Raman Map (demo) (Fit Lorentz: Curves)" "$(echo "$out" | py 'print(d[0]["class"], d[0]["caption"])')"

# --- one spectrum alone: Pixel X, Pixel Y; text like orvex fit plus the statistics, stored as a text
out=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  --set 'Pixel X=3' --set 'Pixel Y=2' -o "$dir/point.oxp")
check "point exit" 0 $?
check "point lines" "y0 x0 w A chi2 Chi^2 Data Average R^2: status" "$(echo "$out" | head -10 | cut -d' ' -f1 | tr '\n' ' ' | sed 's/ $//')"
contains "point dof" "Data Points / DoF: " "$out"
contains "point status" "status Fit Successful" "$out"
contains "point text stored" "Raman Map (demo) (Fit Lorentz: Pixel 3, 2)" "$("$orvex" info "$dir/point.oxp")"
"$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set Function=Lorentz --set 'Fit Mask=490:550' \
  --set 'Pixel X=3' --set 'Pixel Y=2' -o "$dir/point.oxp" --json >"$dir/point.json"
check "point json exit" 0 $?
check "point json keys" "parameters chi2 chi2PerDoF points dof averageError r2 status message|y0 x0 w A|ok" \
  "$(py 'print(" ".join(d.keys()) + "|" + " ".join(p["name"] for p in d["parameters"]) + "|" + d["status"])' <"$dir/point.json")"
# The same points through orvex fit: the spectrum of pixel (3, 2) and the axis, cut to the mask.
"$orvex" data "$dir/d.oxp" "$map" -o "$dir/map.raw" && "$orvex" axis "$dir/d.oxp" "$map" >"$dir/axis.txt"
check "map data" 0 $?
$numpy -c "
import numpy as np
x = np.loadtxt('$dir/axis.txt'); n = len(x)
y = np.fromfile('$dir/map.raw', '<f4').reshape(-1, n)[2 * 16 + 3]
sel = (x >= 490) & (x <= 550)
np.savetxt('$dir/points.txt', np.c_[x[sel], y[sel].astype(np.float64)], fmt='%.17g')
"
"$orvex" fit --function Lorentz --data "$dir/points.txt" --json >"$dir/fit.json"
check "orvex fit exit" 0 $?
check "point equals orvex fit" "ok" "$(python3 -c "
import json
a = json.load(open('$dir/point.json')); b = json.load(open('$dir/fit.json'))
bad = [p['name'] for p, q in zip(a['parameters'], b['parameters'])
       if abs(p['value'] - q['value']) > 1e-9 * abs(q['value']) or abs(p['error'] - q['error']) > 1e-6 * abs(q['error'])]
bad += ['chi2'] if abs(a['chi2'] - b['chi2']) > 1e-9 * b['chi2'] else []
bad += ['dof'] if a['points'] - a['dof'] != 4 else []
print('ok' if not bad else ' '.join(bad))
")"

# --- a user fit functions file that is none
err=$("$orvex" run AdvancedFittingTool "$dir/d.oxp" --input "$map" --set "User Fit Functions File=$dir/d.oxp" \
  -o "$dir/bad.oxp" 2>&1 >/dev/null)
check "user file exit" 1 $?
contains "user file message" "is no user fit functions file" "$err"
check "user file writes nothing" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"

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
bad "unknown function" 'no fit function "Spline"' --input "$map" --set Function=Spline
bad "pixel outside" "Pixel X 16, Pixel Y 0 lie outside" --input "$map" --set 'Pixel X=16'
bad "bad settings" "NumberOfFunctions" --input "$map" --set 'Function Settings=NumberOfFunctions=many'
bad "empty mask" "Fit mask is empty" --input "$map" --set 'Fit Mask=none'
bad "unreadable mask" "Fit Mask" --input "$map" --set 'Fit Mask=here to there'
bad "too few points" "fit points" --input "$map" --set 'Fit Mask=0:1 px'
bad "not a graph" "is no graph" --input "$topo"

[ $fails -eq 0 ] && echo "cli_advfit: all checks passed"
exit $((fails > 0))
