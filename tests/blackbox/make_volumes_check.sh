# The test-volume tool agrees with itself and with the program's sign convention: moving the
# phantom template by the translation that undoes a +6 mm shift gives the shifted phantom
# bit for bit (a whole number of 2 mm voxels, zero borders); identity parameters copy the
# volume; a 0.5 mm translation error is measured as 0.5 mm everywhere, or as
# nothing with a displacement map that makes up for it; halving keeps the
# centred frame.
make_volumes=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/align-volumes-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
fail=0

# write_float_nifti NAME NX NY NZ NT VOXEL_MM EXPR: a single-file float NIfTI whose voxels, x
# fastest, are the list EXPR computes from nx, ny, nz and nt.
write_float_nifti() {
    /usr/bin/python3 - "$@" <<'END'
import struct, sys
name, nx, ny, nz, nt, mm, expr = sys.argv[1:]
nx, ny, nz, nt, mm = int(nx), int(ny), int(nz), int(nt), float(mm)
h = bytearray(348)
struct.pack_into("<i", h, 0, 348)
struct.pack_into("<8h", h, 40, 4 if nt > 1 else 3, nx, ny, nz, nt, 1, 1, 1)
struct.pack_into("<2h", h, 70, 16, 32)
struct.pack_into("<4f", h, 76, 1, mm, mm, mm)
struct.pack_into("<2f", h, 108, 352, 1)
h[344:348] = b"n+1\0"
values = eval(expr)
open(name, "wb").write(bytes(h) + bytes(4) + struct.pack("<%df" % len(values), *values))
END
}

"$make_volumes" shifted-phantom 6 ind.nii tpl.nii > phantom.txt || exit 1
grep -qx "translation -6 0 0" phantom.txt || { echo "FAIL: phantom: $(cat phantom.txt)"; fail=1; }
[ "$(wc -c < tpl.nii)" = 442720 ] || { echo "FAIL: tpl.nii is not 352 + 4 * 48^3 bytes"; fail=1; }

"$make_volumes" moved tpl.nii moved.nii -6 0 0 0 0 0 1 1 1 > /dev/null || exit 1
cmp -s moved.nii ind.nii || { echo "FAIL: moved template differs from the shifted phantom"; fail=1; }
"$make_volumes" moved tpl.nii copy.nii 0 0 0 0 0 0 1 1 1 0 0 0 > /dev/null || exit 1
cmp -s copy.nii tpl.nii || { echo "FAIL: identity parameters do not copy the volume"; fail=1; }

printf 'set registration-translations -5.5 0 0\nset registration-rotations 0 0 0\n' > align.com
printf 'set registration-inflations 1 1 1\nset registration-skews 0 0 0\n' >> align.com
"$make_volumes" mapping-error tpl.nii align.com -6 0 0 0 0 0 1 1 1 > error.txt || exit 1
grep -qx "mean_error_mm 0.5000" error.txt && grep -qx "max_error_mm 0.5000" error.txt ||
    { echo "FAIL: mapping error:"; cat error.txt; fail=1; }
# ... and a displacement map of +0.5 mm in x named by align.com makes up for it exactly.
write_float_nifti maps.nii 48 48 48 3 2 "[0.5] * (nx * ny * nz) + [0.0] * (2 * nx * ny * nz)" || exit 1
echo "set registration-distortions $work/maps.nii" >> align.com
"$make_volumes" mapping-error tpl.nii align.com -6 0 0 0 0 0 1 1 1 > error.txt || exit 1
grep -qx "mean_error_mm 0.0000" error.txt || { echo "FAIL: mapping error with distortions:"; cat error.txt; fail=1; }

# Halving a ramp f = 1 + 2i + 3j + 5k of 5 x 4 x 3 voxels (1 mm) gives 2 x 2 x 1 voxels of
# 2 mm holding f at the old positions that share their centred-frame place: new voxel m of n/2
# lies at old (n - 1)/2 + 2(m - (n/2 - 1)/2), i.e. i = 1, 3; j = 0.5, 2.5; k = 1.
write_float_nifti ramp.nii 5 4 3 1 1 \
    "[1 + 2 * i + 3 * j + 5 * k for k in range(nz) for j in range(ny) for i in range(nx)]" || exit 1
"$make_volumes" halve ramp.nii half.nii > /dev/null || exit 1
/usr/bin/python3 - <<'END' || { echo "FAIL: halve"; fail=1; }
import struct, sys
b = open("half.nii", "rb").read()
dim, pix = struct.unpack_from("<4h", b, 40), struct.unpack_from("<3f", b, 80)
got = struct.unpack_from("<4f", b, 352)
want = [1 + 2 * i + 3 * j + 5 * 1 for j in (0.5, 2.5) for i in (1, 3)]
print("halve:", dim, pix, got)
sys.exit(not (dim[1:] == (2, 2, 1) and pix == (2, 2, 2) and len(b) == 352 + 16 and
              all(abs(g - w) < 1e-5 for g, w in zip(got, want))))
END

"$make_volumes" moved tpl.nii x.nii 1 2 > /dev/null && { echo "FAIL: a short parameter list was accepted"; fail=1; }
[ $fail = 0 ] && echo PASS
exit $fail
