#!/usr/bin/env bash
# orvex tools / run PCA: its parameter listing, a run on the demo map (captions, sizes, the eigenvalue
# graph's axis 0, 1, 2, ..., a falling eigenvalue spectrum, the replayable history), and bad input (exit 1,
# one line naming the culprit, nothing written).
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}
contains() { # description, needle, haystack
  case "$3" in *"$2"*) ;; *) echo "FAIL: $1: [$2] not in [$3]"; fails=$((fails + 1)) ;; esac
}
py() { python3 -c "import json,sys; d=json.load(sys.stdin); $1"; }

"$orvex" demo -o "$dir/d.oxp" --size 16x12x256 --seed 3 >/dev/null
objects() { "$orvex" info "$1" --json | py "print(' '.join(str(o['id']) for o in d['objects'] if $2))"; }
map=$(objects "$dir/d.oxp" 'o["class"]=="TDGraph"' | cut -d' ' -f1)
topo=$(objects "$dir/d.oxp" 'o["caption"].startswith("Topography")')
cp "$dir/d.oxp" "$dir/keep.oxp"

# --- listing
list=$("$orvex" tools PCA --json)
check "tools exit" 0 $?
check "tool" "PCA TPCAForm PCA" "$(echo "$list" | py 't=d[0]; print(t["key"], t["class"], t["caption"])')"
check "parameters" "Spectrum Mask,Use Draw Field,Draw Field Pixels,PC Mask,PCA Result,PC Graphs,Transformed Spectra,Reconstructed Spectra" \
  "$(echo "$list" | py 'print(",".join(p["name"] for p in d[0]["parameters"]))')"
check "commands" "Extract" "$(echo "$list" | py 'print(",".join(c["name"] for c in d[0]["commands"]))')"

# --- the default run: eigenvalues, eigenvectors, average
out=$("$orvex" run PCA "$dir/d.oxp" --input "$map" -o "$dir/out.oxp" --json)
check "run exit" 0 $?
check "captions" "Raman Map (demo) (PCA)(EigenValues)|Raman Map (demo) (PCA)(EigenVectors)|Raman Map (demo) (PCA)(Average)" \
  "$(echo "$out" | py 'print("|".join(o["caption"] for o in d))')"
values=$(echo "$out" | py 'print(d[0]["id"])')
axis=$("$orvex" axis "$dir/out.oxp" "$values")
check "axis exit" 0 $?
check "eigenvalue axis" "256 0 1 2 255" "$(echo "$axis" | python3 -c "
import sys; v = [float(l) for l in sys.stdin if l.strip()]
print(len(v), *('%g' % x for x in v[:3]), '%g' % v[-1])")"
"$orvex" data "$dir/out.oxp" "$values" -o "$dir/values.raw"
check "eigenvalues fall" "ok" "$(python3 -c "
import array; a = array.array('f'); a.frombytes(open('$dir/values.raw', 'rb').read())
print('ok' if len(a) == 256 and a[0] > 0 and all(a[i] >= a[i + 1] for i in range(len(a) - 1)) else list(a[:5]))")"
hist=$("$orvex" history "$dir/out.oxp" "$values" --json | py 'print(d[-1]["text"])')
contains "history is the command" "orvex run PCA --input $map" "$hist"

# --- the PC mask is cut at the last component; scores and reconstructions come with it
out=$("$orvex" run PCA "$dir/d.oxp" --input "$map" --set 'Spectrum Mask=100:103 px' --set 'PC Mask=1:50 px' \
  --set 'PCA Result=false' --set 'PC Graphs=true' --set 'Transformed Spectra=true' \
  --set 'Reconstructed Spectra=true' -o "$dir/out2.oxp" --json)
check "cut run exit" 0 $?
check "cut captions" "(EigenVector 1)|(EigenVector 2)|(EigenVector 3)|(Transformed)|(Reconstructed)" \
  "$(echo "$out" | py 'print("|".join(o["caption"].rsplit("(PCA)", 1)[1] for o in d))')"

# --- bad input: exit 1, one line naming the culprit, nothing written
bad() { # description, needle, args...
  local what="$1" needle="$2"
  shift 2
  local err
  err=$("$orvex" run PCA "$dir/d.oxp" "$@" -o "$dir/bad.oxp" 2>&1 >/dev/null)
  check "$what exit" 1 $?
  contains "$what message" "$needle" "$err"
  check "$what one line" 1 "$(printf '%s\n' "$err" | wc -l)"
  check "$what writes nothing" "no" "$([ -e "$dir/bad.oxp" ] && echo yes || echo no)"
  check "$what leaves the input" "" "$(cmp "$dir/d.oxp" "$dir/keep.oxp" 2>&1)"
}
bad "PC mask beyond the components" "0..3" --input "$map" --set 'Spectrum Mask=100:103 px' --set 'PC Mask=4:9 px'
bad "one point" "Spectrum Mask" --input "$map" --set 'Spectrum Mask=7:7 px'
bad "unreadable mask" "Spectrum Mask" --input "$map" --set 'Spectrum Mask=here to there'
bad "draw field too large" "5..96" --input "$map" --set 'Use Draw Field=true' --set 'Draw Field Pixels=97'
bad "draw field too small" "Draw Field Pixels" --input "$map" --set 'Draw Field Pixels=4'
bad "not a graph" "is no graph" --input "$topo"
bad "two inputs" "one input graph" --input "$map,$map"

[ $fails -eq 0 ] && echo "cli_pca: all checks passed"
exit $((fails > 0))
