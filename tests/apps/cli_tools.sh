#!/usr/bin/env bash
# orvex tools / run / history / replay: listings, runs checked with numpy, stored defaults and their
# precedence, replayed chains, and bad input (exit codes, one line, the output file untouched).
source "$(dirname "$0")/clitest.sh" "$1"

"$orvex" demo -o "$dir/d.oxp" --size 12x9x64 --seed 5 >/dev/null
"$orvex" demo -o "$dir/e.oxp" --size 10x7x64 --seed 9 >/dev/null
map=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
map2=$("$orvex" info "$dir/e.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
cp "$dir/d.oxp" "$dir/keep.oxp"
bad() { # description, expected exit, needle, args...
  local what="$1" code="$2" needle="$3"
  shift 3
  local err
  err=$("$orvex" "$@" 2>&1 >/dev/null)
  check "$what exit" "$code" $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what leaves OUT" "" "$(cmp "$dir/d.oxp" "$dir/keep.oxp" 2>&1)"
}

# --- tools
list=$("$orvex" tools --json)
check "tools exit" 0 $?
check "graph calculator listed" "GraphCalculator TGraphCalculatorForm Graph Calculator TProjectGraphProcessingDialogForm" \
  "$(echo "$list" | py 't=[t for t in d if t["key"]=="GraphCalculator"][0]; print(t["key"], t["class"], t["caption"], t["frame"])')"
check "its parameter" "Formula string x1 None" \
  "$(echo "$list" | py 'p=[t for t in d if t["key"]=="GraphCalculator"][0]["parameters"][0]; print(p["name"], p["kind"], p["default"], p["unit"])')"
check "its commands" "Calculate Preview,Extract,Extract All" \
  "$(echo "$list" | py 'print(",".join(c["name"] for c in [t for t in d if t["key"]=="GraphCalculator"][0]["commands"]))')"
check "spectral masks marked, still strings" "Order None,Fit Mask string True,Change Mask string True" \
  "$(echo "$list" | py 't=[t for t in d if t["key"]=="GraphBackgroundSubtraction"][0]; print(",".join(p["name"]+(" "+p["kind"] if "Mask" in p["name"] else "")+" "+str(p.get("spectralMask")) for p in t["parameters"] if p["name"] in ("Fit Mask","Change Mask","Order")))')"
check "one tool in any case" "GraphCalculator" "$("$orvex" tools graphcalculator --json | py 'print(d[0]["key"])')"
contains "text listing" "Formula (string) default x1" "$("$orvex" tools TGraphCalculatorForm)"

# --- run, checked against numpy on the values that orvex data gives
out=$("$orvex" run GraphCalculator "$dir/d.oxp" --input "$map" --set 'Formula=2*x1+3+x2/100+x3' -o "$dir/r.oxp" --json)
check "run exit" 0 $?
res=$(echo "$out" | py 'print(d[0]["id"])')
check "run prints the result" "TDGraph" "$(echo "$out" | py 'print(d[0]["class"])')"
contains "result caption" " (Calculator)" "$(echo "$out" | py 'print(d[0]["caption"])')"
"$orvex" data "$dir/r.oxp" "$map" -o "$dir/in.raw" && "$orvex" data "$dir/r.oxp" "$res" -o "$dir/out.raw" &&
  "$orvex" axis "$dir/r.oxp" "$map" >"$dir/axis.txt"
check "data of the result" 0 $?
check "numpy agrees" "ok" "$($numpy -c "
import numpy as np
a = np.fromfile('$dir/in.raw', '<f4').reshape(-1, 64).astype(np.float64)
b = np.fromfile('$dir/out.raw', '<f4').reshape(-1, 64)
ax = np.loadtxt('$dir/axis.txt')
want = (2 * a + 3 + ax / 100 + np.arange(64)).astype(np.float32)
print('ok' if np.array_equal(b, want) else 'max diff %g' % np.abs(b - want).max())
")"
text=$("$orvex" run GraphCalculator "$dir/d.oxp" --input "$map" -o "$dir/r2.oxp")
check "text output" "$((res)) TDGraph" "$(echo "$text" | awk '{print $1, $2}')"

# --- Image Background Subtraction against numpy's least squares, both modes
topo=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage"][0])')
sizes=$("$orvex" info "$dir/d.oxp" --json | py 'o=[o for o in d["objects"] if o["id"]=='"$topo"'][0]; print(o["sizeX"], o["sizeY"])')
"$orvex" data "$dir/d.oxp" "$topo" -o "$dir/topo.raw"
for mode in Surface Lines; do
  for order in 0 2 3; do
    out=$("$orvex" run ImageBackgroundSubtraction "$dir/d.oxp" --input "$topo" --set Mode=$mode --set Order=$order \
      -o "$dir/ib.oxp" --json)
    check "image background $mode $order exit" 0 $?
    contains "image background caption" " (Background Subtracted)" "$(echo "$out" | py 'print(d[0]["caption"])')"
    "$orvex" data "$dir/ib.oxp" "$(echo "$out" | py 'print(d[0]["id"])')" -o "$dir/ib.raw"
    check "numpy agrees on $mode $order" "ok" "$($numpy -c "
import numpy as np
sx, sy = map(int, '$sizes'.split())
a = np.fromfile('$dir/topo.raw', '<f4').reshape(sy, sx).astype(np.float64)
b = np.fromfile('$dir/ib.raw', '<f4').reshape(sy, sx)
x, y = np.meshgrid(np.arange(sx, dtype=float), np.arange(sy, dtype=float))
if '$mode' == 'Surface':
    cols = [x.ravel()**i * y.ravel()**j for i in range($order + 1) for j in range($order + 1 - i)]
    A = np.stack(cols, 1)
    want = a.ravel() - A @ np.linalg.lstsq(A, a.ravel(), rcond=None)[0]
    want = want.reshape(sy, sx)
else:
    A = np.stack([np.arange(sx, dtype=float)**i for i in range($order + 1)], 1)
    want = np.stack([r - A @ np.linalg.lstsq(A, r, rcond=None)[0] for r in a])
err = np.abs(b - want).max() / max(np.abs(a).max(), 1e-30)
print('ok' if err < 2e-5 else 'relative error %g' % err)
")"
  done
done
bad "image background order" 1 "Order" run ImageBackgroundSubtraction "$dir/keep.oxp" --input "$topo" --set Order=4 \
  -o "$dir/keep.oxp"
bad "image background mode" 1 "Surface" run ImageBackgroundSubtraction "$dir/keep.oxp" --input "$topo" \
  --set Mode=Plane -o "$dir/keep.oxp"

# --- history and replay
"$orvex" run GraphCalculator "$dir/r.oxp" --input "$res" --set 'Formula=x1-1' -o "$dir/chain.oxp" --json >"$dir/step2.json"
step2=$(py 'print(d[0]["id"])' <"$dir/step2.json")
hist=$("$orvex" history "$dir/chain.oxp" "$step2" --json)
check "history exit" 0 $?
check "two replayable entries" "2" "$(echo "$hist" | py 'print(sum(1 for e in d if e["replayable"]))')"
check "entry text" "Graph Calculator: orvex run GraphCalculator --input $res --set 'Formula=x1-1' (result 1 of 1)" \
  "$(echo "$hist" | py 'print(d[-1]["text"])')"
"$orvex" replay "$dir/chain.oxp" "$step2" --on "$dir/e.oxp" --input "$map2" -o "$dir/replayed.oxp" --json >"$dir/rep.json"
check "replay exit" 0 $?
check "replay made two steps" "1 2" "$(py 'print(" ".join(str(o["step"]) for o in d))' <"$dir/rep.json")"
last=$(py 'print(d[-1]["id"])' <"$dir/rep.json")
"$orvex" run GraphCalculator "$dir/e.oxp" --input "$map2" --set 'Formula=2*x1+3+x2/100+x3' -o "$dir/h1.oxp" --json >"$dir/h1.json"
h1=$(py 'print(d[0]["id"])' <"$dir/h1.json")
"$orvex" run GraphCalculator "$dir/h1.oxp" --input "$h1" --set 'Formula=x1-1' -o "$dir/h2.oxp" --json >"$dir/h2.json"
h2=$(py 'print(d[0]["id"])' <"$dir/h2.json")
"$orvex" data "$dir/replayed.oxp" "$last" -o "$dir/rep.raw" && "$orvex" data "$dir/h2.oxp" "$h2" -o "$dir/hand.raw"
check "replayed chain equals the steps by hand" "" "$(cmp "$dir/rep.raw" "$dir/hand.raw" 2>&1)"
check "dry run lists the steps" "2" "$("$orvex" replay "$dir/chain.oxp" "$step2" --input "$map" --dry-run | grep -c '^step ')"

# --- stored defaults: declared < stored < --params < --set; --factory skips the stored ones
"$orvex" tools GraphCalculator --save-defaults --set 'Formula=x1*10' >/dev/null
check "save defaults exit" 0 $?
probe() { "$orvex" run GraphCalculator "$dir/d.oxp" --input "$map" -o "$dir/p.oxp" "$@" --json >/dev/null &&
  "$orvex" history "$dir/p.oxp" "$("$orvex" info "$dir/p.oxp" --json | py 'print(d["objects"][-1]["id"])')" --json |
  py 'print(d[-1]["text"].split("--set ")[1].split(" (result")[0])'; }
check "stored defaults apply" "'Formula=x1*10'" "$(probe)"
printf '# a comment\nFormula=x1*20\n' >"$dir/params.txt"
check "params beat stored" "'Formula=x1*20'" "$(probe --params "$dir/params.txt")"
check "set beats params" "'Formula=x1*30'" "$(probe --params "$dir/params.txt" --set 'Formula=x1*30')"
check "factory skips stored" "'Formula=x1'" "$(probe --factory)"
"$orvex" tools GraphCalculator --reset-defaults >/dev/null
check "reset defaults" "'Formula=x1'" "$(probe)"

# --- bad input: exit 1 (2 for an unreadable --params), one line, OUT untouched
bad "unknown tool" 1 "one of: GraphCalculator" run NoSuchTool "$dir/keep.oxp" --input "$map" -o "$dir/keep.oxp"
bad "unknown parameter" 1 "Formula" run GraphCalculator "$dir/keep.oxp" --input "$map" --set Nope=1 -o "$dir/keep.oxp"
bad "bad formula" 1 "position" run GraphCalculator "$dir/keep.oxp" --input "$map" --set 'Formula=2*(x1' -o "$dir/keep.oxp"
bad "unknown ID" 1 "no object has the ID 999" run GraphCalculator "$dir/keep.oxp" --input 999 -o "$dir/keep.oxp"
topo=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage"][0])')
bad "image as input" 1 "is a TDImage, the tool takes a TDGraph" run GraphCalculator "$dir/keep.oxp" --input "$topo" \
  -o "$dir/keep.oxp"
bad "no input" 1 "--input" run GraphCalculator "$dir/keep.oxp" -o "$dir/keep.oxp"
bad "unknown command" 1 "one of: 'Extract', 'Extract All'" run GraphCalculator "$dir/keep.oxp" --input "$map" \
  --command Nope -o "$dir/keep.oxp"
bad "unreadable params" 2 "parameter file" run GraphCalculator "$dir/keep.oxp" --input "$map" \
  --params "$dir/none.txt" -o "$dir/keep.oxp"
bad "replay without runs" 1 "no tool runs" replay "$dir/keep.oxp" "$map" --input "$map" -o "$dir/keep.oxp"
bad "replay on a missing ID" 1 "no object has the ID 999" replay "$dir/chain.oxp" "$step2" --input 999 \
  -o "$dir/keep.oxp"

# Ctrl-C: exit 1, OUT untouched (a large map so the run is still going).
"$orvex" demo -o "$dir/big.oxp" --size 128x128x1024 >/dev/null
bigmap=$("$orvex" info "$dir/big.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
cp "$dir/keep.oxp" "$dir/target.oxp"
"$orvex" run GraphCalculator "$dir/big.oxp" --input "$bigmap" --set 'Formula=sqrt(abs(x1))*sin(x2)+cos(x1)*exp(-x3/1000)+loge(1+abs(x1))' \
  -o "$dir/target.oxp" 2>"$dir/int.err" &
pid=$!
sleep 0.8
kill -INT $pid
wait $pid
check "Ctrl-C exit" 1 $?
check "Ctrl-C leaves OUT" "" "$(cmp "$dir/target.oxp" "$dir/keep.oxp" 2>&1)"

[ $fails -eq 0 ] && echo "cli_tools: all checks passed"
exit $((fails > 0))
