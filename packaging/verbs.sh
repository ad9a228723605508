# Packages, and what they export; part of ./dev.

# As Debian builds: with its optimisation and hardening, and without the place of the build.
package_flags() {
  CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
  LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
  export CXXFLAGS LDFLAGS
  packaged=(-DORBIQ_LTO=ON -DCMAKE_BUILD_TYPE=None)
}

dev_package() {
  need package
  dev_docs
  say "packages: building"
  package_flags
  configure build-package g++ -DORBIQ_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DORBIQ_SITE="$PWD/build/docs/html" "${packaged[@]}"
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
