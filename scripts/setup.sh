#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Installs the Debian packages that building, testing and demonstrating halden needs.
# Idempotent: packages that are present are left alone. Runs as root, or through sudo.
set -euo pipefail

# libzookeeper-st-dev takes the place of libzookeeper-mt-dev: Debian installs only one of them.
packages=(
  build-essential cmake ninja-build git file pkg-config
  libzookeeper-st-dev libzookeeper-st2 libzookeeper-mt2 libboost1.81-dev libprotobuf-dev protobuf-compiler
  libspdlog-dev libfmt-dev libtomlplusplus-dev libcli11-dev nlohmann-json3-dev zlib1g-dev
  libkainjow-mustache-dev prometheus-cpp-dev curl
  libgtest-dev libgmock-dev libbenchmark-dev
  zookeeper openjdk-17-jre-headless python3-kazoo
)
if [[ "${1:-}" == "--clang" ]]; then # what scripts/check.sh and scripts/fuzz.sh need on top
  packages+=(clang libclang-rt-dev clang-format clang-tidy)
fi
if [[ "${1:-}" == "--tests" ]]; then # what scripts/test.sh needs on top
  packages+=(chromium-headless-shell haproxy prometheus systemd)
fi
if [[ "${1:-}" == "--examples" ]]; then # what scripts/examples.sh needs on top
  packages+=(stunnel4 openssl systemd)
fi
if [[ "${1:-}" == "--docs" ]]; then # what scripts/api_docs.sh needs on top
  packages+=(doxygen)
fi
if [[ "${1:-}" == "--bench" ]]; then # the yardsticks of scripts/bench.sh agent
  packages+=(wrk nginx-light etcd-server)
fi

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "installed" ]] || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  echo "setup: all ${#packages[@]} packages are installed"
  exit 0
fi

as_root=()
if [[ $EUID -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "setup: not root and no sudo; install by hand: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp) # shown only when something goes wrong; env below: sudo drops the variable otherwise
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update &&
       "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
         apt-get install --yes --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "setup: apt-get failed" >&2
  exit 1
fi
echo "setup: done"
