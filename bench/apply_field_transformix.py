#!/usr/bin/python3
"""Side-by-side check of align-apply's displacement field with an ITK program: elastix's
transformix (Debian package elastix; not a dependency of align) resamples the individual through
the field that align-apply --field writes, as a DeformationFieldTransform with linear
interpolation, and the result is compared with align-apply --interp linear on the same grid.
The template has an oblique geometry (qform and sform turned 10 degrees, x flipped) and the
alignment holds a warp, so that any slip in the LPS convention, the direction cosines or the
sense of the displacement shows.

usage: bench/apply_field_transformix.py <build directory>
Prints the largest and mean absolute difference; they are at float rounding when the field is
read as align-apply means it."""
import os
import shutil
import subprocess
import sys
import tempfile

import nibabel as nib
import numpy as np

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
if shutil.which("transformix") is None:
    sys.exit("transformix is not installed (apt-get install elastix)")
os.chdir(tempfile.mkdtemp(prefix="apply-transformix-"))


def run(*args):
    subprocess.run(args, check=True, stdout=subprocess.DEVNULL)


run(os.path.join(build, "make_test_volumes"), "shifted-phantom", "6", "ind0.nii", "tpl0.nii")
c, s = np.cos(np.radians(10)), np.sin(np.radians(10))
tpl_affine = np.array([[-2 * c, -2 * s, 0, 40.0], [-2 * s, 2 * c, 0, -31.0], [0, 0, 2, -17.5], [0, 0, 0, 1]])
data = np.asanyarray(nib.load("tpl0.nii").dataobj).astype(np.float32)
tpl = nib.Nifti1Image(data, tpl_affine)
tpl.set_qform(tpl_affine, code=1)
tpl.set_sform(tpl_affine, code=2)
nib.save(tpl, "tpl.nii")
ind_affine = np.diag([2.5, 2.5, 2.5, 1.0])
ind_affine[:3, 3] = [-50, -55, -45]
ind = nib.Nifti1Image(np.asanyarray(nib.load("ind0.nii").dataobj).astype(np.float32)[4:44, 2:46, 6:42], ind_affine)
ind.set_qform(ind_affine, code=1)
ind.set_sform(ind_affine, code=1)
nib.save(ind, "ind.nii")

run(os.path.join(build, "make_test_volumes"), "align-com", "tpl.nii", "1.5", "-6", "1", "0", "3", "-2", "1", "1.02",
    "0.98", "1.0")
run(os.path.join(build, "align-apply"), "--template", "tpl.nii", "--alignment", "align.com", "--interp", "linear",
    "--field", "field.nii.gz", "ind.nii", "linear.nii")

# the template's grid in ITK's LPS terms: origin, spacing, direction cosines (column-major)
lps = np.diag([-1.0, -1.0, 1.0])
m = lps @ tpl_affine[:3, :3]
spacing = np.linalg.norm(m, axis=0)
direction = m / spacing
origin = lps @ tpl_affine[:3, 3]
with open("field.txt", "w") as f:
    f.write('(Transform "DeformationFieldTransform")\n(DeformationFieldFileName "field.nii.gz")\n'
            '(DeformationFieldInterpolationOrder 1)\n(NumberOfParameters 0)\n'
            '(FixedImageDimension 3)\n(MovingImageDimension 3)\n'
            '(FixedInternalImagePixelType "float")\n(MovingInternalImagePixelType "float")\n')
    f.write("(Size %d %d %d)\n(Index 0 0 0)\n" % data.shape)
    f.write("(Spacing %r %r %r)\n(Origin %r %r %r)\n" % (tuple(spacing) + tuple(origin)))
    f.write("(Direction %s)\n" % " ".join(repr(x) for x in direction.flatten(order="F")))
    f.write('(UseDirectionCosines "true")\n(HowToCombineTransforms "Compose")\n'
            '(InitialTransformParametersFileName "NoInitialTransform")\n'
            '(ResampleInterpolator "FinalBSplineInterpolator")\n(FinalBSplineInterpolationOrder 1)\n'
            '(Resampler "DefaultResampler")\n(DefaultPixelValue 0)\n(ResultImageFormat "nii")\n'
            '(ResultImagePixelType "float")\n(CompressResultImage "false")\n')
os.mkdir("transformix")
run("transformix", "-in", "ind.nii", "-tp", "field.txt", "-out", "transformix")

ours = nib.load("linear.nii").get_fdata()
theirs = nib.load("transformix/result.nii").get_fdata()
inside = ours != 0
d = np.abs(ours - theirs)[inside]
print("voxels compared: %d (mean value %.2f)" % (inside.sum(), np.abs(ours[inside]).mean()))
print("largest |align-apply - transformix|: %.6f" % d.max())
print("mean    |align-apply - transformix|: %.6f" % d.mean())
