# shellcheck shell=sh
# What the Update Modules camera-firmware and tallyvane-firmware share:
# meta-data, staging of the image, the install loop, rollback bookkeeping
# and cleanup. A module sets `module`, defines the hooks below and sources
# this file, which then answers the state it was called for:
#   read_meta              sets version, targets (what gets updated) and
#                          package (the file name the updater looks for)
#   preflight              refuses (fail) what cannot work before anything runs
#   describe TARGET        "camera 0", "the board"
#   running_version TARGET the version TARGET runs now, nothing when unknown
#   unreachable TARGET     why TARGET cannot be updated now, nothing when it can
#   run_update TARGET      firmware-updater for TARGET, with the staging
#                          directory as its firmware directory
# The inventory script uses is_version and camera_version as well.
# shellcheck disable=SC2154  # module, version, targets and package come from the module

# A decimal without leading zeros that fits the updater's int.
is_version() {
    case $1 in '' | *[!0-9]* | 0?*) return 1 ;; esac
    [ ${#1} -lt 10 ] || { [ ${#1} -eq 10 ] && [ "$1" -le 2147483647 ]; }
}

# The firmware version camd reports for camera $1, nothing when it does not
# answer within 2 s (a camd that holds its reply would cost 25 s a camera).
camera_version() {
    path=/com/quorvex/common/Camd1/Camera$1
    if command -v busctl >/dev/null 2>&1; then
        busctl --user --timeout=2 call com.quorvex.common.Camd1 "$path" \
            com.quorvex.common.Camd1.Firmware GetCameraFirmwareVersion 2>/dev/null |
            sed -n 's/^i \(-*[0-9]*\)$/\1/p'
    else
        gdbus call --session --timeout 2 --dest com.quorvex.common.Camd1 --object-path "$path" \
            --method com.quorvex.common.Camd1.Firmware.GetCameraFirmwareVersion 2>/dev/null |
            sed -n 's/^(\(-*[0-9]*\),)$/\1/p'
    fi
}

fail() {
    echo "$module: $*" >&2
    exit 1
}

# A top-level number of the meta-data (nested keys never count), checked as a version.
meta_number() {
    value=$(jq -r --arg key "$1" '.[$key] | if type == "number" then tostring else empty end' \
        "$files/header/meta-data" 2>/dev/null)
    is_version "$value" ||
        fail "meta-data: $1 must be a top-level number from 0 to 2147483647 without leading zeros"
    echo "$value"
}

# The version the artifact provides (rootfs-image.<module>.version) must be
# the meta-data's: the client keeps the last of keys given twice, so
# {"version": 8, "version": 9} would otherwise flash 9 and report 8.
check_provided() {
    provided=$(jq -r --arg key "rootfs-image.$module.version" '.artifact_provides[$key] // empty' \
        "$files/header/type-info" 2>/dev/null)
    [ "$provided" = "$version" ] ||
        fail "meta-data: version $version is not the version the artifact provides (${provided:-none})"
}

# The updater picks the newest package of its kind in its firmware directory.
# It gets a directory of the module's own that holds the artifact's image and
# nothing else, so no other package can be flashed, and the firmware
# directory itself is never written: a file of the same name that is there
# stays as it is. Only the module writes the staging directory; every
# deployment removes it before it starts and when it ends, so a copy cut off
# by a power cut goes at the next deployment (or at ArtifactFailure).
remove_stage() {
    rm -rf "$stage" || fail "cannot remove $stage"
}

install_artifact() {
    remove_stage
    [ -f "$files/header/meta-data" ] || fail "no meta-data: build the artifact with camera-firmware-artifact-gen"
    read_meta
    check_provided
    set -- "$files"/files/*
    if [ $# -ne 1 ] || [ ! -f "$1" ]; then fail "the payload must be exactly one image file"; fi
    [ -s "$1" ] || fail "the image is empty"
    preflight
    # Only the module's own staging directory is made there, never the firmware directory.
    [ -d "$firmware_dir" ] || fail "no firmware directory $firmware_dir (create it, root's and mode 0755)"
    # Before the first target is touched, once a deployment: what ArtifactRollback
    # compares with. An install run again before commit or rollback keeps it.
    if [ ! -f "$before" ]; then
        : >"$before.tmp" || fail "cannot write $before"
        for target in $targets; do
            printf '%s %s\n' "$target" "$(running_version "$target")" >>"$before.tmp"
        done
        mv "$before.tmp" "$before" || fail "cannot write $before"
    fi
    if ! { mkdir "$stage" && cp "$1" "$stage/$package"; }; then fail "cannot stage the image in $stage"; fi

    failed=0
    esc=$(printf '\033')
    for target in $targets; do
        why=$(unreachable "$target")
        if [ -n "$why" ]; then
            failed=1
            echo "$module: $(describe "$target") is not updated: $why" >&2
            continue
        fi
        log=$files/tmp/firmware-updater-$target.log
        run_update "$target" >"$log" 2>&1
        status=$?
        # The updater also exits 0 when it does not update; only the version counts.
        running=$(running_version "$target")
        if [ "$running" != "$version" ]; then
            failed=1
            echo "$module: $(describe "$target") runs version ${running:-unknown}, not $version" \
                "(firmware-updater exited with status $status); its last lines:" >&2
            # The client deletes the log with the work directory: its end goes to the deployment log.
            # Without the colours: the log is read as plain text.
            tail -n 8 "$log" | sed "s/$esc\[[0-9;]*m//g; s/^/$module:   /" >&2
        fi
    done
    remove_stage
    [ $failed -eq 0 ] || fail "update to version $version failed"
}

# Succeeds exactly when every target runs what it ran before the deployment,
# so the client reports the previous artifact again; otherwise it reports the
# device inconsistent, which is then the truth.
roll_back() {
    [ -f "$before" ] || return 0 # refused before any target was touched
    while read -r target was; do
        now=$(running_version "$target")
        [ "$now" = "$was" ] ||
            fail "$(describe "$target") runs version ${now:-unknown}, not ${was:-unknown} as before: cannot roll back"
    done <"$before"
}

# Answers the state the client called the module for: run_module STATE FILES_DIR
run_module() {
    # The updater reads only a package and directory that group and others cannot write.
    umask 022
    state=${1:?state}
    files=${2:?files directory}
    firmware_dir=${QUORVEX_FIRMWARE_DIR:-/lib/firmware/quorvex}
    stage=$firmware_dir/.$module
    # Beside the client's work directories, which an install run again replaces.
    before=${files%/payloads/*}/$module-versions-before
    case $state in
        ArtifactInstall) install_artifact ;;
        NeedsArtifactReboot) echo No ;;
        SupportsRollback) echo Yes ;;
        ArtifactRollback) roll_back ;;
        ArtifactFailure) remove_stage ;;
        # The end of a deployment, whatever its outcome.
        Cleanup)
            remove_stage
            rm -f "$before" || fail "cannot remove $before"
            ;;
        # Every other state, including ones later clients add, has nothing to do.
    esac
    exit 0
}
