#!/usr/bin/env bash
# orvex run GraphFilterDialog / FilterViewerExtract / FilterManagerExtract on demo maps, checked with numpy
# and scipy on the values that orvex data gives: every graph filter kind in each background case (both
# sides, one side, none, a range at the field's end), Savitzky-Golay against scipy, binomial average and
# median over the available neighbours, the silicon band at 520 rel. 1/cm; bad input: exit 1, one line,
# nothing written. Skipped (77) without scipy.
source "$(dirname "$0")/clitest.sh" "$1"
numpy=/usr/bin/python3
$numpy -c "import numpy, scipy" 2>/dev/null || { echo "numpy/scipy missing: skipped"; exit 77; }

"$orvex" demo -o "$dir/d.oxp" --size 14x10x512 --seed 3 >/dev/null
"$orvex" demo -o "$dir/s.oxp" --size 12x9x64 --seed 5 >/dev/null
ids() { "$orvex" info "$1" --json | py "print(' '.join(str(o['id']) for o in d['objects'] if o['class']=='$2'))"; }
read -r map truth _ <<<"$(ids "$dir/d.oxp" TDGraph)"
read -r topo _ <<<"$(ids "$dir/d.oxp" TDImage)"
"$orvex" data "$dir/d.oxp" "$map" -o "$dir/map.raw"
"$orvex" axis "$dir/d.oxp" "$map" >"$dir/axis.txt"
first() { echo "$1" | py 'print(d[0]["id"])'; }

# --- FilterViewerExtract: every kind, each background case, a range inside and one at the field's start
kinds=("Sum" "Average" "Minimum" "Maximum" "Pos. Minimum" "Pos. Maximum" "Position" "Width" "Avg-Min" "Std. Deviation")
: >"$dir/cases.txt"
for range in "1001 60" "95 20"; do
  read -r pos width <<<"$range"
  for bg in "4 4" "4 0" "0 4" "0 0"; do
    read -r lower upper <<<"$bg"
    for k in "${!kinds[@]}"; do
      out=$("$orvex" run FilterViewerExtract "$dir/d.oxp" --input "$map" --set "FilterKind=${kinds[$k]}" \
        --set FilterPosition=$pos --set FilterWidth=$width --set LowerBGPixels=$lower --set UpperBGPixels=$upper \
        -o "$dir/f.oxp" --json)
      check "viewer extract ${kinds[$k]} $range $bg exit" 0 $?
      "$orvex" data "$dir/f.oxp" "$(first "$out")" -o "$dir/f_${k}_${pos}_${lower}_${upper}.raw"
      echo "$k $pos $width $lower $upper" >>"$dir/cases.txt"
    done
  done
done
check "every kind and case against numpy" "ok" "$($numpy - "$dir" <<'PY'
import sys
import numpy as np
d = sys.argv[1]
x = np.loadtxt(d + "/axis.txt")
n = len(x)
spectra = np.fromfile(d + "/map.raw", "<f4").reshape(-1, n).astype(np.float64)

def background(y, start, stop, lower, upper):
    # rising axis: the lower pixels lie before the range, the upper ones after it
    lo = np.arange(max(0, start - lower), start)
    up = np.arange(stop + 1, min(n, stop + 1 + upper))
    sides = [(y[i].mean(), x[i].mean()) for i in (lo, up) if len(i) > 0]
    mean = np.mean([s[0] for s in sides]) if sides else 0.0
    if len(lo) and len(up):
        (lv, lx), (uv, ux) = sides
        return y - ((x - lx) * (uv - lv) / (ux - lx) + lv), mean
    return y - mean, mean

def width(v, start, stop, fraction):
    p = start + int(np.argmax(v[start:stop + 1]))
    level = v[p] * fraction
    right = np.nonzero(v[p + 1:] < level)[0]
    if len(right) == 0:
        return 0.0
    r = p + right[0]
    left = np.nonzero(v[:p + 1] < level)[0]
    l = left[-1] if len(left) else 0
    xl = x[l] + (x[l + 1] - x[l]) * (level - v[l]) / (v[l + 1] - v[l])
    xr = x[r] + (x[r + 1] - x[r]) * (level - v[r]) / (v[r + 1] - v[r])
    return abs(xl - xr)

def reference(kind, y, start, stop, lower, upper):
    v, mean = background(y, start, stop, lower, upper)
    r = slice(start, stop + 1)
    vr, xr, m = v[r], x[r], stop - start + 1
    return [y[r].sum() - m * mean, y[r].mean() - mean, vr.min(), vr.max(), xr[np.argmin(vr)], xr[np.argmax(vr)],
            (xr * vr).sum() / vr.sum(), width(v, start, stop, 0.5), vr.mean() - vr.min(),
            np.sqrt(abs((vr.sum() / m) ** 2 - (vr ** 2).sum() / m))][kind]

