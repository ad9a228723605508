# Packages, and what they export; part of ./dev.

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
