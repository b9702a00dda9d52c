#!/bin/sh
# systemd-analyze verify on the shipped units, with ExecStart pointed at the
# binary just built: verify insists that the program exists. It exits 0
# after a line it could not parse ("ignoring"), so any output fails too.
# Usage: verify_units.sh FIRMWARE_UPDATER UNIT_DIR
set -eu
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
for unit in "$2"/*.service; do
    sed "s|^ExecStart=/usr/bin/firmware-updater|ExecStart=$1|" "$unit" >"$dir/${unit##*/}"
done
cd "$dir"
out=$(systemd-analyze verify firmware-updater-camera@0.service firmware-updater-tallyvane.service \
    firmware-updater-tallyvane-update.service 2>&1) || {
    echo "$out"
    exit 1
}
[ -z "$out" ] || { echo "$out"; exit 1; }