bad = []
for line in open(d + "/cases.txt"):
    k, pos, w, lower, upper = (float(v) for v in line.split())
    k, lower, upper = int(k), int(lower), int(upper)
    inside = np.nonzero((x >= pos - w / 2) & (x <= pos + w / 2))[0]
    start, stop = inside[0], inside[-1]
    got = np.fromfile(f"{d}/f_{k}_{int(pos)}_{lower}_{upper}.raw", "<f4")
    want = np.array([reference(k, s, start, stop, lower, upper) for s in spectra])
    scale = np.abs(want).max() + np.abs(spectra).max() * (k in (0, 1, 2, 3, 8, 9))
    tol = (1e-5 * (stop - start + 2)) * scale + (1e-4 * abs(x[1] - x[0]) if k in (4, 5, 6, 7) else 0)
    err = np.abs(got - want).max()
    if not err <= tol:
        bad.append(f"kind {k} at {pos} bg {lower},{upper}: max diff {err:g} > {tol:g}")
print("ok" if not bad else "; ".join(bad[:4]))
PY
)"

# --- Graph Filter: Savitzky-Golay against scipy, average and median over the available neighbours
run_graph_filter() { # name, sets...
  local name="$1"
  shift
  local out
  out=$("$orvex" run GraphFilterDialog "$dir/d.oxp" --input "$map" "$@" -o "$dir/g.oxp" --json)
  check "graph filter $name exit" 0 $?
  echo "$out" | py 'print(d[0]["caption"])' >"$dir/gf_$name.caption"
  "$orvex" data "$dir/g.oxp" "$(first "$out")" -o "$dir/gf_$name.raw"
}
run_graph_filter sg0 --set Mode=Savitzky-Golay
run_graph_filter sg1 --set Mode=Savitzky-Golay --set SGOrder=3 --set SGDerivative=1 --set SGLeft=5 --set SGRight=5
run_graph_filter sg2 --set Mode=Savitzky-Golay --set SGOrder=2 --set SGDerivative=2 --set SGLeft=3 --set SGRight=6
run_graph_filter avg --set Mode=Average --set AverageSpectral=2 --set AverageSpatial=1
run_graph_filter med --set Mode=Median --set MedianSpectral=1 --set MedianSpatial=1
check "captions" "Raman Map (demo) (SG 5,5,4,0)|Raman Map (demo) (SG 5,5,3,1)|Raman Map (demo) (Average 2,1)" \
  "$(cat "$dir/gf_sg0.caption")|$(cat "$dir/gf_sg1.caption")|$(cat "$dir/gf_avg.caption")"
check "graph filters against scipy and numpy" "ok" "$($numpy - "$dir" <<'PY'
import sys
import numpy as np
from scipy.ndimage import correlate1d
from scipy.signal import savgol_coeffs
d = sys.argv[1]
n = len(np.loadtxt(d + "/axis.txt"))
sx, sy = 14, 10
spectra = np.fromfile(d + "/map.raw", "<f4").reshape(sy, sx, n).astype(np.float64)
scale = np.abs(spectra).max()
bad = []
for name, nl, nr, m, ld in (("sg0", 5, 5, 4, 0), ("sg1", 5, 5, 3, 1), ("sg2", 3, 6, 2, 2)):
    w = nl + nr + 1
    c = savgol_coeffs(w, m, deriv=ld, pos=nl, use="dot")
    want = correlate1d(spectra, c, axis=-1, mode="reflect", origin=nl - w // 2)
    got = np.fromfile(f"{d}/gf_{name}.raw", "<f4").reshape(sy, sx, n)
    err = np.abs(got - want).max()
    if not err <= 1e-5 * scale * np.abs(c).sum():
        bad.append(f"{name}: {err:g}")

def binomial(size):
    row = np.array([1.0])
    for _ in range(2 * size):
        row = np.convolve(row, [1.0, 1.0])
    return row / row.sum()

def neighbourhood(a, b, median):
    wa, wb = binomial(a), binomial(b)
    out = np.zeros_like(spectra)
    for y in range(sy):
        for x in range(sx):
            rows, weights = [], []
            for dy in range(-b, b + 1):
                for dx in range(-b, b + 1):
                    py, px = y + dy, x + dx
                    if not (0 <= py < sy and 0 <= px < sx):
                        continue
                    padded = np.concatenate([np.full(a, np.nan), spectra[py, px], np.full(a, np.nan)])
                    for k in range(-a, a + 1):
                        rows.append(padded[a + k:a + k + n])
                        weights.append(wa[k + a] * wb[dx + b] * wb[dy + b])
            values = np.array(rows)
            present = ~np.isnan(values)
            if median:
                out[y, x] = np.nanmedian(values, axis=0)
            else:
                wt = np.array(weights)[:, None] * present
                out[y, x] = np.nansum(values * wt, axis=0) / wt.sum(axis=0)
    return out

for name, a, b, median in (("avg", 2, 1, False), ("med", 1, 1, True)):
    got = np.fromfile(f"{d}/gf_{name}.raw", "<f4").reshape(sy, sx, n)
    err = np.abs(got - neighbourhood(a, b, median)).max()
    if not err <= 1e-5 * scale:
        bad.append(f"{name}: {err:g}")
print("ok" if not bad else "; ".join(bad))
PY
)"

