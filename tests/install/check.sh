#!/usr/bin/env bash
# In an empty Debian, as root: installs the library's packages from /orbiq/packages, builds
# the packaged examples and other applications with them, runs these against the packaged collector,
# and removes it all again. The source is in /orbiq/source.
set -euo pipefail
export LC_ALL=C HOME=/orbiq/home DBUS_SESSION_BUS_ADDRESS=unix:path=/nowhere
source=/orbiq/source
consumer=$source/tests/install/consumer
examples=/usr/share/doc/liborbiq-doc/examples
first_hit=$examples/first-hit/main.cpp
mkdir -p "$HOME" /orbiq/work
cd /orbiq/work

say() { printf 'install-check: %s (%ds)\n' "$*" "$SECONDS"; }

fail() {
  printf 'install-check: %s\n' "$*" >&2
  exit 1
}

# What is on the disk of the system, but for what this check put there itself and dpkg's records.
inventory() {
  find / -xdev \( -path /orbiq -o -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /var \) \
    -prune -o ! -type d -print | sort
}

expect_libraries() {  # PROGRAM yes|no: whether it loads our shared libraries
  local loads=no
  [[ $(readelf -d "$1") == *NEEDED*liborbiq* ]] && loads=yes
  [[ $loads == "$2" ]] || fail "$1 should load liborbiq: $2, does: $loads"
}

run_hit() {  # PROGRAM: ends well only if its hit was sent
  ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:$port/auth/ "$1" >"$1.log" 2>&1 ||
    { cat "$1.log" >&2; fail "$1 sent no hit"; }
  printf '  %s: %s\n' "$1" "$(tail -n 1 "$1.log")"
}

run_keyring() {
  "$1" >"$1.log" 2>&1 || { cat "$1.log" >&2; fail "$1 failed"; }
}

with_pkgconfig() {  # PROGRAM SOURCE MODULE
  # shellcheck disable=SC2046  # words are meant
  g++ -std=c++20 -Wall -Wextra -Werror "$2" -o "$1" $(pkg-config --cflags --libs "$3")
}

configure() {
  cmake -G Ninja -S "$consumer" -DFIRST_HIT="$first_hit" "$@" >cmake.log 2>&1 ||
    { cat cmake.log >&2; fail "cmake failed"; }
}

