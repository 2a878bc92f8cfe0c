#!/usr/bin/python3
"""align-apply on a synthetic phantom with a rotated template geometry and a smooth warp:
.nii and .nii.gz inputs give identical outputs; nibabel reads every output with the geometry of
its grid's file; the inverse of the forward returns the image within the kernel's smoothing; a
label map moved back keeps its type, its labels and its volumes within a voxel's rim; every
volume of a 4-D series is moved with progress lines; the displacement field points, in LPS
world millimetres, to where the resampling took each value from.

usage: apply_phantom.py <align-apply> <make_test_volumes>"""
import gzip
import os
import subprocess
import sys
import tempfile

try:
    import nibabel as nib
    import numpy as np
except ImportError:
    print("SKIP: nibabel or numpy is missing")
    sys.exit(77)

apply_bin, make_volumes = sys.argv[1], sys.argv[2]
failures = []


def check(ok, what):
    print(("ok   " if ok else "FAIL ") + what)
    if not ok:
        failures.append(what)


def run(*args, expect=0):
    p = subprocess.run(args, capture_output=True, text=True)
    if p.returncode != expect:
        print(p.stdout, p.stderr)
        sys.exit("FAIL: %s ended with %d" % (" ".join(args), p.returncode))
    return p.stdout


def apply(*args):
    return run(apply_bin, "--template", "tpl.nii", "--alignment", "align.com", *args)


def rel_mad(a, b, mask):
    return np.abs(a[mask] - b[mask]).mean() / np.abs(b[mask]).mean()


def trilinear(vol, ijk):
    """Values of vol at fractional voxel positions ijk (3 x n), 0 outside."""
    i0 = np.floor(ijk).astype(int)
    f = ijk - i0
    out = np.zeros(ijk.shape[1])
    for c in range(8):
        o = np.array([(c >> a) & 1 for a in range(3)])[:, None]
        idx = i0 + o
        w = np.prod(np.where(o == 1, f, 1 - f), axis=0)
        ok = np.all((idx >= 0) & (idx < np.array(vol.shape)[:, None]), axis=0)
        out[ok] += w[ok] * vol[idx[0, ok], idx[1, ok], idx[2, ok]]
    return out


os.chdir(tempfile.mkdtemp(prefix="align-apply-"))
run(make_volumes, "shifted-phantom", "6", "ind0.nii", "tpl0.nii")

# The template: the phantom with an oblique geometry (sform code 2, qform code 1, both the same
# matrix: 2 mm voxels turned 10 degrees about z, x running right to left, an origin far off).
c, s = np.cos(np.radians(10)), np.sin(np.radians(10))
tpl_affine = np.array([[-2 * c, -2 * s, 0, 40.0], [-2 * s, 2 * c, 0, -31.0], [0, 0, 2, -17.5], [0, 0, 0, 1]])
tpl_data = np.asanyarray(nib.load("tpl0.nii").dataobj).astype(np.float32)
tpl = nib.Nifti1Image(tpl_data, tpl_affine)
tpl.set_qform(tpl_affine, code=1)
tpl.set_sform(tpl_affine, code=2)
nib.save(tpl, "tpl.nii")
# The individual: the moved phantom on a grid of its own (2.5 mm, axis-aligned, own origin).
ind_data = np.asanyarray(nib.load("ind0.nii").dataobj).astype(np.float32)[4:44, 2:46, 6:42]
ind_affine = np.diag([2.5, 2.5, 2.5, 1.0])
ind_affine[:3, 3] = [-50, -55, -45]
ind = nib.Nifti1Image(ind_data, ind_affine)
ind.set_qform(ind_affine, code=1)
ind.set_sform(ind_affine, code=1)
nib.save(ind, "ind.nii")
with open("ind.nii", "rb") as f, gzip.open("ind.nii.gz", "wb") as g:
    g.write(f.read())
# A 4-D int16 series of three volumes (1, 2, 3 times the individual), 2.5 s apart.
series = np.stack([np.rint(ind_data) * k for k in (1, 2, 3)], axis=-1).astype(np.int16)
s4 = nib.Nifti1Image(series, ind_affine)
s4.header.set_xyzt_units("mm", "sec")
s4.header["pixdim"][4] = 2.5
nib.save(s4, "series.nii")
# Labels on the template grid: three intensity bands of the phantom, 0 outside.
labels = np.digitize(tpl_data, [1.0, 70.0, 100.0]).astype(np.uint8)
lab = nib.Nifti1Image(labels, tpl_affine)
lab.set_qform(tpl_affine, code=1)
lab.set_sform(tpl_affine, code=2)
nib.save(lab, "labels.nii")

# The alignment: a known affine plus a smooth 1.5 mm warp (distortions.nii, named by align.com).
run(make_volumes, "align-com", "tpl.nii", "1.5", "-6", "1", "0", "3", "-2", "1", "1.02", "0.98", "1.0")

out = apply("ind.nii", "fw.nii", "--jacobian", "jac.nii.gz", "--field", "field.nii.gz")
apply("ind.nii.gz", "fw_gz.nii")
check(open("fw.nii", "rb").read() == open("fw_gz.nii", "rb").read(), ".nii and .nii.gz inputs give identical outputs")

back_out = run(apply_bin, "--template", "tpl.nii", "--alignment", "align.com", "--inverse", "--individual",
               "ind.nii", "fw.nii", "back.nii")
