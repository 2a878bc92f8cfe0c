# Volumes that no registration can use are refused when they are read, with a message naming
# the file and status 1, before anything is allocated or the display is opened: a template
# with a negative or a not-a-number voxel size or a singular orientation, and a quill volume
# whose header never says how its values are stored.
align=$1
. "$(dirname "$0")/driver_lib.sh"

# float_nifti <name> <pixdim x> <pixdim y> <pixdim z> [flat]: a 2x2x2 float NIfTI-1 volume,
# method 1; with "flat", method 3 with sform rows of zeros.
float_nifti() {
    python3 -c '
import struct, sys
h = bytearray(348)
struct.pack_into("<i", h, 0, 348)
struct.pack_into("<8h", h, 40, 3, 2, 2, 2, 1, 1, 1, 1)
struct.pack_into("<hh", h, 70, 16, 32)
struct.pack_into("<4f", h, 76, 1, *(float(v) for v in sys.argv[2:5]))
struct.pack_into("<f", h, 108, 352.0)
if sys.argv[5:] == ["flat"]:
    struct.pack_into("<hh", h, 252, 1, 1)
h[344:348] = b"n+1\0"
with open(sys.argv[1], "wb") as f:
    f.write(h + bytes(4) + struct.pack("<8f", *range(1, 9)))
' "$@"
}

method1() { printf '\nThe NIFTI header for file %s uses Method 1: the old analyze format\n' "$1"; }

float_nifti ind.nii 1 1 1
float_nifti negative.nii 2 -2 2
float_nifti nan.nii 2 2 nan

run "$align" ind.nii -t negative.nii
{ method1 ind.nii; method1 negative.nii
  echo "Error: the voxel size (2,-2,2) given for negative.nii must be positive and finite."; } > want.txt
expect_file "pixdim 2 -2 2" 1 want.txt

run "$align" ind.nii -t nan.nii
{ method1 ind.nii; method1 nan.nii
  echo "Error: the voxel size (2,2,nan) given for nan.nii must be positive and finite."; } > want.txt
expect_file "pixdim 2 2 nan" 1 want.txt

float_nifti flat.nii 2 2 2 flat
run "$align" ind.nii -t flat.nii
{ method1 ind.nii
  printf '\nThe NIFTI header for file flat.nii uses Method 3: affine transformation of voxel indices\n'
  echo "Error: the voxel-to-space matrix of flat.nii is singular or not finite."; } > want.txt
expect_file "sform of zeros" 1 want.txt

# 512^3 values claimed, 8 bytes of data and no storage-type line: refused, nothing allocated
printf 'x 512\ny 512\nz 512\nt 1\n' > big.hdr
printf 'abcdefgh' > big.dat
run "$align" big.dat -t ind.nii
expect "no storage type" 1 '\nError: no storage type is given for big.dat; its header needs a storage-type line\n(short, float, long, unsigned-short or unsigned-char).\n'
finish