say "installing what building takes, and what the packages depend on"
depends=$(for package in /orbiq/packages/*.deb; do dpkg-deb -f "$package" Depends Recommends; done |
  sed 's/^[A-Za-z]*: //' | tr ',' '\n' | grep -v orbiq | paste -sd,)
{
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends g++ cmake ninja-build pkg-config \
    rustc golang-go
  apt-get satisfy -y -qq --no-install-recommends "$depends"
} >apt.log 2>&1 || { cat apt.log >&2; fail "what is needed does not install"; }

inventory >before
say "installing the packages"
dpkg -i /orbiq/packages/*.deb >dpkg.log 2>&1 || { cat dpkg.log >&2; fail "the packages do not install"; }
# The system's cache of libraries is renewed by the packages' trigger.
[[ $(ldconfig -p) == *liborbiq.so.1* ]] || fail "ldconfig does not know liborbiq.so.1"

exec {collector_says}< <(exec orbiq-collector --port 0 2>&1)
collector=$!
trap 'kill "$collector" 2>/dev/null || true' EXIT
read -r line <&"$collector_says" || fail "orbiq-collector did not start"
[[ $line =~ :([0-9]+)/$ ]] || fail "orbiq-collector says: $line"
port=${BASH_REMATCH[1]}

say "CMake and find_package"
configure -B with-cmake
cmake --build with-cmake >build.log 2>&1 || { cat build.log >&2; fail "the build failed"; }
for kind in '' -static; do
  [[ -z $kind ]] && shared=yes || shared=no
  expect_libraries "with-cmake/first-hit$kind" $shared
  expect_libraries "with-cmake/keyring$kind" $shared
  run_hit "with-cmake/first-hit$kind"
  run_keyring "with-cmake/keyring$kind"
done

say "CMake and the examples where they lie"
cmake -G Ninja -S "$examples" -B examples >cmake.log 2>&1 || { cat cmake.log >&2; fail "cmake failed"; }
cmake --build examples >build.log 2>&1 || { cat build.log >&2; fail "the build failed"; }
run_hit examples/orbiq-first-hit
run_hit examples/orbiq-first-hit-c

say "pkg-config alone"
mkdir with-pkgconfig
for kind in '' -static; do
  [[ -z $kind ]] && shared=yes || shared=no
  with_pkgconfig "with-pkgconfig/first-hit$kind" "$first_hit" "orbiq$kind"
  with_pkgconfig "with-pkgconfig/keyring$kind" "$consumer/keyring.cpp" "orbiq-secretservice$kind"
  expect_libraries "with-pkgconfig/first-hit$kind" $shared
  expect_libraries "with-pkgconfig/keyring$kind" $shared
  run_hit "with-pkgconfig/first-hit$kind"
  run_keyring "with-pkgconfig/keyring$kind"
done
# shellcheck disable=SC2046
gcc -std=c11 -pedantic -Wall -Wextra -Werror "$examples/first-hit-c/main.c" \
  -o with-pkgconfig/first-hit-c $(pkg-config --cflags --libs orbiq)
run_hit with-pkgconfig/first-hit-c

say "other languages"
rustc --edition 2021 -D warnings "$examples/first-hit-rust/main.rs" -o first-hit-rust
run_hit ./first-hit-rust
go build -o first-hit-go "$examples/first-hit-go/main.go"
run_hit ./first-hit-go
cat >first-hit.py <<'PROGRAM'
#!/usr/bin/python3
import orbiq
orbiq.describe(bundle_identifier="tv.example.player")
orbiq.Tagger("ABC").send_hit()
if not orbiq.flush(10) or orbiq.statistics().sent != 1:
    raise SystemExit(orbiq.statistics())
PROGRAM
chmod +x first-hit.py
run_hit ./first-hit.py
[[ $(pkg-config --libs orbiq) == *-lorbiq* && $(pkg-config --libs orbiq) != *curl* ]] ||
  fail "orbiq.pc links an application with more than the library"
for needed in -lcurl -lmnl -luriparser; do
  [[ $(pkg-config --static --libs orbiq) == *$needed* ]] || fail "orbiq.pc does not tell of $needed"
done

say "the doctor"
ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:$port/auth/ orbiq-doctor --serial ABC \
  --bundle-identifier tv.example.player --send >doctor.log || { cat doctor.log >&2; fail "the doctor finds a fault"; }
found=0
ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:9/ orbiq-doctor --serial ABC \
  --bundle-identifier tv.example.player >doctor.log || found=$?
[[ $found == 8 ]] || { cat doctor.log >&2; fail "the doctor does not find that nobody listens"; }

say "upgrading: installing over what is there"
dpkg -i /orbiq/packages/*.deb >dpkg.log 2>&1 || { cat dpkg.log >&2; fail "no upgrade"; }
run_hit with-cmake/first-hit

say "removing the packages"
mapfile -t packages < <(for each in /orbiq/packages/*.deb; do dpkg-deb -f "$each" Package; done)
dpkg -r "${packages[@]}" >dpkg.log 2>&1 || { cat dpkg.log >&2; fail "the packages do not go"; }
inventory >after
# ld.so.cache is the one file that is rewritten in place.
diff before after || fail "the packages leave files behind, or take some along"
[[ -f $HOME/.local/state/tv.example.player/Library/orbiqCache/requests.ser ]] ||
  fail "removing the packages took the user's data along"

say "CMake and FetchContent, from the source"
first_hit=$source/examples/first-hit/main.cpp
configure -B with-source -DORBIQ_SOURCE="$source" -DCMAKE_BUILD_TYPE=None
cmake --build with-source --target first-hit >build.log 2>&1 || { cat build.log >&2; fail "the build failed"; }
run_hit with-source/first-hit
say "all applications were built, and their hits arrived"
