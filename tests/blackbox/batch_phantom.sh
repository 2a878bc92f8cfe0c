# A synthetic phantom moved by 6 mm along x: the batch alignment finds the translation that
# undoes the move (x = -6 mm in the program's convention) within half a millimetre; the same
# volumes gzipped (".nii.gz") give the same align.com.
align=$1 make_volumes=$2
. "$(dirname "$0")/batch_lib.sh"

"$make_volumes" shifted-phantom 6 ind.nii tpl.nii > phantom.txt || exit 1
grep -qx "translation -6 0 0" phantom.txt || { echo "FAIL: phantom: $(cat phantom.txt)"; exit 1; }
batch_run ind.nii tpl.nii
line=$(grep "^set registration-translations " align.com)
echo "$line"
echo "$line" | awk '{ d = $3 + 6; if (d < 0) d = -d; y = $4 < 0 ? -$4 : $4; z = $5 < 0 ? -$5 : $5;
                      exit !(d < 0.5 && y < 0.5 && z < 0.5) }' || { echo "FAIL: translation not recovered"; exit 1; }
mv align.com plain.com
gzip -c ind.nii > ind.nii.gz && gzip -c tpl.nii > tpl.nii.gz || exit 1
batch_run ind.nii.gz tpl.nii.gz
cmp plain.com align.com || { echo "FAIL: gzipped volumes align differently"; diff plain.com align.com; exit 1; }
echo "PASS"
