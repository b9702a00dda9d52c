#!/bin/sh
# Writes DIR/a.mender, a camera-firmware artifact of DIR/image.bin for version
# 3, region 0, cameras 0 and 1, made as HOW says:
#   signed KEY [V]    by the generator, signed with DIR/KEY (rsa.pem, ec.pem on
#                     P-256 or p384.pem on P-384), for version V instead of 3
#   unsigned          by the generator, not signed
#   tampered MEMBER   signed with rsa.pem, then its MEMBER (data/0000.tar.gz or
#                     header.tar.gz) replaced by that of an artifact of version 4
#                     and other bytes, under the same file names
#   meta FILTER       by mender-artifact itself, signed with rsa.pem, providing
#                     version 3, with the generator's meta-data passed through
#                     the jq FILTER
#   empty             as meta ., with image.bin emptied first
#   board             by the generator, for tallyvane-firmware version 9, signed
# The keys are made first, with the commands of docs/fleet.md, unless DIR has them.
# Usage: make_artifact.sh SUPPORT_MENDER_DIR DIR HOW [ARG [V]]
set -eu
gen=$1/camera-firmware-artifact-gen
cd "$2"
how=$3
arg=${4:-}
version=${5:-3}
if [ ! -f rsa.pem ]; then
    openssl genrsa -traditional -out rsa.pem 2048 2>/dev/null
    openssl rsa -in rsa.pem -pubout -out rsa.pub 2>/dev/null
    openssl ecparam -genkey -name prime256v1 -noout -out ec.pem
    openssl ecparam -genkey -name secp384r1 -noout -out p384.pem
fi
if [ "$how" = empty ]; then
    : >image.bin
    how=meta arg=.
fi
set -- -n fw -t camera-box --version "$version" --region 0 --camera 0 --camera 1
case $how in
    signed) "$gen" "$@" -o a.mender image.bin -- -k "$arg" ;;
    unsigned) "$gen" "$@" -o a.mender image.bin ;;
    board) "$gen" --tallyvane -n fw -t camera-box --version 9 -o a.mender image.bin -- -k rsa.pem ;;
    tampered)
        "$gen" "$@" -o a.mender image.bin -- -k rsa.pem
        mkdir -p other signed lender
        head -c 100 /dev/urandom >other/image.bin
        "$gen" -n fw -t camera-box --version 4 --region 0 --camera 0 -o lender.mender other/image.bin
        tar -xf a.mender -C signed
        tar -xf lender.mender -C lender
        cp "lender/$arg" "signed/$arg"
        tar -cf a.mender -C signed version manifest manifest.sig header.tar.gz data/0000.tar.gz ;;
    meta)
        jq -n "{region: 0, version: 3, cameras: [\"0\", \"1\"]} | $arg" >meta-data
        mender-artifact write module-image -T camera-firmware -n fw -t camera-box -o a.mender -f image.bin \
            -m meta-data --software-version 3 -k rsa.pem >/dev/null
        [ -s a.mender ] ;;
    *) echo "make_artifact.sh: unknown HOW: $how" >&2; exit 2 ;;
esac