# --- the silicon band: its position on the true spectrum, the gradient of its sum, the Lorentz centres
out=$("$orvex" run FilterViewerExtract "$dir/d.oxp" --input "$truth" --set FilterKind=Position \
  --set FilterPosition=520 --set FilterWidth=30 -o "$dir/t.oxp")
check "single spectrum exit" 0 $?
check "silicon at 520.7 rel. 1/cm" "ok" "$(echo "$out" | awk -F'\t' '/^Position/ { print ($2 > 520.4 && $2 < 521.0) ? "ok" : $2 }')"
contains "single spectrum gives a text" "TDText" "$out"
out=$("$orvex" run FilterViewerExtract "$dir/d.oxp" --input "$map" --set FilterPosition=520 --set FilterWidth=30 \
  -o "$dir/si.oxp" --json)
"$orvex" data "$dir/si.oxp" "$(first "$out")" -o "$dir/si.raw"
check "silicon sum brighter to the right" "ok" "$($numpy -c "
import numpy as np
s = np.fromfile('$dir/si.raw', '<f4').reshape(10, 14)
print('ok' if s[:, 7:].mean() > s[:, :7].mean() else 'left %g right %g' % (s[:, :7].mean(), s[:, 7:].mean()))
")"
out=$("$orvex" run FilterManagerExtract "$dir/d.oxp" --input "$map" --set FilterClass=Lorentz --set RangeLower=480 \
  --set RangeUpper=560 -o "$dir/l.oxp" --json)
check "filter manager exit" 0 $?
check "filter manager adds the images and the filter" "TDImage TDImage TDImage TDImage TDImage TDLorentzFilter" \
  "$(echo "$out" | py 'print(" ".join(o["class"] for o in d))')"
centre=$(echo "$out" | py 'print(d[1]["id"])')
check "the filter links its images" "$(echo "$out" | py 'print(",".join(str(o["id"]) for o in d[:5]))')" \
  "$("$orvex" info "$dir/l.oxp" --json | py 'f=[o for o in d["objects"] if o["class"]=="TDLorentzFilter"][0]["references"]; print(",".join(str(f["TargetID%d" % i]) for i in range(5)))')"
"$orvex" data "$dir/l.oxp" "$centre" -o "$dir/centre.raw"
check "Lorentz centres: median within 0.2 of 520.7" "ok" "$($numpy -c "
import numpy as np
c = np.fromfile('$dir/centre.raw', '<f4')
m = np.median(c)
print('ok' if abs(m - 520.7) <= 0.2 else 'median %g' % m)
")"

# --- bad input: exit 1, one line, nothing written
cp "$dir/d.oxp" "$dir/keep.oxp"
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
bad "range off the axis" "lies off the axis" run FilterViewerExtract "$dir/keep.oxp" --input "$map" \
  --set FilterPosition=9000 -o "$dir/keep.oxp"
bad "negative width" "FilterWidth" run FilterViewerExtract "$dir/keep.oxp" --input "$map" --set FilterWidth=-1 \
  -o "$dir/keep.oxp"
bad "background count" "LowerBGPixels" run FilterViewerExtract "$dir/keep.oxp" --input "$map" \
  --set LowerBGPixels=17 -o "$dir/keep.oxp"
bad "manager background count" "UpperBGPixels" run FilterManagerExtract "$dir/keep.oxp" --input "$map" \
  --set UpperBGPixels=-1 -o "$dir/keep.oxp"
bad "manager range off the axis" "lies off the axis" run FilterManagerExtract "$dir/keep.oxp" --input "$map" \
  --set RangeLower=-900 --set RangeUpper=-800 -o "$dir/keep.oxp"
bad "image as input" "is a TDImage" run FilterViewerExtract "$dir/keep.oxp" --input "$topo" -o "$dir/keep.oxp"
bad "image into the graph filter" "TDImage" run GraphFilterDialog "$dir/keep.oxp" --input "$topo" -o "$dir/keep.oxp"
bad "not a quick filter file" "Wrong Identification - Is this a Quick Filter file ?" run FilterViewerExtract \
  "$dir/keep.oxp" --input "$map" --set "QuickFilterFile=$dir/d.oxp" -o "$dir/keep.oxp"
bad "no input" "--input" run FilterViewerExtract "$dir/keep.oxp" -o "$dir/keep.oxp"
bad "window order" "SGOrder" run GraphFilterDialog "$dir/keep.oxp" --input "$map" --set SGLeft=1 --set SGRight=1 \
  --set SGOrder=4 -o "$dir/keep.oxp"
small=$(ids "$dir/s.oxp" TDGraph | awk '{print $1}')
cp "$dir/s.oxp" "$dir/keep.oxp"
cp "$dir/s.oxp" "$dir/d.oxp"
bad "window as long as the spectrum" "SGLeft + SGRight + 1 = 64" run GraphFilterDialog "$dir/keep.oxp" \
  --input "$small" --set Mode=Savitzky-Golay --set SGLeft=32 --set SGRight=31 -o "$dir/keep.oxp"

[ "$fails" -eq 0 ] && echo "all checks passed"
exit $((fails > 0))
