#!/usr/bin/env bash
# Prepares a cross build on Debian 12 with Debian's own packages: installs the cross compilers and
# user-mode emulation where missing, and unpacks the target's libraries (libfuse 2, libunwind, libzmq) into
# <build-dir>/sysroot, the default root of cmake/toolchains/*.cmake.
# Usage: scripts/setup-cross.sh armhf|arm64 <build-dir>
#
# The target's libraries are fetched without touching the machine's package database: the target
# architecture's package indexes are read into <build-dir>/cross-apt, and the packages are
# downloaded and unpacked from there. Adding the architecture to dpkg instead leads to install
# conflicts with the machine's own packages.
set -euo pipefail

usage() {
  echo "usage: $0 armhf|arm64 <build-dir>" >&2
  exit 2
}

[ $# -eq 2 ] || usage
arch=$1
build_dir=$(mkdir -p "$2" && cd "$2" && pwd)
case $arch in
  armhf) triple=arm-linux-gnueabihf emulator=qemu-arm ;;
  arm64) triple=aarch64-linux-gnu emulator=qemu-aarch64 ;;
  *) usage ;;
esac
# libunwind walks the call trace of the error reports; liblzma5 is its one dependency outside the
# C library. libzmq carries messages to nodes of other hosts; the libraries after it are those it
# is linked with (sodium, pgm, norm, GSSAPI with its Kerberos libraries, libbsd).
target_packages=(libfuse2 libfuse-dev libunwind8 libunwind-dev liblzma5
                 libzmq5 libzmq3-dev libsodium23 libpgm-5.3-0 libnorm1 libgssapi-krb5-2 libkrb5-3 libk5crypto3
                 libcom-err2 libkrb5support0 libkeyutils1 libbsd0 libmd0)
sysroot=$build_dir/sysroot
apt_dir=$build_dir/cross-apt
apt_options=(-q -o "APT::Architecture=$arch" -o "APT::Architectures=$arch"
             -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
             -o "APT::Sandbox::User=root")
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

install_host_tools() {
  command -v "$triple-g++" >/dev/null && command -v "$emulator" >/dev/null && return 0
  echo "Installing: g++-$triple qemu-user"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "g++-$triple" qemu-user
}

sysroot_is_current() {
  [ "$(cat "$sysroot/.packages" 2>/dev/null)" = "${target_packages[*]}" ]
}

read_target_indexes() {
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
  # A foreign architecture's index on the security mirror sometimes fails to download. The
  # packages needed here come from the main archive, so that is reported and not fatal; a package
  # that really cannot be found makes the download below fail.
  apt-get "${apt_options[@]}" update ||
    echo "setup-cross: some $arch package indexes failed to download; going on with the others"
}

download_target_packages() {
  rm -rf "$apt_dir/debs"
  mkdir -p "$apt_dir/debs"
  (cd "$apt_dir/debs" && apt-get "${apt_options[@]}" download "${target_packages[@]}")
}

unpack_into_sysroot() {
  rm -rf "$sysroot"
  mkdir -p "$sysroot"
  for package in "$apt_dir"/debs/*.deb; do
    dpkg -x "$package" "$sysroot"
  done
}

# Development links such as usr/lib/<triple>/libfuse.so point at absolute paths on the target;
# inside the sysroot they must point at the sysroot's own copy.
relink_absolute_symlinks() {
  local link target
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    [[ $target == /* ]] || continue
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
  done < <(find "$sysroot" -type l -print0)
}

# libzmq.pc asks for the development files of every library libzmq links with (Kerberos, libxml2
# and ICU among them), which pkg-config needs only for static linking. Everything here links
# libzmq dynamically, so the sysroot's copy does without them.
drop_private_requirements() {
  sed -i '/^Requires.private:/d' "$sysroot"/usr/lib/"$triple"/pkgconfig/libzmq.pc
}

install_host_tools
if sysroot_is_current; then
  echo "setup-cross: $sysroot is up to date"
  exit 0
fi
read_target_indexes
download_target_packages
unpack_into_sysroot
relink_absolute_symlinks
drop_private_requirements
echo "${target_packages[*]}" >"$sysroot/.packages"
echo "setup-cross: unpacked ${target_packages[*]} ($arch) into $sysroot"
