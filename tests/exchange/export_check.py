#!/usr/bin/python3
"""Reads files of `orvex export` with scipy.io.loadmat and numpy.loadtxt and compares them with what
`orvex data`, `orvex axis` and `orvex info` say of the same objects. Prints one line per failed check and
exits 1 if there is any.

Usage: export_check.py ORVEX
"""
import os
import re
import subprocess
import sys
import tempfile

import numpy as np
import scipy.io

ORVEX = sys.argv[1]
FAILS = []


def check(what, ok):
    if not ok:
        FAILS.append(what)
        print("FAIL:", what)


def run(*args):
    result = subprocess.run([ORVEX, *args], capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"orvex {' '.join(args)}: exit {result.returncode}: {result.stderr.strip()}")
    return result.stdout


def values(project, object_id, tmp):
    raw = os.path.join(tmp, f"raw{object_id}.bin")
    run("data", project, str(object_id), "-o", raw)
    return np.fromfile(raw, dtype="<f4")


def axis(project, object_id):
    return np.array([float(line) for line in run("axis", project, str(object_id)).split()])


def space_axes(project, object_id):
    """(first, last, count) of x and y from `orvex info`."""
    text = run("info", project)
    block = text[text.index(f"\n  {object_id}  "):]
    axes = {}
    for name in ("x", "y"):
        m = re.search(rf"\n      {name}: (\S+) \.\.\. (\S+) µm, (\d+) px", block)
        if m:
            axes[name] = (float(m.group(1)), float(m.group(2)), int(m.group(3)))
    return axes


def text_of(cell):
    """A char array as loadmat gives it: a string, or an empty array."""
    a = np.asarray(cell)
    return "".join(a.ravel().tolist()) if a.size else ""


def load(path):
    return scipy.io.loadmat(path, uint16_codec="utf-16-le", squeeze_me=False, chars_as_strings=True)


def field(var, name):
    return var[name][0, 0]


def check_matlab(tmp, project, graph_id, sx, sy, points, layout):
    out = os.path.join(tmp, f"g{graph_id}_{sx}x{sy}_{layout[:3]}.mat")
    run("export", project, str(graph_id), "--format", "matlab", "-o", out,
        "--set", f"MatlabExportTypeIndex={layout}", "--set", "XSpectralUnitIndex=rel. 1/cm")
    tag = f"{layout} {sx}x{sy}x{points} ID {graph_id}"
    mat = load(out)
    names = [k for k in mat if not k.startswith("__")]
    check(f"{tag}: one variable, got {names}", len(names) == 1)
    var = mat[names[0]]
    dso = layout == "DSO 6.0"
    if dso:
        check(f"{tag}: class dataset", getattr(var, "classname", None) == "dataset")
        expected_fields = ("name", "type", "author", "date", "moddate", "imagesize", "imagemode", "data", "label",
                           "axisscale", "imageaxisscale", "title", "class", "include", "classlookup", "axistype",
                           "imageaxistype", "description", "userdata", "datasetversion", "history", "uniqueid")
    else:
        expected_fields = ("name", "date", "data", "axisscale", "imagesize", "imageaxisscale")
    check(f"{tag}: fields {var.dtype.names}", var.dtype.names == expected_fields)

    # Values: rows are the pixels with y fastest, columns the points, single precision, as `orvex data` has them.
    data = field(var, "data")
    raw = values(project, graph_id, tmp).reshape(sy, sx, points)  # [y, x, p]: e = x + y*sx
    expected = raw.transpose(1, 0, 2).reshape(sx * sy, points)  # row = y + x*sy
    check(f"{tag}: data single", data.dtype == np.float32)
    check(f"{tag}: data shape {data.shape}", data.shape == (sx * sy, points))
    check(f"{tag}: data equal", data.shape == expected.shape and np.array_equal(data, expected))

    # The spectral axis in rel. 1/cm as `orvex axis` prints it.
    scale = field(var, "axisscale")
    check(f"{tag}: axisscale 2x2", scale.shape == (2, 2))
    spectral = np.asarray(scale[1, 0]).ravel()
    check(f"{tag}: spectral axis", np.array_equal(spectral, axis(project, graph_id)))
    check(f"{tag}: spectral unit", text_of(scale[1, 1]) == "rel. 1/cm")

    image = sx >= 2 and sy >= 2
    line_scan = not image and max(sx, sy) > 1
    geometry = space_axes(project, graph_id)
    if line_scan:
        first, last, count = geometry["x" if sx > 1 else "y"]
        along = np.asarray(scale[0, 0]).ravel()
        check(f"{tag}: line axis in µm", np.allclose(along, np.linspace(0, abs(last - first), count), rtol=1e-12,
                                                     atol=1e-9))
        check(f"{tag}: space unit µm", text_of(scale[0, 1]) == "µm")
    else:
        check(f"{tag}: no line axis", np.asarray(scale[0, 0]).size == 0)

    size = field(var, "imagesize")
    image_scale = field(var, "imageaxisscale")
    if image:
        check(f"{tag}: imagesize {size}", np.array_equal(np.asarray(size).ravel(), [sx, sy]))
        # Sizes below 256 are stored as bytes of a double array, larger ones as a uint32 array.
        check(f"{tag}: imagesize form {size.dtype}", size.dtype == (np.uint8 if sx < 256 and sy < 256 else np.uint32))
        as_class = field(scipy.io.loadmat(out, uint16_codec="utf-16-le", mat_dtype=True)[names[0]], "imagesize")
        check(f"{tag}: imagesize class {as_class.dtype}",
              as_class.dtype == (np.float64 if sx < 256 and sy < 256 else np.uint32))
        for k, name in enumerate(("x", "y")):
            first, last, count = geometry[name]
            got = np.asarray(image_scale[k, 0]).ravel()
            check(f"{tag}: image axis {name} in µm", np.allclose(got, np.linspace(first, last, count), rtol=1e-12,
                                                                 atol=1e-9))
        check(f"{tag}: image axis unit", text_of(image_scale[0, 1]) == "µm")
    else:
        check(f"{tag}: no imagesize", np.asarray(size).size == 0)

    date = np.asarray(field(var, "date")).ravel()
    check(f"{tag}: date {date}", date.size == 6 and date[0] >= 2024 and 1 <= date[1] <= 12 and 1 <= date[2] <= 31)
    caption = run("info", project).split(f"\n  {graph_id}  ")[1].split('"')[1]
    check(f"{tag}: name", text_of(field(var, "name")) == caption)
    if dso:
        check(f"{tag}: datasetversion", text_of(field(var, "datasetversion")) == "6.0")
        check(f"{tag}: type", text_of(field(var, "type")) == ("image" if image else "data"))
        include = field(var, "include")
        check(f"{tag}: include pixels", np.array_equal(np.asarray(include[0, 0]).ravel(), np.arange(1, sx * sy + 1)))
        check(f"{tag}: include points", np.array_equal(np.asarray(include[1, 0]).ravel(), np.arange(1, points + 1)))
        check(f"{tag}: imagemode", np.array_equal(np.asarray(field(var, "imagemode")).ravel(), [1] if image else []))
        check(f"{tag}: axistype", text_of(field(var, "axistype")[0, 0]) == "none")
        history = text_of(field(var, "history")[0, 0])
        check(f"{tag}: history {history}", history.startswith("Created by Orvex Project (Version "))


