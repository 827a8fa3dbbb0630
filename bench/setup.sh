#!/bin/sh
# Installs ENet's development package (Debian) so that weft-bench can measure
# it as a baseline. Safe to run repeatedly: it does nothing when it is there.
# The library never depends on it; weft-bench leaves ENet out when it is missing.
set -eu

if dpkg-query -W -f='${Status}' libenet-dev 2>/dev/null | grep -q "install ok installed"; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi

# A fresh machine may have no package lists yet: update once and try again.
if ! $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        libenet-dev >/dev/null; then
    $SUDO apt-get update -qq
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        libenet-dev >/dev/null
fi
