#!/usr/bin/env bash
# Installs, with apt-get, whatever the build, the tests and the tool need and
# the machine lacks (Debian, as root).
set -euo pipefail

packages=(cmake g++ make libgtest-dev libbenchmark-dev graphviz swi-prolog-nox)
missing=()
for pkg in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
