#!/usr/bin/env bash
# The layer check on small planted trees: a clean tree passes; each kind of violation fails with its
# file and line named; includes that stay within the rules pass.
set -euo pipefail
check="$1"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# A tree that keeps its layers.
plant_clean() {
  rm -rf "$tmp/tree" && mkdir -p "$tmp/tree"/{src/common/numerics,src/data,src/project,src/frame,apps/cli,tests/data}
  cd "$tmp/tree"
  printf '#include "common/numerics/Linalg.h"\n#include <vector>\n' >src/common/Util.h
  printf '#include "common/Util.h"\n' >src/common/numerics/Linalg.h
  printf '#include "common/Util.h"\n#include "data/Dgraph.h"\n' >src/data/Dgraph.h
  printf '#include "data/Dgraph.h"\n#include "common/Util.h"\n' >src/project/Project.h
  printf '#include <QWidget>\n#include "project/Project.h"\n' >src/frame/Mainwindow.cpp
  printf '#include "project/Project.h"\n' >apps/cli/main.cpp
  printf 'ox_add_library(data PUBLIC ox::common)\n' >src/data/CMakeLists.txt
  printf 'target_link_libraries(orvex PRIVATE ox::project ox::numerics)\n' >apps/cli/CMakeLists.txt
  printf '#include "project/Project.h"\n' >tests/data/GraphTest.cpp
  cd - >/dev/null
}

expect_pass() {
  if ! out="$(python3 "$check" "$tmp/tree" 2>&1)"; then fail "$1: clean tree refused: $out"; fi
}
expect_fail() { # name, expected text in the output
  local out
  if out="$(python3 "$check" "$tmp/tree" 2>&1)"; then
    fail "$1: violation not found"
  elif ! grep -qF -- "$2" <<<"$out"; then
    fail "$1: expected '$2' in: $out"
  fi
}

plant_clean
expect_pass "clean tree"

plant_clean
printf '#include <vector>\n#include "data/Dgraph.h"\n' >"$tmp/tree/src/common/numerics/Fit.cpp"
expect_fail "common includes data" 'src/common/numerics/Fit.cpp:2: "data/Dgraph.h" runs against the layers'

plant_clean
printf '#include "project/Project.h"\n' >"$tmp/tree/src/data/Dimage.cpp"
expect_fail "data includes project" 'src/data/Dimage.cpp:1: "project/Project.h"'

plant_clean
printf '#include <QString>\n' >"$tmp/tree/src/project/Names.cpp"
expect_fail "Qt below the frame" 'src/project/Names.cpp:1: includes the Qt header <QString>'

plant_clean
printf '#include <QtCore/QObject>\n' >"$tmp/tree/tests/data/QtTest.cpp"
expect_fail "Qt in a core test" 'tests/data/QtTest.cpp:1: includes the Qt header'

plant_clean
printf 'target_link_libraries(orvex PRIVATE ox::project ox::frame)\n' >"$tmp/tree/apps/cli/CMakeLists.txt"
expect_fail "command line links the frame" 'apps/cli/CMakeLists.txt:1: the command line links the frame'

plant_clean
printf 'ox_add_library(data PUBLIC ox::common)\ntarget_link_libraries(ox_data PRIVATE ox::project)\n' \
  >"$tmp/tree/src/data/CMakeLists.txt"
expect_fail "data links project" 'src/data/CMakeLists.txt:2: links ox::project against the layers'

plant_clean
printf '# ox::frame is named in a comment only\nox_add_library(data PUBLIC ox::common)\n' >"$tmp/tree/src/data/CMakeLists.txt"
expect_pass "a comment links nothing"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all layer-check cases passed"
