#!/usr/bin/env bash
# orvex run ImageFilter and ImageRepair: results against scipy.ndimage (mode 'mirror') on a demo image,
# captions, the repair of rectangles against numpy, and bad input (exit 1, one line, nothing written).
source "$(dirname "$0")/clitest.sh" "$1"

"$orvex" demo -o "$dir/d.oxp" --size 23x17x16 --seed 5 >/dev/null
id=$("$orvex" info "$dir/d.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage"][0])')
caption=$("$orvex" info "$dir/d.oxp" --json | py "print([o['caption'] for o in d['objects'] if o['id']==$id][0])")
"$orvex" data "$dir/d.oxp" "$id" -o "$dir/in.raw"

run() { # file, tool, args... -> the new image's ID (the first result)
  local file="$1" tool="$2"
  shift 2
  "$orvex" run "$tool" "$file" --input "$id" "$@" -o "$dir/r.oxp" --json
}
new_id() { echo "$1" | py 'print(d[0]["id"])'; }

# --- filters against scipy
have_scipy=$($numpy -c "import scipy.ndimage; print('yes')" 2>/dev/null)
cases=(
  "Median 1|--set Mode=Median| (Median 1)"
  "Median 2|--set Mode=Median --set MedianFilterSizeEdit=2| (Median 2)"
  "Average 3|--set Mode=Average --set AverageFilterSizeEdit=3| (Average 3)"
  "Variance 2|--set Mode=Variance --set VarianceFilterSizeEdit=2| (Variance 2)"
  "Laplace 2|--set Mode=Laplace --set LaplaceTypeRadioGroup=Type 2 [1,1,1][1,-8,1][1,1,1]|Laplace Type 2"
  "Custom|--set Mode=Custom --set CustomFilterFactorEdit=2 --set CustomFilterCoefficients=1,2,0,-1,3,0.5,0,-2,4| (Custom 1)"
  "Sobel Gx|--set Mode=Sobel --set SobelGyCheckBox=false --set SobelGCheckBox=false --set SobelThetaCheckBox=false| (Sobel Gx)"
)
k=0
for c in "${cases[@]}"; do
  IFS='|' read -r name args suffix <<<"$c"
  # The arguments are split at " --set " so that values may hold blanks.
  set_args=()
  rest="${args# }"
  while [ -n "$rest" ]; do
    rest="${rest#--set }"
    part="${rest%% --set *}"
    set_args+=(--set "$part")
    [ "$part" = "$rest" ] && rest="" || rest="${rest#"$part" }"
  done
  out=$(run "$dir/d.oxp" ImageFilter "${set_args[@]}")
  check "$name exit" 0 $?
  contains "$name caption" "\"caption\":\"$caption$suffix\"" "$out"
  "$orvex" data "$dir/r.oxp" "$(new_id "$out")" -o "$dir/out$k.raw"
  k=$((k + 1))
done
if [ "$have_scipy" = yes ]; then
  check "filters against scipy" "" "$($numpy -c "
import numpy as np
from math import comb
from scipy import ndimage
a = np.fromfile('$dir/in.raw', '<f4').reshape(17, 23).astype(np.float64)
def binomial(s):
    w = np.array([comb(2 * s, i) for i in range(2 * s + 1)], float); return w / w.sum()
sob = np.array([[-1, 0, 1], [-2, 0, 2], [-1, 0, 1]], float) * 0.125
refs = [ndimage.median_filter(a, size=3, mode='mirror'),
        ndimage.median_filter(a, size=5, mode='mirror'),
        ndimage.correlate1d(ndimage.correlate1d(a, binomial(3), axis=1, mode='mirror'), binomial(3), axis=0, mode='mirror'),
        ndimage.generic_filter(a, np.var, size=5, mode='mirror'),
        ndimage.correlate(a, np.array([[1, 1, 1], [1, -8, 1], [1, 1, 1]], float), mode='mirror'),
        ndimage.correlate(a, np.array([[1, 2, 0], [-1, 3, 0.5], [0, -2, 4]]) / 2, mode='mirror'),
        ndimage.correlate(a, sob, mode='mirror')]
names = ['median 1', 'median 2', 'average 3', 'variance 2', 'laplace 2', 'custom', 'sobel gx']
for k, (name, ref) in enumerate(zip(names, refs)):
    b = np.fromfile('$dir/out%d.raw' % k, '<f4').reshape(17, 23)
    err = np.abs(b - ref).max() / max(np.abs(ref).max(), 1e-30)
    if not err < 2e-5: print('%s: relative error %g' % (name, err))
")"
else
  echo "scipy missing: the comparisons with scipy.ndimage are skipped"
fi

# --- repair: line interpolation of two rectangles against numpy
out=$(run "$dir/d.oxp" ImageRepair --set "MaskRectangles=2:4,3:6;10:10,0:2")
check "repair exit" 0 $?
contains "repair caption" "\"caption\":\"$caption (Repaired Line Interp.)\"" "$out"
"$orvex" data "$dir/r.oxp" "$(new_id "$out")" -o "$dir/rep.raw"
check "line interpolation against numpy" "ok" "$($numpy -c "
import numpy as np
a = np.fromfile('$dir/in.raw', '<f4').reshape(17, 23).astype(np.float64)
e = a.copy()
for x in (2, 3, 4):
    for y in (3, 4, 5, 6): e[y, x] = a[2, x] + (a[7, x] - a[2, x]) * (y - 2) / 5
