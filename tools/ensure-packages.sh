#!/usr/bin/env bash
# Installs the Debian packages named on the command line that are not installed yet.
set -euo pipefail
missing=()
for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing missing packages: ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
        SUDO="sudo -n"
    else
        echo "error: these Debian packages are missing and installing them needs root: ${missing[*]}" >&2
        echo "       run: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null || true
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
