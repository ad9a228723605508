# Tests on other architectures; part of ./dev. Nothing foreign is installed on the machine: the
# packages' files are laid into a directory of the build.

packages_i386=(g++-i686-linux-gnu qemu-user)
packages_arm64=(g++-aarch64-linux-gnu qemu-user)
packages_armhf=(g++-arm-linux-gnueabihf qemu-user)
packages_cross=(mmdebstrap)
packages_sysroot=(libstdc++-12-dev libcurl4-openssl-dev libmnl-dev liburiparser-dev
  libcpp-httplib-dev libcli11-dev nlohmann-json3-dev libgtest-dev libssl-dev libglib2.0-dev
  libsecret-1-dev)

# make_sysroot ARCHITECTURE DIRECTORY: what is there already is kept while the list is the same.
make_sysroot() {
  local arch=$1 sysroot=$2 packages
  [[ -f $sysroot.packages && $(<"$sysroot.packages") == "${packages_sysroot[*]}" ]] && return
  say "laying the files of $arch packages into $sysroot"
  rm -rf "$sysroot" "$sysroot.packages"
  mkdir -p "$sysroot"
  # Without the security suite, which may lag behind for an architecture that the machine does not
  # use itself.
  debian_sources "$codename" | grep -v -- -security >"$sysroot.list"
  packages=$(IFS=, && printf '%s' "${packages_sysroot[*]}")
  "${as_root[@]}" mmdebstrap --quiet --variant=extract --architectures="$arch" \
    --include="$packages" "$codename" "$sysroot" "$sysroot.list" >"$sysroot.log" 2>&1 || {
    tail -20 "$sysroot.log" >&2
    fail "test: the packages of $arch could not be had"
  }
  ((EUID == 0)) || "${as_root[@]}" chown -R "$(id -u):$(id -g)" "$sysroot"
  printf '%s' "${packages_sysroot[*]}" >"$sysroot.packages"
}

# cross_test ARCHITECTURE [ctest arguments]
cross_test() {
  (($#)) || fail "test: --arch needs a name"
  local arch=$1 triplet emulator='' directory=build-$1 sysroot
  shift
  case $arch in
    i386) triplet=i686-linux-gnu ;;
    arm64) triplet=aarch64-linux-gnu emulator=qemu-aarch64 ;;
    armhf) triplet=arm-linux-gnueabihf emulator=qemu-arm ;;
    *) fail "test: the architectures are i386, arm64 and armhf" ;;
  esac
  [[ $codename == bookworm ]] || fail "test: other architectures are built on Debian 12 (bookworm)"
  need test
  local -n own=packages_$arch
  packages_architecture=("${packages_cross[@]}" "${own[@]}")
  need architecture
  sysroot=$PWD/$directory/sysroot
  make_sysroot "$arch" "$sysroot"
  # Some kernels run no 32-bit programs.
  if [[ $arch == i386 ]] && ! "$sysroot/lib/ld-linux.so.2" --version >/dev/null 2>&1; then
    emulator=qemu-i386
  fi
  say "tests: $arch in $directory"
  configure "$directory" "$triplet-g++" --toolchain "$PWD/cmake/cross.cmake" \
    -DORBIQ_TRIPLET="$triplet" -DORBIQ_SYSROOT="$sysroot" \
    -DORBIQ_EMULATOR="${emulator:+$(command -v "$emulator");-L;$sysroot}" \
    -DORBIQ_BUILD_TESTS=ON
  compile "$directory"
  # The emulated kernel counts no TCP segments, and has no terminals and no set-user-id programs.
  local left_out='HostProcess.(AFullTerminal|ASetUserId)|KeptConnectionTest.HasARequestRepeated'
  with_network ctest --test-dir "$directory" --output-on-failure --no-tests=error -j "$jobs" \
    ${emulator:+-E "$left_out"} "$@"
}
