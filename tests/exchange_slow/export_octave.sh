#!/usr/bin/env bash
# GNU Octave's load reads both MAT layouts of `orvex export`: names, sizes and values (a "dataset" object
# arrives as a struct, with a warning). Octave is installed by `scripts/setup --with-octave`; without it the
# test says "skipped".
set -u
orvex="$1"
if ! command -v octave >/dev/null 2>&1; then
  echo "skipped: octave is not installed (scripts/setup --with-octave installs it)"
  exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
"$orvex" demo -o "$dir/d.oxp" --size 6x4x16 >/dev/null || { echo "FAIL: demo"; exit 1; }
"$orvex" data "$dir/d.oxp" 5 -o "$dir/raw.bin" || { echo "FAIL: data"; exit 1; }
for layout in "DSO 6.0" "Matlab Structure"; do
  "$orvex" export "$dir/d.oxp" 5 --format matlab -o "$dir/map.mat" --set "MatlabExportTypeIndex=$layout" \
    --set "XSpectralUnitIndex=rel. 1/cm" >/dev/null || { echo "FAIL: export $layout"; fails=$((fails + 1)); continue; }
  "$orvex" axis "$dir/d.oxp" 5 >"$dir/axis.txt"
  out=$(cd "$dir" && octave --no-gui --norc --quiet --eval '
    s = load("map.mat");
    names = fieldnames(s);
    assert(numel(names) == 1 && strcmp(names{1}, "Raman_Map_demo"), "variable name");
    v = s.Raman_Map_demo;
    f = fopen("raw.bin", "r"); raw = fread(f, Inf, "single=>single"); fclose(f);
    raw = reshape(raw, 16, 6, 4);                 % [point, x, y]: spectrum after spectrum, e = x + y*6
    expected = reshape(permute(raw, [3 2 1]), 24, 16);  % rows: y fastest, then x
    assert(isa(v.data, "single"), "data single");
    assert(isequal(size(v.data), [24 16]), "data size");
    assert(isequal(v.data, expected), "data values");
    ax = load("axis.txt");
    assert(max(abs(v.axisscale{2,1}(:) - ax(:))) <= 1e-9 * max(abs(ax)), "spectral axis");
    assert(strcmp(v.axisscale{2,2}, "rel. 1/cm"), "spectral unit");
    assert(isequal(double(v.imagesize(:))'"'"', [6 4]), "imagesize");
    assert(strcmp(v.name, "Raman Map (demo)"), "name");
    disp("ok");' 2>&1)
  if ! echo "$out" | grep -q '^ok$'; then echo "FAIL: octave $layout: $out"; fails=$((fails + 1)); fi
done
if [ "$fails" -ne 0 ]; then echo "$fails check(s) failed"; exit 1; fi
echo "export_octave: both layouts load"
