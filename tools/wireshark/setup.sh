#!/bin/sh
# Installs tshark and text2pcap (Debian packages) for the dissector tests.
# Safe to run repeatedly: it does nothing when both tools are present.
set -eu

if command -v tshark >/dev/null 2>&1 && command -v text2pcap >/dev/null 2>&1; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi

# Without the preseed, wireshark-common asks whether ordinary users may capture.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
# A fresh machine may have no package lists yet: update once and try again.
echo "setup: installing tshark"
if ! $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        tshark >/dev/null 2>&1; then
    $SUDO apt-get update -qq
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        tshark >/dev/null
fi
