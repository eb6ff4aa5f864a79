#!/usr/bin/env bash
# orvex run GraphBackgroundSubtraction and PeakFindOptions: results checked with numpy through orvex data,
# the peak table as text, JSON and text object, bad input (exit 1, one line, nothing written) and a
# cancelled run writing nothing.
source "$(dirname "$0")/clitest.sh" "$1"
have_numpy=1
$numpy -c "import numpy" 2>/dev/null || have_numpy=0

"$orvex" demo -o "$dir/d.oxp" --size 12x9x64 --seed 5 >/dev/null
map=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
topo=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage"][0])')
cp "$dir/d.oxp" "$dir/keep.oxp"
"$orvex" data "$dir/d.oxp" "$map" -o "$dir/in.raw"
bad() { # description, needle, args...
  local what="$1" needle="$2"
  shift 2
  local err
  err=$("$orvex" "$@" 2>&1 >/dev/null)
  check "$what exit" 1 $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what leaves the file" "" "$(cmp "$dir/d.oxp" "$dir/keep.oxp" 2>&1)"
}
# Runs the tool with the given settings into r.oxp and dumps the first result to out.raw.
subtract() {
  local out
  out=$("$orvex" run GraphBackgroundSubtraction "$dir/d.oxp" --input "$map" "$@" -o "$dir/r.oxp" --json) || return 1
  "$orvex" data "$dir/r.oxp" "$(echo "$out" | py 'print(d[0]["id"])')" -o "$dir/out.raw" || return 1
  echo "$out" | py 'print(d[0]["caption"])'
}
compare() { # description, python lines that set want from a (float32, one spectrum a row)
  [ $have_numpy = 1 ] || { echo "numpy missing: $1 skipped"; return; }
  check "$1" "ok" "$($numpy -c "
import numpy as np
a = np.fromfile('$dir/in.raw', '<f4').reshape(-1, 64)
b = np.fromfile('$dir/out.raw', '<f4').reshape(-1, 64)
idx = np.arange(64)
$2
err = np.abs(b.astype(np.float64) - want).max() / np.abs(a).max()
print('ok' if err <= tol else 'relative error %g' % err)
")"
}

# --- polynomial against numpy's least-squares fit over the same points, zeros outside the change mask
for order in 0 3 9; do
  caption=$(subtract --set Method=Polynomial --set Order=$order --set 'Fit Mask=0:20 px, 30:33 px, 44:63 px' \
    --set 'Change Mask=5:60 px')
  check "polynomial $order exit" 0 $?
  check "polynomial caption" "$("$orvex" info "$dir/d.oxp" --json | py 'print([o["caption"] for o in d["objects"] if o["id"]=='"$map"'][0])') (Background Subtracted)" "$caption"
  compare "polynomial $order equals numpy" "
fit = np.r_[0:21, 30:34, 44:64]
change = (idx >= 5) & (idx <= 60)
want = np.zeros(a.shape)
for k, s in enumerate(a.astype(np.float64)):
    p = np.polynomial.Polynomial.fit(fit, s[fit], $order)
    want[k] = np.where(change, s - p(idx), 0)
tol = 2e-5"
done

# --- constant and minimum: exact in float arithmetic
subtract --set Method=Constant --set 'Constant Value=1.5' >/dev/null
check "constant exit" 0 $?
compare "constant is exact" "
want = (a - np.float32(1.5)).astype(np.float64)
tol = 0"
subtract --set Method=Minimum --set Offset=-0.25 --set 'Fit Mask=10:50 px' >/dev/null
compare "minimum is exact" "
m = (a[:, 10:51].min(1).astype(np.float64) - 0.25).astype(np.float32)
want = (a - m[:, None]).astype(np.float64)
tol = 0"
subtract --set Method=Minimum --set 'Fit Mask=none' --set 'Change Mask=0:31 px' >/dev/null
compare "empty fit mask keeps the change mask's values" "
want = np.where(idx <= 31, a, 0).astype(np.float64)
tol = 0"
subtract --set Method=Polynomial --set 'Change Mask=none' >/dev/null
compare "empty change mask gives zeros" "
want = np.zeros(a.shape)
tol = 0"

# --- the background itself: input minus result
out=$("$orvex" run GraphBackgroundSubtraction "$dir/d.oxp" --input "$map" --set Method=Average \
  --command "Extract Background" -o "$dir/bg.oxp" --json)
check "extract background exit" 0 $?
contains "background caption" " (Background)" "$(echo "$out" | py 'print(d[0]["caption"])')"
"$orvex" data "$dir/bg.oxp" "$(echo "$out" | py 'print(d[0]["id"])')" -o "$dir/bg.raw"
subtract --set Method=Average >/dev/null
compare "background plus result is the input" "
bg = np.fromfile('$dir/bg.raw', '<f4').reshape(-1, 64)
want = (a - bg).astype(np.float64)
tol = 0"

