#!/usr/bin/env bash
# Installs the Debian packages that a step needs and that are missing: setup.sh build|test|bench|fuzz.
# Each step includes the ones before it, except that bench and fuzz stand side by side.
set -euo pipefail

build=(g++ cmake ninja-build pkg-config libsqlite3-dev libasound2-dev libsndfile1-dev libcairo2-dev
  libpango1.0-dev libcups2-dev libtiff-dev libpng-dev)
test=("${build[@]}" libgtest-dev locales poppler-utils fonts-dejavu-core cups-daemon cups-client)
bench=("${test[@]}" libbenchmark-dev libspdlog-dev libboost-dev libtinyxml2-dev uuid-dev libserialport-dev)
fuzz=("${test[@]}" clang libclang-rt-dev)

step=${1:-build}
case $step in
  build | test | bench | fuzz) declare -n packages=$step ;;
  *) echo "usage: setup.sh build|test|bench|fuzz" >&2; exit 2 ;;
esac

become=()
[ "$(id -u)" = 0 ] || become=(sudo)
may_install() {
  [ "$(id -u)" = 0 ] || command -v sudo >/dev/null || { echo "setup.sh: please install: $1" >&2; exit 1; }
}

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
    missing+=("$package")
done
if [ ${#missing[@]} != 0 ]; then
  may_install "${missing[*]}"
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${become[@]}" apt-get update -qq
  "${become[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Tests format numbers in a locale other than "C".
if [ "$step" != build ] && ! locale -a | grep -qix 'de_DE\.utf-\?8'; then
  may_install "the locale de_DE.UTF-8"
  echo "making the locale de_DE.UTF-8"
  "${become[@]}" localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
