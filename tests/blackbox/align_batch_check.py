#!/usr/bin/env python3
"""Checks of align-batch's outputs with the standard library only.

  align_batch_check.py summary SUMMARY ALIGN_COM VERSION SEARCH
      summary.json parses, names the program and VERSION, the search, every output it lists
      exists, its parameters are align.com's (to the six digits align.com keeps), every level
      reports a finite similarity and the alignment raised the mutual information.
  align_batch_check.py picture QC_PNG
      the PNG is 8-bit RGB, five square panels wide and two high (the cell fits the largest
      field of view), the middle of every panel is lit (the template's brain), and both rows
      carry edge pixels (orange).
  align_batch_check.py volume ALIGNED_NII_GZ TEMPLATE_NII
      the gzipped NIfTI has the template's grid and voxel size and float data that follow the
      template inside its non-zero voxels (correlation above 0.9).
"""
import gzip
import json
import math
import os
import struct
import sys
import zlib


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def read_align_com(name):
    values = {}
    for line in open(name):
        words = line.split()
        if len(words) >= 3 and words[0] == "set":
            values[words[1]] = words[2:]
    return values


def check_summary(summary, align_com, version, search):
    s = json.load(open(summary))
    if s.get("program") != "align-batch" or s.get("version") != version:
        fail("program/version %r %r" % (s.get("program"), s.get("version")))
    if s.get("search") != search:
        fail("search %r" % s.get("search"))
    for key, name in s["outputs"].items():
        if not os.path.isabs(name) or not os.path.exists(name):
            fail("output %s: %s missing" % (key, name))
    com = read_align_com(align_com)
    p = s["parameters"]
    pairs = [("translations", p["translations_mm"]), ("rotations", p["rotations_degrees"]),
             ("inflations", p["inflations"]), ("skews", p["skews"])]
    for key, values in pairs:
        for written, reported in zip(com["registration-" + key], values):
            if float(written) != float("%g" % reported):
                fail("%s: align.com %s, summary %r" % (key, written, reported))
    if not s["levels"]:
        fail("no levels")
    for level in s["levels"]:
        if search == "accurate" and not (isinstance(level["mutual_information"], float) and
                                         math.isfinite(level["mutual_information"])):
            fail("level without similarity: %r" % level)
    sim = s["similarity"]
    if not sim["final"] > sim["before"]:
        fail("similarity before %r, after %r" % (sim["before"], sim["final"]))
    print("summary ok: %d levels, mutual information %.4f -> %.4f" % (len(s["levels"]), sim["before"], sim["final"]))
    return s


def read_png(name):
    data = open(name, "rb").read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        fail("not a PNG")
    pos, idat, width = 8, b"", 0
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
            if depth != 8 or colour != 2:
                fail("PNG is not 8-bit RGB")
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    raw = zlib.decompress(idat)
    stride, rows, prev = width * 3, [], bytearray(width * 3)
    for y in range(height):
        f, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 3] if i >= 3 else 0
            b = prev[i]
            c = prev[i - 3] if i >= 3 else 0
            if f == 1:
                line[i] = (line[i] + a) & 255
            elif f == 2:
                line[i] = (line[i] + b) & 255
            elif f == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(line)
        prev = line
    return width, height, rows


def check_picture(name):
    width, height, rows = read_png(name)
    cell = height // 2
    if height != 2 * cell or width != 5 * cell:
        fail("picture %dx%d is not 5 x 2 square cells" % (width, height))
    orange = [0, 0]
    for y in range(height):
        row = rows[y]
        for x in range(width):
            if row[3 * x] == 255 and row[3 * x + 1] == 140 and row[3 * x + 2] == 0:
                orange[y // cell] += 1
    for r in range(2):
        for p in range(5):
            # a small square at the middle of the panel holds the brain
            lit = 0
            for y in range(r * cell + cell // 2 - 3, r * cell + cell // 2 + 4):
                for x in range(p * cell + cell // 2 - 3, p * cell + cell // 2 + 4):
                    lit += sum(rows[y][3 * x:3 * x + 3]) > 60
            if lit < 40:
                fail("panel %d of row %d is dark in its middle (%d of 49 pixels lit)" % (p, r, lit))
    if orange[0] == 0 or orange[1] == 0:
        fail("edge pixels before/after: %r" % orange)
    print("picture ok: %dx%d, edge pixels before %d, after %d" % (width, height, orange[0], orange[1]))


def read_nifti(name):
    opener = gzip.open if name.endswith(".gz") else open
    data = opener(name, "rb").read()
    dims = struct.unpack("<8h", data[40:56])
    datatype, bitpix = struct.unpack("<2h", data[70:74])
    pixdim = struct.unpack("<8f", data[76:108])
    offset = int(struct.unpack("<f", data[108:112])[0])
    slope, inter = struct.unpack("<2f", data[112:120])
    n = dims[1] * dims[2] * dims[3]
    codes = {2: "B", 4: "h", 16: "f", 512: "H"}
    values = struct.unpack("<%d%s" % (n, codes[datatype]), data[offset:offset + n * bitpix // 8])
    if slope not in (0.0, 1.0) or inter != 0.0:
        values = [v * (slope or 1.0) + inter for v in values]
    return dims[1:4], pixdim[1:4], datatype, values


def check_volume(aligned, template):
    dims, sizes, datatype, a = read_nifti(aligned)
    tdims, tsizes, _, t = read_nifti(template)
    if dims != tdims or any(abs(x - y) > 1e-5 for x, y in zip(sizes, tsizes)) or datatype != 16:
        fail("aligned volume %r %r type %d, template %r %r" % (dims, sizes, datatype, tdims, tsizes))
    pairs = [(x, y) for x, y in zip(a, t) if y != 0]
    n = len(pairs)
    ma, mt = sum(x for x, _ in pairs) / n, sum(y for _, y in pairs) / n
    cov = sum((x - ma) * (y - mt) for x, y in pairs)
    va, vt = sum((x - ma) ** 2 for x, _ in pairs), sum((y - mt) ** 2 for _, y in pairs)
    r = cov / math.sqrt(va * vt)
    if not r > 0.9:
        fail("aligned volume follows the template with correlation %.3f" % r)
    print("volume ok: %r voxels, correlation with the template %.4f" % (dims, r))


if __name__ == "__main__":
    if len(sys.argv) == 6 and sys.argv[1] == "summary":
        check_summary(*sys.argv[2:])
    elif len(sys.argv) == 3 and sys.argv[1] == "picture":
        check_picture(sys.argv[2])
    elif len(sys.argv) == 4 and sys.argv[1] == "volume":
        check_volume(sys.argv[2], sys.argv[3])
    else:
        sys.exit(__doc__)
