#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test and run, skipping those that
# are already installed. Run as root (or with sudo available) on Debian 12.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git
  clang-14 libclang-rt-14-dev
  libsimdjson-dev libplist-dev libspdlog-dev
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  openssl libssl-dev libnghttp2-dev libevent-dev
  curl libcurl4-openssl-dev python3-aioapns nghttp2-client nghttp2-server
)
# Node.js and npm build and test the Node client. A machine that already has both commands (from
# another Node.js package, which carries its own npm and conflicts with Debian's) keeps them.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  packages+=(nodejs npm)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "setup: every package is installed"
  exit 0
fi

sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi
echo "setup: installing ${missing[*]}"
"${sudo[@]}" apt-get update
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
