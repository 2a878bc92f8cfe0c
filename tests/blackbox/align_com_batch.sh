# A batch run starts from the parameters of an existing align.com: written by hand with a
# comment, an unknown keyword and a first word other than "set", they are recalled (and
# printed), the search keeps the recovered translation, and the file is rewritten whole.
align=$1 make_volumes=$2
. "$(dirname "$0")/batch_lib.sh"

"$make_volumes" shifted-phantom 4 ind.nii tpl.nii > phantom.txt || exit 1
cat > align.com <<'END'
# by hand
setenv registration-translations -4 0 0
set registration-colour blue
END
batch_run ind.nii tpl.nii
grep -q "Alignment parameters were recalled from file align.com" out.txt ||
    { echo "FAIL: align.com not recalled"; head -20 out.txt; exit 1; }
grep -q "registration-colour" align.com && { echo "FAIL: align.com not rewritten"; exit 1; }
for keyword in matrix resolution origin direction orientation translations rotations inflations skews; do
    grep -q "^set registration-$keyword " align.com || { echo "FAIL: no $keyword line"; cat align.com; exit 1; }
done
grep "^set registration-translations " align.com |
    awk '{ d = $3 + 4; if (d < 0) d = -d; exit !(d < 0.5) }' || { echo "FAIL: translation lost"; cat align.com; exit 1; }
echo "PASS"
