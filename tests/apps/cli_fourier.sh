#!/usr/bin/env bash
# orvex run ImageFourierFilter: every pattern against numpy's FFT filtering of the same image (square and
# not, even and odd working size), the amplitude image and its axes, and bad input (exit 1, one line,
# nothing written).
source "$(dirname "$0")/clitest.sh" "$1"

# The numpy model of the tool: the image sampled bilinearly (clamped) to N x N, transformed, the marked
# frequencies set to 0, transformed back and the real part sampled back to the image's size.
cat >"$dir/model.py" <<'EOF'
import sys
import numpy as np

def bilinear(a, xs, ys):
    h, w = a.shape
    xs = np.clip(xs, 0, w - 1); ys = np.clip(ys, 0, h - 1)
    i = np.floor(xs).astype(int); j = np.floor(ys).astype(int)
    i1 = np.minimum(i + 1, w - 1); j1 = np.minimum(j + 1, h - 1)
    fx = xs - i; fy = (ys - j)[:, None]
    r0 = a[j][:, i] * (1 - fx) + a[j][:, i1] * fx
    r1 = a[j1][:, i] * (1 - fx) + a[j1][:, i1] * fx
    return r0 * (1 - fy) + r1 * fy

def mask(kind, f, n, sfx, sfy):
    idx = np.rint(np.fft.fftfreq(n) * n).astype(int)   # -floor(n/2) .. ceil(n/2)-1 in bin order
    fx = (idx * sfx)[None, :]; fy = (idx * sfy)[:, None]
    if kind == 'Free Hand': return np.zeros((n, n), bool)
    if kind == 'Low Pass Line': return np.broadcast_to(f * f < fx * fx, (n, n))
    if kind == 'Low Pass': return f * f < fx * fx + fy * fy
    if kind == 'High Pass Line': return np.broadcast_to(fx * fx < f * f, (n, n))
    if kind == 'High Pass': return fx * fx + fy * fy < f * f
    h = max(2, int(abs(f / sfx)))
    return np.broadcast_to(((idx != 0) & (idx % h == 0))[None, :], (n, n))

def model(a, kind, f, px, py):
    sy, sx = a.shape
    n = max(sx, sy)
    s = bilinear(a, np.arange(n) * (sx / n), np.arange(n) * (sy / n))
    F = np.fft.fft2(s)
    F[mask(kind, f, n, 1 / (sx * px), 1 / (sy * py))] = 0
    g = np.fft.ifft2(F).real
    return bilinear(g, np.arange(sx) / (sx / n), np.arange(sy) / (sy / n))
EOF

