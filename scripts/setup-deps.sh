#!/usr/bin/env bash
# Installs every build and test dependency from Debian's packages.
# Idempotent: prints nothing and installs nothing when all is present.
#   scripts/setup-deps.sh          native build, tests, benchmarks, tools
#   scripts/setup-deps.sh --arm    also the AArch64 cross toolchain and emulator
#   scripts/setup-deps.sh --fuzz   also clang with libFuzzer and its OpenMP runtime
set -euo pipefail

want_arm=0
want_fuzz=0
for arg in "$@"; do
  case "$arg" in
    --arm) want_arm=1 ;;
    --fuzz) want_fuzz=1 ;;
    *) echo "usage: $0 [--arm] [--fuzz]" >&2; exit 2 ;;
  esac
done

native=(cmake make g++ pkgconf libfftw3-dev libiniparser-dev libgtest-dev libgmock-dev
        libbenchmark-dev libsndfile1-dev libpng-dev libhdf5-dev libxml2-dev libxxhash-dev
        python3 python3-numpy python3-scipy python3-dev pybind11-dev python3-pytest
        libcpp-httplib-dev chromium python3-websocket ccache)
arm=(g++-aarch64-linux-gnu qemu-user pkgconf:arm64 libstdc++6:arm64 libgomp1:arm64
     libfftw3-dev:arm64 libiniparser-dev:arm64 libgtest-dev:arm64 libxxhash-dev:arm64)

# A package counts as present only for the architecture asked for: with arm64
# added, a plain name such as libfftw3-dev may be installed twice (once per
# architecture), and dpkg-query then reports one status line for each.
native_arch=$(dpkg --print-architecture)
missing() {
  local p name arch st
  for p in "$@"; do
    case "$p" in
      *:*) name=${p%%:*}; arch=${p##*:} ;;
      *)   name=$p; arch=$native_arch ;;
    esac
    st=$(dpkg-query -W -f='${Architecture} ${Status}\n' "$name" 2>/dev/null || true)
    grep -Eq "^($arch|all) install ok installed\$" <<<"$st" || echo "$p"
  done
}

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

pkgs=("${native[@]}")
if [ "$want_arm" -eq 1 ]; then
  # The cross compiler is native; the libraries it links come from Debian's
  # arm64 multiarch packages, which the emulator also loads at run time.
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
  fi
  pkgs+=("${arm[@]}")
fi

if [ "$want_fuzz" -eq 1 ]; then
  pkgs+=(clang libclang-rt-dev libomp-dev)
fi

todo=$(missing "${pkgs[@]}")
if [ -n "$todo" ]; then
  echo "setup-deps: installing:" $todo
  $SUDO apt-get update -qq
  # shellcheck disable=SC2086
  $SUDO apt-get install -y -qq --no-install-recommends $todo >/dev/null
fi
