#!/usr/bin/env bash
# Key-to-image time of a control-panel step at 1 mm: align shows ch2 resampled onto ch2bet
# (181 x 217 x 181) in a virtual X server; the panel is switched to the affine set and the
# translation "  x" is stepped with the Right key. Each step resamples the whole individual and
# redraws the image; bench/panel_step (another X client) sends the key and reads the window
# back until the image has changed.
# usage: bench/panel_step.sh [build directory] [screen size] [steps]
#   screen 1280x1024 (default) shows three planes; 4096x3200 fits the mosaic of all 181 slices.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$top/build}" && pwd)"
screen="${2:-1280x1024}"
steps="${3:-15}"
align="$build/align"
helper="$build/bench/panel_step"
templates=/usr/share/mricron/templates

work="$(mktemp -d "${TMPDIR:-/tmp}/align-panel-XXXXXX")"
server=""
cleanup() {
    [ -n "${pid:-}" ] && kill "$pid" 2> /dev/null || true
    [ -n "$server" ] && kill "$server" 2> /dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
zcat "$templates/ch2.nii.gz" > ch2.nii
zcat "$templates/ch2bet.nii.gz" > ch2bet.nii

display=:$(( 170 + RANDOM % 60 ))
Xvfb "$display" -screen 0 "${screen}x24" -nolisten tcp > xvfb.log 2>&1 &
server=$!
export DISPLAY=$display
for _ in $(seq 50); do xdpyinfo > /dev/null 2>&1 && break; sleep 0.1; done

"$align" ch2.nii -t ch2bet.nii > align.log 2>&1 &
pid=$!
win=""
for _ in $(seq 300); do
    win=$(xdotool search --name '^align \(zoom = ' 2> /dev/null | tail -n 1) && [ -n "$win" ] && break
    sleep 0.2
done
[ -n "$win" ] || { echo "no align window"; cat align.log; exit 1; }
sleep 1
read -r width height < <(xwininfo -id "$win" | awk '/Width:/ {w = $2} /Height:/ {h = $2} END {print w, h}')
panel_x=$(( width - 80 )); panel_y=120
image_w=$(( width - 160 )); image_h=$(( height - 75 ))
# the middle of the XY plane in three-plane mode (at most 401 pixels high at zoom 1), else the
# middle of the central panel of the mosaic (181 x 217 pixels and a 1-pixel border each)
if [ "$image_h" -le 401 ]; then
    probe_x=90; probe_y=$(( 30 + 108 ))
else
    cols=$(( (image_w - 1) / 182 )); rows=$(( (image_h - 1) / 218 ))
    probe_x=$(( (cols / 2) * 182 + 1 + 90 )); probe_y=$(( 30 + (rows / 2) * 218 + 1 + 108 ))
fi
echo "window $width x $height on a $screen screen ($(xdotool getwindowname "$win"))"
xdotool mousemove --window "$win" "$panel_x" "$panel_y"
sleep 0.3
xdotool click 1   # next set: the affine parameters, "  x" selected
sleep 1.5
echo "machine: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores; $(uptime | sed 's/.*load/load/')"
"$helper" "$win" "$panel_x" "$panel_y" "$probe_x" "$probe_y" "$steps" Right