# px: the pixel size from `orvex info`: "x: 0 ... 45.83 µm, 12 px".
pixel() { "$orvex" info "$1" | $numpy -c "
import re, sys
t = sys.stdin.read().split('  $2  TDImage', 1)[1]
x = re.search(r'x: (\S+) \.\.\. (\S+) µm, (\d+) px', t); y = re.search(r'y: (\S+) \.\.\. (\S+) µm, (\d+) px', t)
print((float(x[2]) - float(x[1])) / (int(x[3]) - 1), (float(y[2]) - float(y[1])) / (int(y[3]) - 1))"; }

image_id() { "$orvex" info "$1" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDImage"][0])'; }

# 12x9: N = 12 (even, not square); 9x9 (odd, square); 11x6: N = 11 (odd, not square); 8x8 (even, square).
for size in 12x9 9x9 11x6 8x8; do
  "$orvex" demo -o "$dir/d$size.oxp" --size ${size}x32 --seed 3 >/dev/null
  id=$(image_id "$dir/d$size.oxp")
  pxy=$(pixel "$dir/d$size.oxp" "$id")
  sx=${size%x*}
  sy=${size#*x}
  "$orvex" data "$dir/d$size.oxp" "$id" -o "$dir/in.raw"
  cases=()
  for kind in "Free Hand" "Low Pass Line" "Low Pass" "High Pass Line" "High Pass" "Remove Harmonics"; do
    # The square sizes take one frequency, the others two.
    for f in 0.0517 $([ "$sx" = "$sy" ] || echo 0.1113); do cases+=("$kind|$f"); done
  done
  # The edges: frequency 0 in the patterns that keep or drop everything but the constant part.
  cases+=("Low Pass|0" "High Pass|0" "Remove Harmonics|0")
  k=0
  for c in "${cases[@]}"; do
    kind=${c%|*}
    f=${c#*|}
    out=$("$orvex" run ImageFourierFilter "$dir/d$size.oxp" --input "$id" --set "FilterTypeComboBox=$kind" \
      --set FilterFrequency=$f -o "$dir/r.oxp" --json)
    check "$size $kind $f exit" 0 $?
    contains "$size $kind $f caption" ' (Fourier Filter)"}]' "$out"
    "$orvex" data "$dir/r.oxp" "$(echo "$out" | sed -n 's/^\[{"id":\([0-9]*\),.*/\1/p')" -o "$dir/out$k.raw"
    k=$((k + 1))
  done
  # One interpreter for all cases of this size: a line per case that numpy doesn't agree with.
  check "$size against numpy" "" "$(printf '%s\n' "${cases[@]}" | $numpy -c "
import sys; sys.path.insert(0, '$dir')
import numpy as np
from model import model
px, py = map(float, '$pxy'.split())
a = np.fromfile('$dir/in.raw', '<f4').reshape($sy, $sx).astype(np.float64)
for k, line in enumerate(sys.stdin.read().split(chr(10))[:-1]):
    kind, f = line.split('|')
    b = np.fromfile('$dir/out%d.raw' % k, '<f4').reshape($sy, $sx)
    err = np.abs(b - model(a, kind, float(f), px, py)).max() / max(np.abs(a).max(), 1e-30)
    if not err < 2e-5: print('%s %s: relative error %g' % (kind, f, err))
")"
done

# Free Hand on a square image gives the image back.
"$orvex" data "$dir/d9x9.oxp" "$(image_id "$dir/d9x9.oxp")" -o "$dir/in.raw"
out=$("$orvex" run ImageFourierFilter "$dir/d9x9.oxp" --input "$(image_id "$dir/d9x9.oxp")" -o "$dir/r.oxp" --json)
"$orvex" data "$dir/r.oxp" "$(echo "$out" | py 'print(d[0]["id"])')" -o "$dir/out.raw"
check "free hand returns the square image" "ok" "$($numpy -c "
import numpy as np
a = np.fromfile('$dir/in.raw', '<f4'); b = np.fromfile('$dir/out.raw', '<f4')
print('ok' if np.abs(a - b).max() <= 1e-5 * np.abs(a).max() else 'differs by %g' % np.abs(a - b).max())
")"

# --- Extract Amplitude: |F| with frequency 0 in the middle, axes in 1/µm
id=$(image_id "$dir/d12x9.oxp")
"$orvex" data "$dir/d12x9.oxp" "$id" -o "$dir/in.raw"
for scale in Linear Log Sqrt; do
  out=$("$orvex" run ImageFourierFilter "$dir/d12x9.oxp" --input "$id" --command "Extract Amplitude" \
    --set Scale=$scale -o "$dir/a.oxp" --json)
  check "amplitude $scale exit" 0 $?
  check "amplitude results" "TDImage TDSpaceTransformation" "$(echo "$out" | py 'print(" ".join(o["class"] for o in d))')"
  aid=$(echo "$out" | py 'print(d[0]["id"])')
  "$orvex" data "$dir/a.oxp" "$aid" -o "$dir/amp.raw"
  check "amplitude $scale against numpy" "ok" "$($numpy -c "
import sys; sys.path.insert(0, '$dir')
import numpy as np
from model import bilinear
a = np.fromfile('$dir/in.raw', '<f4').reshape(9, 12).astype(np.float64)
s = bilinear(a, np.arange(12) * 1.0, np.arange(12) * 0.75)
A = np.fft.fftshift(np.abs(np.fft.fft2(s)))
A = {'Linear': A, 'Log': np.log(np.maximum(A, 1e-36)), 'Sqrt': np.sqrt(A)}['$scale']
b = np.fromfile('$dir/amp.raw', '<f4').reshape(12, 12)
err = np.abs(b - A).max() / np.abs(A).max()
print('ok' if err < 2e-5 else 'relative error %g' % err)
")"
done
info=$("$orvex" info "$dir/a.oxp")
contains "amplitude caption" "(Fourier Amplitude)\"  sizeX=12  sizeY=12" "$info"
contains "inverse transformation" "TDSpaceTransformation  \"Inverse Spatial Transformation\"" "$info"
contains "amplitude interpretation" "TDZInterpretation  \"Amplitude\"" "$info"
# A 12 x 9 image of 4.1667 µm pixels: one index is 1/50 1/µm in x, 1/37.5 1/µm in y; frequency 0 at pixel 6.
check "amplitude axes" "ok" "$(echo "$info" | $numpy -c "
import re, sys
t = sys.stdin.read().split('(Fourier Amplitude)', 1)[1]
x = re.search(r'x: (\S+) \.\.\. (\S+) 1/µm, 12 px', t); y = re.search(r'y: (\S+) \.\.\. (\S+) 1/µm, 12 px', t)
px, py = map(float, '$(pixel "$dir/d12x9.oxp" "$id")'.split())
fx, fy = 1 / (12 * px), 1 / (9 * py)
got = [float(x[1]), float(x[2]), float(y[1]), float(y[2])]
want = [-6 * fx, 5 * fx, -6 * fy, 5 * fy]
print('ok' if all(abs(g - w) < 1e-9 for g, w in zip(got, want)) else 'axes %s, expected %s' % (got, want))
")"

# --- bad input: exit 1, one line naming the culprit, nothing written
"$orvex" demo -o "$dir/b.oxp" --size 12x1x32 --seed 3 >/dev/null
cp "$dir/d12x9.oxp" "$dir/keep.oxp"
bad() { # description, needle, file, args...
  local what="$1" needle="$2" file="$3"
  shift 3
  local err
  err=$("$orvex" run ImageFourierFilter "$file" "$@" -o "$dir/none.oxp" 2>&1 >/dev/null)
  check "$what exit" 1 $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what writes nothing" "no" "$([ -e "$dir/none.oxp" ] && echo yes || echo no)"
}
images=$("$orvex" info "$dir/d12x9.oxp" --json | py 'print(",".join([str(o["id"]) for o in d["objects"] if o["class"]=="TDImage"][:2]))')
map=$("$orvex" info "$dir/d12x9.oxp" --json | py 'print([o["id"] for o in d["objects"] if o["class"]=="TDGraph"][0])')
bad "two images" "exactly one image, 2 given" "$dir/d12x9.oxp" --input "$images"
bad "a graph" "takes a TDImage" "$dir/d12x9.oxp" --input "$map"
bad "below 2x2" "at least 2 x 2" "$dir/b.oxp" --input "$(image_id "$dir/b.oxp")"
bad "negative frequency" "FilterFrequency" "$dir/d12x9.oxp" --input "$id" --set FilterFrequency=-1
bad "unknown pattern" "Remove Harmonics" "$dir/d12x9.oxp" --input "$id" --set "FilterTypeComboBox=Band Pass"
# NaN in the image: one stored value of the image replaced in the file.
"$orvex" data "$dir/d12x9.oxp" "$id" -o "$dir/in.raw"
$numpy -c "
import numpy as np
raw = open('$dir/in.raw', 'rb').read(); f = open('$dir/d12x9.oxp', 'rb').read()
assert f.count(raw) == 1
i = f.find(raw) + 4 * 13
open('$dir/nan.oxp', 'wb').write(f[:i] + np.float32('nan').tobytes() + f[i + 4:])
"
bad "NaN" "(ID $id) holds NaN" "$dir/nan.oxp" --input "$id"
check "other input untouched" "" "$(cmp "$dir/d12x9.oxp" "$dir/keep.oxp" 2>&1)"

exit $((fails > 0))