# --- every method runs on the map
for method in "Auto Polynomial" Shape "Auto Average"; do
  "$orvex" run GraphBackgroundSubtraction "$dir/d.oxp" --input "$map" --set "Method=$method" --set "Shape Size=10" \
    -o "$dir/m.oxp" >/dev/null
  check "$method exit" 0 $?
done

# --- peaks: text, JSON, the text object; every spectrum with --all
text=$("$orvex" run PeakFindOptions "$dir/d.oxp" --input "$map" --set 'Pixel X=2' --set 'Pixel Y=3' -o "$dir/p.oxp")
check "peaks exit" 0 $?
contains "peak table header" "# x	y	pixel	position	height" "$text"
rows=$(printf '%s\n' "$text" | grep -c '^2	3	')
json=$("$orvex" run PeakFindOptions "$dir/d.oxp" --input "$map" --set 'Pixel X=2' --set 'Pixel Y=3' -o "$dir/p.oxp" --json)
check "peaks json exit" 0 $?
check "json rows as text rows" "$rows" "$(echo "$json" | py 'print(len(d))')"
check "json fields" "x,y,pixel,position,height,smoothedHeight,fwhm,relativeHeight,asymmetry,negative,custom" \
  "$(echo "$json" | py 'print(",".join(d[0].keys()) if d else "no peaks")')"
check "the text object" "TDText Peak Table (" \
  "$("$orvex" info "$dir/p.oxp" --json | py 'o=d["objects"][-1]; print(o["class"], o["caption"][:12])')"
if [ $have_numpy = 1 ]; then
  "$orvex" axis "$dir/d.oxp" "$map" >"$dir/axis.txt"
  check "positions on the axis at the pixels" "ok" "$(echo "$json" | $numpy -c "
import json, sys, numpy as np
d = json.load(sys.stdin)
ax = np.loadtxt('$dir/axis.txt')
ok = all(min(ax[int(p['pixel'])], ax[int(p['pixel']) + 1]) <= p['position'] <= max(ax[int(p['pixel'])], ax[int(p['pixel']) + 1]) for p in d)
print('ok' if ok and d else 'positions %s' % [(p['pixel'], p['position']) for p in d])
")"
fi
all=$("$orvex" run PeakFindOptions "$dir/d.oxp" --input "$map" --all -o "$dir/pa.oxp" --json)
check "peaks of every spectrum" "108" "$(echo "$all" | py 'print(len({(p["x"], p["y"]) for p in d}))')"

# --- bad input: exit 1, one line, nothing written
bad "image as input" "TDImage" run GraphBackgroundSubtraction "$dir/keep.oxp" --input "$topo" -o "$dir/keep.oxp"
bad "inverted mask" "Fit Mask" run GraphBackgroundSubtraction "$dir/keep.oxp" --input "$map" \
  --set 'Fit Mask=9:3 px' -o "$dir/keep.oxp"
bad "mask outside the axis" "Change Mask" run GraphBackgroundSubtraction "$dir/keep.oxp" --input "$map" \
  --set 'Change Mask=100:200 px' -o "$dir/keep.oxp"
bad "mask too small for the order" "Order 5 needs at least 6" run GraphBackgroundSubtraction "$dir/keep.oxp" \
  --input "$map" --set Order=5 --set 'Fit Mask=0:3 px' -o "$dir/keep.oxp"
bad "order out of range" "Order" run GraphBackgroundSubtraction "$dir/keep.oxp" --input "$map" --set Order=10 \
  -o "$dir/keep.oxp"
bad "reference of many spectra" "Reference Spectrum" run GraphBackgroundSubtraction "$dir/keep.oxp" --input "$map" \
  --set Method=Constant --set "Reference Spectrum=$map" -o "$dir/keep.oxp"
bad "pixel outside the map" "Pixel X 12" run PeakFindOptions "$dir/keep.oxp" --input "$map" --set 'Pixel X=12' \
  -o "$dir/keep.oxp"

# --- a cancelled run writes nothing (when the run outlives the signal's delay)
"$orvex" demo -o "$dir/big.oxp" --size 96x96x512 --seed 3 >/dev/null
bigmap=$("$orvex" info "$dir/big.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
"$orvex" run GraphBackgroundSubtraction "$dir/big.oxp" --input "$bigmap" --set "Method=Auto Polynomial" \
  --set Order=7 -o "$dir/cancelled.oxp" 2>"$dir/cancel.err" >/dev/null &
pid=$!
sleep 1
kill -INT $pid 2>/dev/null
wait $pid
code=$?
if [ $code = 0 ]; then
  echo "note: the run ended before the interrupt; cancel not checked"
else
  check "cancel exit" 1 $code
  contains "cancel message" "cancelled" "$(cat "$dir/cancel.err")"
  check "cancel writes nothing" "no" "$([ -e "$dir/cancelled.oxp" ] && echo yes || echo no)"
fi

[ $fails = 0 ] && echo "all background and peak command-line checks passed"
exit $((fails > 0))
