# Packages, what they export, and whether they install; part of ./dev.

dev_package() {
  need package
  say "packages: building"
  # As Debian builds: for /usr, with its optimisation and hardening, without the place of the build.
  CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
    LDFLAGS="$(dpkg-buildflags --get LDFLAGS)" configure build-package g++ -DORBIQ_BUILD_TESTS=OFF \
    -DORBIQ_LTO=ON -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr
  compile build-package --target orbiq_installed
  rm -rf build-package/packages
  say "packages: packing"
  cpack -G DEB --config build-package/CPackConfig.cmake -B build-package/packages >build-package/cpack.log 2>&1 ||
    { cat build-package/cpack.log >&2; fail "cpack failed"; }
  rm -rf build-package/packages/_CPack_Packages build-package/install_manifest_*.txt
  say "packages: lintian"
  lintian --fail-on error,warning build-package/packages/*.deb
  ls build-package/packages
}

dev_symbols() {
  need package
  dev_build --target orbiq orbiq_secretservice
  python3 tools/lint/symbols.py --update cmake/exported-symbols/liborbiq.txt build/orbiq/liborbiq.so
  python3 tools/lint/symbols.py --update cmake/exported-symbols/liborbiq_secretservice.txt \
    build/orbiq/secretservice/liborbiq_secretservice.so
}

# What the packages depend on, but for one another; of alternatives the first.
packages_dependencies() {
  local package
  for package in build-package/packages/*.deb; do dpkg-deb -f "$package" Depends Recommends; done |
    sed 's/^[A-Za-z]*: //' | tr ',' '\n' | sed 's/|.*//; s/([^)]*)//; s/ //g' |
    grep -Ev '^(liborbiq.*|orbiq-.*)?$' | sort -u
}

# A Debian of the machine's own release and package sources, kept in the build directory.
clean_root() {
  local archive=$1 sources
  shift
  mapfile -t sources < <(apt_sources)
  rm -f build-package/root-*.tar*
  "${as_root[@]}" mmdebstrap --quiet --variant=apt --format=tar --include="$(IFS=,; echo "$*")" \
    "$codename" "$archive.part" "${sources[@]}" || fail "mmdebstrap failed"
  mv "$archive.part" "$archive"
}

dev_install-check() {
  need install
  dev_package
  local wanted archive root=build-package/root
  mapfile -t wanted < <(packages_dependencies)
  wanted+=(g++ cmake ninja-build pkg-config)
  archive=build-package/root-$(sha256sum <<<"${wanted[*]}" | cut -c1-16).tar
  if [[ ! -f $archive ]]; then
    say "install-check: making a clean Debian"
    clean_root "$archive" "${wanted[@]}"
  fi
  "${as_root[@]}" rm -rf "$root"
  mkdir -p "$root"
  "${as_root[@]}" tar --extract --file "$archive" --directory "$root"
  "${as_root[@]}" mkdir -p "$root/orbiq/source"
  "${as_root[@]}" cp -r build-package/packages "$root/orbiq/packages"
  tar --create --exclude='./build*' --exclude=./.git --exclude=./node_modules . |
    "${as_root[@]}" tar --extract --directory "$root/orbiq/source"
  # shellcheck disable=SC2016
  with_network "${as_root[@]}" unshare --mount bash -c '
    set -e
    mount --rbind /proc "$1/proc"
    mount --rbind /dev "$1/dev"
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$1" \
      /bin/bash /orbiq/source/tests/install/check.sh' install-check "$root"
  "${as_root[@]}" rm -rf "$root"
}
