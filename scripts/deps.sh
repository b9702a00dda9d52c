# Sourced by the other scripts: makes sure the Debian packages the build
# and the tests need are installed.
FWU_PACKAGES="cmake g++ make pkg-config libboost-dev libsdbus-c++-dev \
libsystemd-dev dbus-daemon libgtest-dev libgmock-dev libbenchmark-dev valgrind"
# Only the tests need these: the Mender client end to end, shellcheck on the
# support scripts, systemd-analyze on the units.
FWU_TEST_PACKAGES="mender-client mender-artifact shellcheck systemd"

# Usage: fwu_install_deps [PACKAGE...]   (default: $FWU_PACKAGES)
fwu_install_deps() {
  local missing=""
  for p in ${*:-$FWU_PACKAGES}; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
  done
  [ -z "$missing" ] && return 0
  if [ "$(id -u)" -eq 0 ]; then
    echo "Installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    # Other installs may be running on the same machine: wait for the lock.
    # A foreign index that fails to download makes update exit 100; the rest is still fresh.
    apt-get -o DPkg::Lock::Timeout=600 update -qq || true
    apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends $missing >/dev/null
  else
    echo "Missing packages:$missing" >&2
    echo "Run: sudo apt-get install -y$missing" >&2
    return 1
  fi
}
