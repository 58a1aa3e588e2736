#!/usr/bin/env bash
# Installs what building and testing the library needs on a Debian machine,
# plus any packages named on the command line (a ":arm64" suffix adds that
# architecture first). Safe to run again: it installs only what is missing.
# Needs root or sudo.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format clang-tidy llvm libclang-rt-14-dev pkgconf
  libgtest-dev libgmock-dev googletest libbenchmark-dev libcli11-dev libxml2-utils
  android-liblog-dev nlohmann-json3-dev libarchive-dev
  doxygen
  valgrind
  chromium chromium-driver python3-selenium
  "$@"
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
for package in "${missing[@]}"; do
  architecture=${package#*:}
  if [ "$architecture" != "$package" ] &&
    ! dpkg --print-foreign-architectures | grep -qx "$architecture"; then
    "${sudo_cmd[@]}" dpkg --add-architecture "$architecture"
  fi
done
echo "setup: installing ${missing[*]}"
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null
