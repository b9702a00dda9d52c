#!/bin/sh
# systemd-analyze verify on the shipped units, with ExecStart pointed at the
# binary just built: verify insists that the program exists. It exits 0
# after a line it could not parse ("ignoring"), so any output fails too.
# The drop-in for mender-client.service is verified on a stand-in for the
# client's unit, which may not be installed here.
# Usage: verify_units.sh FIRMWARE_UPDATER UNIT_DIR
set -eu
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
for unit in "$2"/*.service; do
    sed "s|^ExecStart=/usr/bin/firmware-updater|ExecStart=$1|" "$unit" >"$dir/${unit##*/}"
done
cp -r "$2/mender-client.service.d" "$dir/"
printf '[Unit]\nDescription=Stand-in\n[Service]\nExecStart=/bin/true\n' >"$dir/mender-client.service"
cd "$dir"
out=$(systemd-analyze verify firmware-updater-camera@0.service firmware-updater-tallyvane.service \
    firmware-updater-tallyvane-update.service mender-client.service 2>&1) || {
    echo "$out"
    exit 1
}
[ -z "$out" ] || { echo "$out"; exit 1; }
