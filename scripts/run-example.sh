#!/usr/bin/env bash
# The example: sets up a fresh Debian machine (run as root to install the packages), builds and
# installs align into ./install, then aligns a real brain. The template is the skull-stripped
# ch2bet brain of Debian's mricron-data; the individual is the ch2 head moved by a known affine
# transform (made by the project's tool make_test_volumes). align runs in batch mode: it prints
# the parameter table as the search converges and saves align.com. At the end the known and the
# recovered transforms are shown side by side, with the mapping error over the brain, and
# align-apply brings the individual into the template's space with the recovered alignment.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(bash "$top/scripts/setup.sh" | tail -n 1)"
cmake --install "$build" --prefix "$top/install" > /dev/null
export QOR_HOME="$top/install"
align="$top/install/bin/align"
align_apply="$top/install/bin/align-apply"
make_vol="$build/make_test_volumes"

# the known transform: translations (mm), rotations (degrees), inflations, skews
known=(4 -3 2 3 -2 2 1.03 0.98 1.02 0 0 0)

work="$top/example"
mkdir -p "$work"
cd "$work"
zcat /usr/share/mricron/templates/ch2bet.nii.gz > ch2bet.nii
echo "Making the individual: ch2 moved by the known transform"
"$make_vol" moved /usr/share/mricron/templates/ch2.nii.gz moved_ch2.nii "${known[@]}"
rm -f align.com

echo
echo "\$ align moved_ch2.nii -t ch2bet.nii -a"
if [ -n "${DISPLAY:-}" ]; then
    "$align" moved_ch2.nii -t ch2bet.nii -a
else
    xvfb-run -a -s "-screen 0 1280x1024x24" "$align" moved_ch2.nii -t ch2bet.nii -a
fi

echo
echo "Known and recovered transforms (align.com in $work):"
awk -v k="${known[*]}" '
    BEGIN { n = split(k, kv, " ");
            split("translations rotations inflations skews", names, " ") }
    $1 == "set" && $2 ~ /^registration-(translations|rotations|inflations|skews)$/ {
        rec[substr($2, 14)] = $3 " " $4 " " $5 }
    END {
        printf "%-13s %-28s %s\n", "", "known", "recovered";
        for (i = 1; i <= 4; i++) {
            printf "%-13s %-28s %s\n", names[i], kv[3*i-2] " " kv[3*i-1] " " kv[3*i], rec[names[i]] }
    }' align.com
"$make_vol" mapping-error ch2bet.nii align.com "${known[@]}"

echo
echo "\$ align-apply --template ch2bet.nii --alignment align.com moved_ch2.nii aligned_ch2.nii.gz"
"$align_apply" --template ch2bet.nii --alignment align.com moved_ch2.nii aligned_ch2.nii.gz