def check_units(tmp, project, graph_id):
    """The spectral axis in other units, from the same axis in rel. 1/cm and the excitation of 532 nm."""
    shift = axis(project, graph_id)
    nm = 1e7 / (1e7 / 532.0 - shift)
    for unit, expected in (("nm", nm), ("1/cm", 1e7 / nm), ("µm", nm / 1000)):
        out = os.path.join(tmp, "unit.mat")
        run("export", project, str(graph_id), "--format", "matlab", "-o", out, "--set",
            "MatlabExportTypeIndex=Matlab Structure", "--set", f"XSpectralUnitIndex={unit}")
        var = load(out)["True_Component_1_Silicon_demo_truth"]
        scale = field(var, "axisscale")
        check(f"axis in {unit}", np.allclose(np.asarray(scale[1, 0]).ravel(), expected, rtol=1e-12))
        check(f"unit name {unit}", text_of(scale[1, 1]) == unit)


def check_ascii(tmp, project, map_id, image_id, sx, sy, points):
    out = os.path.join(tmp, "map.txt")
    run("export", project, str(map_id), "--format", "graph ascii", "-o", out)
    table = np.loadtxt(out, dtype=np.float64)
    check(f"graph ascii shape {table.shape}", table.shape == (points, 1 + sx * sy))
    check("graph ascii axis", np.array_equal(table[:, 0], axis(project, map_id)))
    raw = values(project, map_id, tmp).reshape(sx * sy, points)
    check("graph ascii values", np.array_equal(table[:, 1:].astype(np.float32), raw.T))

    out = os.path.join(tmp, "image.txt")
    run("export", project, str(image_id), "--format", "Image ASCII", "-o", out, "--set", "Separator=Semicolon")
    table = np.loadtxt(out, delimiter=";", dtype=np.float64)
    check(f"image ascii shape {table.shape}", table.shape == (sy, sx))
    check("image ascii values",
          np.array_equal(table.astype(np.float32), values(project, image_id, tmp).reshape(sy, sx)))


def main():
    with tempfile.TemporaryDirectory() as tmp:
        os.environ["XDG_DATA_HOME"] = os.path.join(tmp, "data")
        os.environ["XDG_CACHE_HOME"] = os.path.join(tmp, "cache")
        # Map 5, single spectra 6 to 9, topography 15 in every demo.
        for sx, sy, points in ((6, 4, 16), (300, 2, 8), (7, 1, 12), (1, 5, 8)):
            project = os.path.join(tmp, f"demo{sx}x{sy}.oxp")
            run("demo", "-o", project, "--size", f"{sx}x{sy}x{points}")
            for layout in ("DSO 6.0", "Matlab Structure"):
                check_matlab(tmp, project, 5, sx, sy, points, layout)
                if sx == 6:
                    check_matlab(tmp, project, 6, 1, 1, points, layout)
            if sx == 6:
                check_units(tmp, project, 6)
                check_ascii(tmp, project, 5, 15, sx, sy, points)
    print(f"export_check: {len(FAILS)} failed check(s)")
    return 1 if FAILS else 0


if __name__ == "__main__":
    sys.exit(main())
