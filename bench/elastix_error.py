#!/usr/bin/env python3
"""Helpers of compare_elastix.sh (elastix is a peer for benchmarks only, never a dependency).

  elastix_error.py centre IN OUT [MASK]
      rewrites a volume in the centred frame that align uses (voxel i at (i-(n-1)/2)*size, axes
      along +x, +y, +z) as float32, so that elastix's world coordinates are align's; MASK gets
      the volume's non-zero voxels.
  elastix_error.py error TEMPLATE DEFORMATION TRUTH
      mean, median and largest distance (mm), over the template's non-zero voxels, between the
      mapping of transformix's deformation field (-def all, ITK's LPS frame) and the true mapping
      of make_test_volumes truth-field (individual point minus template point, centred frame).
"""
import sys
import nibabel as nib
import numpy as np


def centre(src, dst, mask=None):
    im = nib.load(src)
    d = np.asarray(im.dataobj, dtype=np.float32)
    if d.ndim > 3:
        d = d[..., 0]
    z = np.array(im.header.get_zooms()[:3], dtype=float)
    a = np.diag([z[0], z[1], z[2], 1.0])
    a[:3, 3] = -(np.array(d.shape[:3]) - 1) / 2.0 * z
    out = nib.Nifti1Image(d, a)
    out.set_qform(a, 1)
    out.set_sform(a, 1)
    nib.save(out, dst)
    if mask:
        m = nib.Nifti1Image((d != 0).astype(np.uint8), a)
        m.set_qform(a, 1)
        m.set_sform(a, 1)
        nib.save(m, mask)


def error(template, deformation, truth):
    t = np.asarray(nib.load(template).dataobj)
    if t.ndim > 3:
        t = t[..., 0]
    brain = t != 0
    d = np.asarray(nib.load(deformation).dataobj, dtype=np.float64)
    d = d.reshape(t.shape + (3,))
    # ITK's physical frame is LPS: x and y point the other way than the centred (RAS) frame
    d[..., 0] *= -1.0
    d[..., 1] *= -1.0
    f = np.asarray(nib.load(truth).dataobj, dtype=np.float64)
    f = f.reshape(t.shape + (3,))
    diff = np.linalg.norm(d[brain] - f[brain], axis=1)
    print("mean_error_mm %.4f" % diff.mean())
    print("median_error_mm %.4f" % np.median(diff))
    print("max_error_mm %.4f" % diff.max())


if __name__ == "__main__":
    if len(sys.argv) >= 4 and sys.argv[1] == "centre":
        centre(sys.argv[2], sys.argv[3], sys.argv[4] if len(sys.argv) > 4 else None)
    elif len(sys.argv) == 5 and sys.argv[1] == "error":
        error(sys.argv[2], sys.argv[3], sys.argv[4])
    else:
        sys.exit(__doc__)
