# Debian packages, by what needs them, and how they are installed; part of ./dev. An entry `a|b`
# takes the first of these names that the release has.

packages_demo=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev libmnl-dev liburiparser-dev
  libcpp-httplib-dev libssl-dev libcli11-dev nlohmann-json3-dev python3 iproute2 util-linux)
packages_test=("${packages_demo[@]}" clang libclang-rt-dev libgtest-dev libgmock-dev libplist-dev
  libglib2.0-dev python3-prometheus-client python3-jsonschema)
packages_bench=("${packages_demo[@]}" libplist-dev python3-matplotlib)
packages_instructions=("${packages_bench[@]}" valgrind)
# Of one version on every release, so that all agree on the form of the code.
packages_lint=("${packages_test[@]}" libsecret-1-dev clang-format-19 clang-tidy-19 mandoc mypy)
packages_docs=("${packages_demo[@]}" libsecret-1-dev doxygen python3-sphinx
  python3-myst-parser furo python3-breathe shellcheck)
packages_package=("${packages_docs[@]}" dpkg-dev lintian)
packages_install=("${packages_package[@]}" mmdebstrap)

# Parts of the tests that can be left out.
parts_test=(qt keyring page)
packages_qt=('qt6-base-dev|qtbase5-dev')
packages_keyring=(libsecret-1-dev gnome-keyring dbus)
packages_page=(chromium nodejs)
packages_languages=(rustc golang-go)
packages_player=(libgstreamer1.0-dev gstreamer1.0-plugins-base gstreamer1.0-tools)
command -v npm >/dev/null || packages_page+=(npm)  # some packages of nodejs bring their own
declare -A without=(
  [qt]='the example of a Qt main loop and its test'
  [keyring]="orbiq::secretservice, its tests and that of the pages' samples"
  [player]='the example of a media player and its test'
  [languages]='the test of the examples in Rust and Go'
  [page]="the test of the collector's page in a browser"
)

# What the benchmarks need is among them.
packages_all=("${packages_lint[@]}" "${packages_instructions[@]}" "${packages_install[@]}"
  "${packages_docs[@]}" valgrind)
parts_all=("${parts_test[@]}" languages player)
parts_lint=("${parts_test[@]}")

is_installed() {
  [[ $(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

is_offered() { [[ $(apt-cache policy "$1" 2>/dev/null) == *$'\n  Candidate: '[0-9]* ]]; }

# Adds to `missing` what has to be installed for the entries, and to `unknown` what the release has
# under none of their names.
look_up() {
  local entry name names
  for entry in "$@"; do
    IFS='|' read -ra names <<<"$entry"
    for name in "${names[@]}"; do is_installed "$name" && continue 2; done
    refresh_lists
    for name in "${names[@]}"; do is_offered "$name" && missing+=("$name") && continue 2; done
    unknown+=("$entry")
  done
}

# Once, and only where something is missing: before, the release's names may be unknown.
refresh_lists() {
  [[ -z $lists_are_fresh ]] || return 0
  ((EUID == 0)) || command -v sudo >/dev/null ||
    fail "packages are missing, and there is neither root nor sudo"
  "${as_root[@]}" apt-get update -qq
  lists_are_fresh=yes
}
lists_are_fresh=''

# setup SET: installs what is missing of it.
dev_setup() {
  local set=${1:-all} missing=() unknown=() part
  case $set in
    demo | test | bench | instructions | lint | package | install | docs | architecture | all) ;;
    *) fail "setup: no set named $set" ;;
  esac
  command -v dpkg-query >/dev/null || fail "setup knows only Debian and its relatives"
  local -n wanted=packages_$set
  look_up "${wanted[@]}"
  ((${#unknown[@]} == 0)) || fail "setup: this release has no package named ${unknown[*]}"
  if [[ -v parts_$set ]]; then
    local -n optional=parts_$set
    for part in "${optional[@]}"; do look_up_part "$part"; done
  fi
  ((${#missing[@]})) || return 0
  say "installing ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# A part that is not wanted, or that the release does not have whole, is not installed.
look_up_part() {
  local -n of_part=packages_$1
  local needed=("${missing[@]}") name
  if [[ -n $is_lean ]]; then
    for name in "${of_part[@]}"; do
      is_installed "${name%%|*}" || { say "left out: ${without[$1]}"; return; }
    done
    return
  fi
  unknown=()
  look_up "${of_part[@]}"
  ((${#unknown[@]})) || return 0
  say "left out, as this release has no package named ${unknown[*]}: ${without[$1]}"
  missing=("${needed[@]}")
}
