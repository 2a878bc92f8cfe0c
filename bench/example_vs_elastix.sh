#!/usr/bin/env bash
# The README example's alignment by align and by elastix (Debian's elastix, a peer registration
# tool used here for comparison only) on the same case, one after the other on the same machine:
# the template is the skull-stripped ch2bet, the individual ch2 moved by a known affine
# transform (bench/../scripts/run-example.sh makes the same case). align runs in batch mode
# (-a) under a virtual X server; elastix runs an affine registration with Mattes mutual
# information. Prints both wall-clock and processor times and their ratios, and align's mean
# mapping error over the brain.
# usage: bench/example_vs_elastix.sh [build directory] [threads]
#   threads: ALIGN_THREADS for align and -threads for elastix (default: all cores)
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$top/build}" && pwd)"
threads="${2:-$(nproc)}"
align="$build/align"
make_vol="$build/make_test_volumes"
templates=/usr/share/mricron/templates
command -v elastix > /dev/null || { echo "elastix is not installed (Debian package elastix)"; exit 1; }

known=(4 -3 2 3 -2 2 1.03 0.98 1.02 0 0 0)
work="$(mktemp -d "${TMPDIR:-/tmp}/align-vs-elastix-XXXXXX")"
trap 'rm -rf "$work"' EXIT
cd "$work"
zcat "$templates/ch2bet.nii.gz" > ch2bet.nii
"$make_vol" moved "$templates/ch2.nii.gz" moved_ch2.nii "${known[@]}" > /dev/null

# elastix: a four-level affine registration with Mattes mutual information, as its manual's
# affine examples
cat > affine.txt <<'PARAMETERS'
(FixedInternalImagePixelType "float")
(MovingInternalImagePixelType "float")
(Registration "MultiResolutionRegistration")
(FixedImagePyramid "FixedSmoothingImagePyramid")
(MovingImagePyramid "MovingSmoothingImagePyramid")
(Interpolator "BSplineInterpolator")
(ResampleInterpolator "FinalBSplineInterpolator")
(Resampler "DefaultResampler")
(Metric "AdvancedMattesMutualInformation")
(Optimizer "AdaptiveStochasticGradientDescent")
(Transform "AffineTransform")
(AutomaticScalesEstimation "true")
(AutomaticTransformInitialization "true")
(HowToCombineTransforms "Compose")
(NumberOfHistogramBins 32)
(NumberOfResolutions 4)
(MaximumNumberOfIterations 250)
(NumberOfSpatialSamples 2048)
(NewSamplesEveryIteration "true")
(ImageSampler "RandomCoordinate")
(BSplineInterpolationOrder 1)
(FinalBSplineInterpolationOrder 3)
(WriteResultImage "false")
(ResultImageFormat "nii")
PARAMETERS

echo "machine: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores, $threads threads"
echo "before: $(uptime | sed 's/.*load/load/')"

rm -f align.com
start=$(date +%s.%N)
ALIGN_THREADS=$threads /usr/bin/time -f "%U %S" -o align.cpu \
    xvfb-run -a -s "-screen 0 1280x1024x24" "$align" moved_ch2.nii -t ch2bet.nii -a > align.log 2>&1 ||
    { echo "align failed:"; tail -20 align.log; exit 1; }
align_s=$(echo "$(date +%s.%N) - $start" | bc)
align_err=$("$make_vol" mapping-error ch2bet.nii align.com "${known[@]}" | awk '$1 == "mean_error_mm" {print $2}')

mkdir -p elastix_out
start=$(date +%s.%N)
/usr/bin/time -f "%U %S" -o elastix.cpu \
    elastix -f ch2bet.nii -m moved_ch2.nii -p affine.txt -out elastix_out -threads "$threads" > elastix.log 2>&1 ||
    { echo "elastix failed:"; tail -20 elastix.log; exit 1; }
elastix_s=$(echo "$(date +%s.%N) - $start" | bc)
echo "after: $(uptime | sed 's/.*load/load/')"

# processor time (user + system, all threads): what the run costs whatever else the machine does
align_cpu=$(awk '{print $1 + $2}' align.cpu)
elastix_cpu=$(awk '{print $1 + $2}' elastix.cpu)
printf "align -a : %6.1f s wall, %6.1f s processor (mean mapping error %s mm)\n" "$align_s" "$align_cpu" "$align_err"
printf "elastix  : %6.1f s wall, %6.1f s processor (affine, Mattes MI)\n" "$elastix_s" "$elastix_cpu"
printf "ratio align / elastix: %.2f wall, %.2f processor\n" "$(echo "$align_s / $elastix_s" | bc -l)" \
    "$(echo "$align_cpu / $elastix_cpu" | bc -l)"