for y in (0, 1, 2): e[y, 10] = a[3, 10]
b = np.fromfile('$dir/rep.raw', '<f4').reshape(17, 23)
print('ok' if np.abs(b - e).max() <= 1e-5 * np.abs(a).max() else 'differs by %g' % np.abs(b - e).max())
")"
out=$(run "$dir/d.oxp" ImageRepair --set "Mode=Simple Interpolation" --set SimpleInterpolationIterationsEdit=5000 \
  --set "MaskRectangles=5:9,4:8")
check "simple interpolation exit" 0 $?
"$orvex" data "$dir/r.oxp" "$(new_id "$out")" -o "$dir/rep.raw"
# The discrete Laplace equation over the rectangle with the pixels around it fixed, solved by numpy.
check "simple interpolation against numpy" "ok" "$($numpy -c "
import numpy as np
a = np.fromfile('$dir/in.raw', '<f4').reshape(17, 23).astype(np.float64)
pts = [(y, x) for y in range(4, 9) for x in range(5, 10)]
idx = {p: i for i, p in enumerate(pts)}
A = np.zeros((len(pts), len(pts))); r = np.zeros(len(pts))
for (y, x), i in idx.items():
    A[i, i] = 4
    for q in ((y - 1, x), (y + 1, x), (y, x - 1), (y, x + 1)):
        if q in idx: A[i, idx[q]] -= 1
        else: r[i] += a[q]
e = a.copy()
for (y, x), v in zip(pts, np.linalg.solve(A, r)): e[y, x] = v
b = np.fromfile('$dir/rep.raw', '<f4').reshape(17, 23)
print('ok' if np.abs(b - e).max() <= 1e-4 * np.abs(a).max() else 'differs by %g' % np.abs(b - e).max())
")"

# --- bad input: exit 1, one line naming the culprit, nothing written
bad() { # description, needle, tool, file, args...
  local what="$1" needle="$2" tool="$3" file="$4"
  shift 4
  local err
  err=$("$orvex" run "$tool" "$file" "$@" -o "$dir/none.oxp" 2>&1 >/dev/null)
  check "$what exit" 1 $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what writes nothing" "no" "$([ -e "$dir/none.oxp" ] && echo yes || echo no)"
}
f="$dir/d.oxp"
map=$("$orvex" info "$f" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
bad "median size 10" "MedianFilterSizeEdit" ImageFilter "$f" --input "$id" --set Mode=Median --set MedianFilterSizeEdit=10
bad "window above the image" "has 23 x 17 pixels, the filter window needs at least 19 x 19" ImageFilter "$f" \
  --input "$id" --set Mode=Average --set AverageFilterSizeEdit=9 --set MarginalPixelsGroupBox=Copy
bad "coefficient count" "CustomFilterCoefficients holds 4 numbers" ImageFilter "$f" --input "$id" \
  --set Mode=Custom --set CustomFilterCoefficients=1,2,3,4
bad "divisor 0" "CustomFilterFactorEdit is 0" ImageFilter "$f" --input "$id" --set Mode=Custom --set CustomFilterFactorEdit=0
printf 'ORX_FILTnothing of use' >"$dir/wrong.uif"
bad "wrong filter file" "Load failed !" ImageFilter "$f" --input "$id" --set Mode=Custom --set "CustomFilterFile=$dir/wrong.uif"
bad "a graph" "$map" ImageFilter "$f" --input "$map"
bad "empty repair mask" "the repair mask of \"$caption\" (ID $id) is empty" ImageRepair "$f" --input "$id"
bad "repair rectangle text" "MaskRectangles" ImageRepair "$f" --input "$id" --set "MaskRectangles=1:2"
# The amplitude image of the Fourier filter is 23 x 23: a mask image of another size.
amp=$("$orvex" run ImageFourierFilter "$f" --input "$id" --command "Extract Amplitude" -o "$dir/amp.oxp" --json)
other=$(new_id "$amp")
bad "mask image of another size" "has 23 x 23 pixels, \"$caption\" (ID $id) has 23 x 17" ImageRepair "$dir/amp.oxp" \
  --input "$id" --set "MaskImage=$other"

# NaN in the image: refused by the filter, repaired by the repair tool.
$numpy -c "
import numpy as np
raw = open('$dir/in.raw', 'rb').read(); f = open('$dir/d.oxp', 'rb').read()
assert f.count(raw) == 1
i = f.find(raw) + 4 * (5 * 23 + 7)
open('$dir/nan.oxp', 'wb').write(f[:i] + np.float32('nan').tobytes() + f[i + 4:])
"
bad "NaN" "(ID $id) holds NaN or Inf at pixel (7, 5)" ImageFilter "$dir/nan.oxp" --input "$id" --set Mode=Median
out=$(run "$dir/nan.oxp" ImageRepair --set "Mode=Simple Interpolation")
check "NaN repaired exit" 0 $?
"$orvex" data "$dir/r.oxp" "$(new_id "$out")" -o "$dir/rep.raw"
check "NaN repaired to a number" "ok" "$($numpy -c "
import numpy as np
b = np.fromfile('$dir/rep.raw', '<f4').reshape(17, 23); a = np.fromfile('$dir/in.raw', '<f4').reshape(17, 23)
m = np.ones_like(a, bool); m[5, 7] = False
print('ok' if np.isfinite(b).all() and (b[m] == a[m]).all() else 'not repaired')
")"

exit $((fails > 0))