report = [line for line in back_out.splitlines() if line.startswith("Inverse mapping: largest residual")]
check(len(report) == 1 and "; 0 voxels where folds make the mapping not invertible" in report[0],
      "the inverse prints its largest residual and no folds: " + " ".join(report))
apply("--inverse", "--individual", "ind.nii", "--interp", "nearest", "labels.nii", "lab_ind.nii.gz",
      "--jacobian", "jac_ind.nii")

# Geometry: every output as nibabel reads it has the affine and codes of its grid's file.
for name, ref in [("fw.nii", "tpl.nii"), ("jac.nii.gz", "tpl.nii"),
                  ("field.nii.gz", "tpl.nii"), ("back.nii", "ind.nii"), ("lab_ind.nii.gz", "ind.nii"),
                  ("jac_ind.nii", "ind.nii")]:
    a, r = nib.load(name), nib.load(ref)
    same = (np.allclose(a.affine, r.affine, atol=1e-5) and a.shape[:3] == r.shape[:3]
            and int(a.header["qform_code"]) == int(r.header["qform_code"])
            and int(a.header["sform_code"]) == int(r.header["sform_code"])
            and np.allclose(a.get_qform(), r.get_qform(), atol=1e-5))
    check(same, "%s has the grid and geometry of %s" % (name, ref))

# Inverse of forward: the individual back within the smoothing of two accurate resamplings,
# over the individual's voxels whose template point lies in the phantom.
back = nib.load("back.nii").get_fdata()
inside = nib.load("lab_ind.nii.gz").get_fdata() > 0
m = rel_mad(back, ind_data, inside)
check(inside.sum() > 5000 and m < 0.005,
      "inverse of forward over %d voxels: relative mean absolute difference %.4f < 0.005" % (inside.sum(), m))

# Labels: type kept, only the template's labels, volumes within a voxel's rim.
li = nib.load("lab_ind.nii.gz")
lab_ind = np.asanyarray(li.dataobj)
check(li.get_data_dtype() == np.uint8, "moved labels keep uint8")
check(set(np.unique(lab_ind)) <= {0, 1, 2, 3}, "moved labels stay in their set")
jac = nib.load("jac.nii.gz").get_fdata()  # individual volume per template volume
v_tpl, v_ind = 8.0, 2.5 ** 3
for k in (1, 2, 3):
    region = labels == k
    expected = jac[region].sum() * v_tpl
    other = np.zeros_like(region)
    for a in range(3):
        for d in (1, -1):
            other |= np.roll(region, d, axis=a) != region
    rim = (region & other).sum() * v_tpl
    got = (lab_ind == k).sum() * v_ind
    check(abs(got - expected) <= rim, "label %d: %.0f mm3 moved, %.0f expected, rim %.0f" % (k, got, expected, rim))

# The field: template world point + displacement (LPS -> RAS) = the individual point that the
# resampling took its value from; a trilinear look-up there gives the linear kernel's output.
apply("--interp", "linear", "ind.nii", "fw_lin.nii")
field = nib.load("field.nii.gz")
check(field.shape == tpl_data.shape + (1, 3) and int(field.header["intent_code"]) == 1007,
      "the field is a 5-D vector file (intent 1007)")
u = field.get_fdata()[..., 0, :].reshape(-1, 3, order="F").T * np.array([[-1], [-1], [1]])
grid = np.indices(tpl_data.shape).reshape(3, -1, order="F")
world = tpl_affine[:3, :3] @ grid + tpl_affine[:3, 3:]
ijk = np.linalg.inv(ind_affine)[:3, :3] @ (world + u) + np.linalg.inv(ind_affine)[:3, 3:]
inside_ind = np.all((ijk >= 0) & (ijk <= np.array(ind_data.shape)[:, None] - 1), axis=0)
looked_up = trilinear(ind_data, ijk)
lin = nib.load("fw_lin.nii").get_fdata().reshape(-1, order="F")
err = np.abs(looked_up[inside_ind] - lin[inside_ind]).max()
check(inside_ind.sum() > 10000 and err < 0.05, "the field's look-up matches the resampling (largest difference %.4f)" % err)

# 4-D: every volume moved, progress per volume, the time step kept; nearest keeps int16.
out4 = apply("--interp", "linear", "series.nii", "series_fw.nii")
check("volume 3 of 3" in out4, "progress lines name every volume")
s4o = nib.load("series_fw.nii")
d4 = s4o.get_fdata()
check(d4.shape == tpl_data.shape + (3,) and abs(float(s4o.header["pixdim"][4]) - 2.5) < 1e-6,
      "the series keeps its three volumes and its time step")
mask = np.abs(d4[..., 0]) > 1
ratio = np.abs(d4[..., 2][mask] / d4[..., 0][mask] - 3).max()
check(mask.sum() > 10000 and ratio < 0.01, "volume 3 is three times volume 1 (largest deviation %.4f)" % ratio)
apply("--interp", "nearest", "series.nii", "series_nn.nii.gz")
nn = nib.load("series_nn.nii.gz")
vals = np.unique(np.asanyarray(nn.dataobj))
check(nn.get_data_dtype() == np.int16 and set(vals) <= set(np.unique(series)) | {0},
      "nearest neighbour keeps int16 and copies values")

if failures:
    sys.exit("FAIL: %d checks" % len(failures))
print("PASS")
