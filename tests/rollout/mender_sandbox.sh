#!/bin/sh
# Runs COMMAND in a mount namespace of its own, where /usr/share/mender holds
# this tree's Update Modules and their library, and /etc/mender nothing but
# artifact_info (artifact_name=factory). The Mender client finds them where it
# looks, and the host's directories stay as they are. Needs root.
# Usage: mender_sandbox.sh SUPPORT_MENDER_DIR COMMAND [ARG...]
set -eu
# shellcheck disable=SC2016  # the inner shell expands them
exec unshare --mount --propagation private sh -eu -c '
    mount -t tmpfs sandbox /usr/share/mender
    mkdir -p /usr/share/mender/modules/v3 /usr/share/mender/firmware-updater
    cp "$0/camera-firmware" "$0/tallyvane-firmware" /usr/share/mender/modules/v3/
    cp "$0/update-module.sh" /usr/share/mender/firmware-updater/
    mount -t tmpfs sandbox /etc/mender
    echo artifact_name=factory >/etc/mender/artifact_info
    exec "$@"' "$@"
