#!/usr/bin/env bash
# orvex on damaged files, unwritable output, interrupted runs, and its messages to the user.
set -u
orvex="$1"
dir=$(mktemp -d)
trap 'chmod -R u+w "$dir" 2>/dev/null; rm -rf "$dir"' EXIT
export XDG_DATA_HOME="$dir/data" XDG_CACHE_HOME="$dir/cache"
fails=0
check() { # description, expected, actual
  if [ "$2" != "$3" ]; then echo "FAIL: $1: expected [$2], got [$3]"; fails=$((fails + 1)); fi
}
contains() { # description, needle, haystack
  case "$3" in *"$2"*) ;; *) echo "FAIL: $1: [$2] not in [$3]"; fails=$((fails + 1)) ;; esac
}
lines() { printf '%s\n' "$1" | grep -c .; }

"$orvex" demo -o "$dir/d.oxp" --size 8x6x64 --seed 5 >/dev/null || { echo "FAIL: demo"; exit 1; }
map=$("$orvex" info "$dir/d.oxp" --json | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Raman Map")][0])')

# --- Damage is named, never silent ------------------------------------------------------------------
# Each object of the demo file in turn loses its own class list (its name gets one wrong byte): info
# lists it as failed, convert names it and exits 1, --allow-damaged writes the others, the log has it.
count=$("$orvex" info "$dir/d.oxp" --json | python3 -c 'import json,sys; print(len(json.load(sys.stdin)["objects"]))')
damage() { # index -> writes $dir/damaged.oxp
  python3 - "$dir/d.oxp" "$dir/damaged.oxp" "$1" <<'EOF'
import struct, sys
b = bytearray(open(sys.argv[1], 'rb').read())
def tag(pos):
    n = struct.unpack_from('<i', b, pos)[0]
    name = bytes(b[pos + 4:pos + 4 + n]).decode('latin1')
    kind, begin, end = struct.unpack_from('<iqq', b, pos + 4 + n)
    return name, kind, begin, end
def children(begin, end):
    p = begin
    while p < end:
        t = tag(p)
        yield p, t
        p = t[3]
root = tag(8)
data = [t for p, t in children(root[2], root[3]) if t[0] == 'Data'][0]
obj = [t for p, t in children(data[2], data[3]) if t[0] == 'Data ' + sys.argv[3]][0]
own = [p for p, t in children(obj[2], obj[3]) if t[1] == 0][0]  # the base class's list, which every object needs
b[own + 4] ^= 0x20
open(sys.argv[2], 'wb').write(b)
EOF
}
for ((i = 0; i < count; i++)); do
  damage $i
  failed=$("$orvex" info "$dir/damaged.oxp" --json 2>/dev/null | python3 -c 'import json,sys; j=json.load(sys.stdin); print(" ".join(str(f["index"]) for f in j["failed"]), len(j["objects"]))')
  check "info names lost object $i" "$i $((count - 1))" "$failed"
  err=$("$orvex" convert "$dir/damaged.oxp" "$dir/out$i.oxp" 2>&1 >/dev/null)
  check "convert of damaged object $i exits 1" 1 $?
  contains "convert names object $i" "Data $i (" "$err"
  contains "convert says nothing was written" "nothing written (--allow-damaged writes the rest)" "$err"
  [ -e "$dir/out$i.oxp" ] && { echo "FAIL: convert wrote a damaged file"; fails=$((fails + 1)); }
  err=$("$orvex" --yes convert "$dir/damaged.oxp" "$dir/out$i.oxp" --allow-damaged 2>&1 >/dev/null)
  check "convert --allow-damaged exit ($i)" 0 $?
  contains "--yes still warns about object $i" "warning: '$dir/damaged.oxp': Data $i (" "$err"
  # What loaded is written; objects kept only while another uses them may go with the lost one.
  check "what loaded was written ($i)" "yes" "$("$orvex" info "$dir/out$i.oxp" --json | python3 -c 'import json,sys; j=json.load(sys.stdin); n=len(j["objects"]); print("yes" if not j["failed"] and '$count' - 3 <= n <= '$count' - 1 else "no %d" % n)')"
done
grep -rqs "Data 0 (.*could not be loaded" "$dir/data"
check "the log names the lost object" 0 $?
"$orvex" append "$dir/d.oxp" "$dir/damaged.oxp" -o "$dir/app.oxp" >/dev/null 2>&1
check "append of a damaged file exits 1" 1 $?
"$orvex" append "$dir/d.oxp" "$dir/damaged.oxp" -o "$dir/app.oxp" --allow-damaged >/dev/null 2>&1
check "append --allow-damaged" 0 $?
head -c 20 "$dir/d.oxp" > "$dir/head.oxp"
err=$("$orvex" info "$dir/head.oxp" 2>&1 >/dev/null)
check "a cut head is an error" 1 $?
contains "a cut head says it is damaged" "the file is damaged" "$err"

# --- Exit codes tell the truth ---------------------------------------------------------------------------
for cmd in "info $dir/d.oxp" "info $dir/d.oxp --json" "tags $dir/d.oxp" "axis $dir/d.oxp $map"; do
  err=$($orvex $cmd 2>&1 >/dev/full)
  check "$cmd > /dev/full exits 1" 1 $?
  check "$cmd > /dev/full says why" "cannot write the output: no space left on device" "$err"
done

# --- Messages a scientist understands --------------------------------------------------------------
err=$("$orvex" frobnicate 2>&1)
check "unknown command exit" 2 $?
check "unknown command" "unknown command 'frobnicate'; see orvex --help" "$err"
err=$("$orvex" info "$dir/d.oxp" --frob 2>&1)
check "unknown option exit" 2 $?
check "unknown option" "unknown option '--frob'; see orvex --help" "$err"
err=$("$orvex" --threads -1 info "$dir/d.oxp" 2>&1)
check "threads range" "--threads must be 0 or more; see orvex --help" "$err"
err=$("$orvex" --map-size-mb 0 info "$dir/d.oxp" 2>&1)
check "map size range" "--map-size-mb must be more than 0; see orvex --help" "$err"
err=$("$orvex" info "$dir/nothere.oxp" 2>&1)
check "missing file exit" 2 $?
check "missing file" "cannot open '$dir/nothere.oxp': no such file" "$err"
err=$("$orvex" info "$dir" 2>&1)
check "folder given as file" "cannot open '$dir': is a folder" "$err"
if [ "$(id -u)" != 0 ]; then
  cp "$dir/d.oxp" "$dir/secret.oxp" && chmod 000 "$dir/secret.oxp"
  err=$("$orvex" info "$dir/secret.oxp" 2>&1)
  check "unreadable file" "cannot open '$dir/secret.oxp': permission denied" "$err"
fi
cp "$dir/d.oxp" "$dir/ro.oxp" && chmod 444 "$dir/ro.oxp"
err=$("$orvex" convert "$dir/d.oxp" "$dir/ro.oxp" 2>&1)
check "read-only target exit" 1 $?
check "read-only target" "cannot write '$dir/ro.oxp': the file is read-only" "$err"
err=$("$orvex" convert "$dir/d.oxp" "$dir/nowhere/x.oxp" 2>&1)
check "missing folder" "cannot write '$dir/nowhere/x.oxp': no such folder" "$err"
topo=$("$orvex" info "$dir/d.oxp" --json | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Topography")][0])')
"$orvex" export-bitmap "$dir/d.oxp" "$topo" -o "$dir/pic.png" >/dev/null 2>&1
err=$("$orvex" tags "$dir/pic.png" --json 2>&1 >/dev/null)
check "tags of a picture exit" 1 $?
contains "tags of a picture says so in our words" "is not a tag file or is damaged" "$err"
case "$err" in *json*|*exception*) echo "FAIL: library text leaked: $err"; fails=$((fails + 1)) ;; esac
err=$("$orvex" info "$dir/pic.png" 2>&1)
check "info of a picture exit" 1 $?
check "info of a picture" "'$dir/pic.png' is not a project or data file" "$err"
err=$("$orvex" import-bitmap "$dir/d.oxp" -o "$dir/x.oxp" 2>&1)
check "import-bitmap of a project exit" 1 $?
check "picture hint lists every format" "'$dir/d.oxp' is not a picture; use .png, .jpg, .jpeg, .tif, .tiff or .bmp" "$err"
err=$("$orvex" export-bitmap "$dir/d.oxp" "$topo" -o "$dir/x.gif" 2>&1)
check "unknown picture format to write" 2 $?
contains "export hint lists .bmp" ".bmp" "$err"
printf '1 2\n2 4\n3 6\n' > "$dir/line.txt"
err=$("$orvex" fit --formula "a*x+b" --data "$dir/line.txt" 2>&1)
check "bad formula exit" 1 $?
contains "formula names what it may use" "x1 for the abscissa and x2, x3, ... for the parameters" "$err"
err=$("$orvex" fit --function Gauss --data "$dir/none.txt" 2>&1)
check "missing fit data" "cannot open '$dir/none.txt': no such file" "$err"
check "every message above is one line" 1 "$(lines "$("$orvex" info "$dir/nothere.oxp" 2>&1)")"

# --- Full precision and --json everywhere ------------------------------------------------------------
"$orvex" axis "$dir/d.oxp" "$map" > "$dir/axis.txt"
"$orvex" axis "$dir/d.oxp" "$map" --json > "$dir/axis.json"
check "axis text and json agree to the last bit" "yes" "$(python3 -c '
import json, sys
text = [float(l) for l in open(sys.argv[1])]
j = json.load(open(sys.argv[2]))
print("yes" if text == j["values"] and len(text) == 64 and any(len(l.strip()) > 12 for l in open(sys.argv[1])) else "no")' "$dir/axis.txt" "$dir/axis.json")"
"$orvex" validate "$dir/d.oxp" --json | python3 -c 'import json,sys; j=json.load(sys.stdin); sys.exit(0 if j["valid"] and j["tags"] > 10 else 1)'
check "validate --json" 0 $?
"$orvex" validate "$dir/head.oxp" --json > "$dir/v.json"
check "validate --json of a damaged file exits 1" 1 $?
check "validate --json names the problem" "False" "$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["valid"])' "$dir/v.json")"
summary=$("$orvex" data "$dir/d.oxp" "$map" -o "$dir/map.f32" --json | python3 -c 'import json,sys; j=json.load(sys.stdin); print(j["values"], j["bytes"])')
check "data --json summary" "$((8 * 6 * 64)) $((8 * 6 * 64 * 4))" "$summary"
check "data file size matches the summary" $((8 * 6 * 64 * 4)) "$(stat -c %s "$dir/map.f32")"

# --- Interrupted runs leave nothing behind --------------------------------------------------------------
"$orvex" demo -o "$dir/big.oxp" --size 64x64x1024 >/dev/null
# A reader that goes away early: the closed pipe is a failure, with one line (16 MB of values can't all fit
# into the pipe before the reader has gone).
bigmap=$("$orvex" info "$dir/big.oxp" --json | python3 -c 'import json,sys; print([x["id"] for x in json.load(sys.stdin)["objects"] if x["caption"].startswith("Raman Map")][0])')
{ "$orvex" data "$dir/big.oxp" "$bigmap" -o - 2>"$dir/pipe.err"; echo $? >"$dir/pipe.rc"; } | head -c 1 >/dev/null
check "closed pipe exits 1" 1 "$(cat "$dir/pipe.rc")"
check "closed pipe message" "cannot write the output: the reader of the output has gone" "$(cat "$dir/pipe.err")"
# KILL last: a slow machine may signal before the save has begun, and a temporary that SIGKILL left would
# then still stand when the next signal is checked.
for sig in TERM INT HUP KILL; do
  cp "$dir/d.oxp" "$dir/target.oxp"
  "$orvex" convert "$dir/big.oxp" "$dir/target.oxp" >/dev/null 2>&1 &
  pid=$!
  sleep 0.3
  kill -s $sig $pid 2>/dev/null
  wait $pid 2>/dev/null
  if ! cmp -s "$dir/d.oxp" "$dir/target.oxp"; then
    "$orvex" validate "$dir/target.oxp" >/dev/null || { echo "FAIL: SIG$sig left a broken target"; fails=$((fails + 1)); }
  fi
  if [ $sig != KILL ]; then
    check "SIG$sig leaves no temporary" "" "$(ls "$dir" | grep '\.temp$')"
  fi
done
# The next save of the target removes what the killed one left.
"$orvex" convert "$dir/d.oxp" "$dir/target.oxp" >/dev/null 2>&1
check "the next save removes a killed save's temporary" "" "$(ls "$dir" | grep '\.temp$')"
"$orvex" paths --clean "$dir" >/dev/null
check "paths --clean exit" 0 $?
check "no temporary after paths --clean" "" "$(ls "$dir" | grep '\.temp$')"
touch "$dir/target.oxp.20200101_000000.temp"
out=$("$orvex" paths --clean "$dir" --json)
check "paths --clean names what it removed" "1" "$(echo "$out" | python3 -c 'import json,sys; print(len(json.load(sys.stdin)["removed"]))')"

# A killed run of the memory-mapped strategy leaves no backing file.
mkdir -p "$dir/mmf"
"$orvex" --memory mmf --mmf-dir "$dir/mmf" --mmf-size-gb 2 convert "$dir/big.oxp" "$dir/m.oxp" >/dev/null 2>&1 &
pid=$!
sleep 0.5
kill -KILL $pid 2>/dev/null
wait $pid 2>/dev/null
check "killed mmf run leaves no backing file" "" "$(find "$dir/mmf" -type f)"

# Four runs started at once write four complete logs.
rm -rf "$dir/data"
for n in 1 2 3 4; do "$orvex" info "$dir/d.oxp" >/dev/null & done
wait
logs=$(find "$dir/data" -name 'LogFile_*.log' | wc -l)
check "four logs" 4 "$logs"
check "every log opened and closed" "4 4" "$(cat $(find "$dir/data" -name 'LogFile_*.log') | grep -c 'Log File opened') $(cat $(find "$dir/data" -name 'LogFile_*.log') | grep -c 'Log File closed')"

# A full device: one line naming the file and the reason, exit 1, no temporary left behind. The small
# file system is mounted in a mount namespace of its own, so nothing outside sees it.
mkdir -p "$dir/full"
full=$(unshare -rm bash -c 'mount -t tmpfs -o size=16k tmpfs "$1" || exit 99
  "$2" convert "$3" "$1/x.oxp" 2>&1 >/dev/null; echo "exit=$?"; ls -A "$1"' _ "$dir/full" "$orvex" "$dir/d.oxp" 2>/dev/null)
if [ $? -eq 99 ] || [ -z "$full" ]; then
  echo "cli_robustness: no mount namespace here, the full-device case is left out"
else
  check "full device" "no space left on device while writing '$dir/full/x.oxp'
exit=1" "$full"
fi

[ $fails -eq 0 ] && echo "cli_robustness: all checks passed"
exit $fails
