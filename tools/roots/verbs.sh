# Checks in an empty Debian; part of ./dev. A root per release is kept in build-roots/.

releases=(bookworm trixie)

# debian_sources RELEASE: where this machine has Debian's packages from, for that release.
debian_sources() {
  local kind=(--format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian')
  [[ -n $(apt-get indextargets "${kind[@]}") ]] || refresh_lists >&2
  apt-get indextargets "${kind[@]}" | sed "s/ $codename/ $1/"
}

# clean_root RELEASE DIRECTORY: an empty Debian, in which the user `newcomer` may use sudo.
clean_root() {
  local archive=build-roots/$1.tar sources=build-roots/$1.list
  if [[ ! -f $archive ]]; then
    say "making an empty Debian: $1"
    mkdir -p build-roots
    debian_sources "$1" >"$sources"
    [[ -s $sources ]] || fail "this machine has no Debian packages' sources"
    # shellcheck disable=SC2016
    "${as_root[@]}" mmdebstrap --quiet --variant=apt --format=tar --include=sudo,passwd,mount \
      --customize-hook='chroot "$1" useradd --create-home --shell /bin/bash newcomer' \
      --customize-hook='echo "newcomer ALL=(ALL) NOPASSWD: ALL" >"$1/etc/sudoers.d/newcomer"' \
      --customize-hook='echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/unsafe-io"' \
      "$1" "$archive.part" "$sources" || fail "mmdebstrap failed"
    mv "$archive.part" "$archive"
  fi
  "${as_root[@]}" rm -rf "$2"
  mkdir -p "$2"
  "${as_root[@]}" tar --extract --file "$archive" --directory "$2"
}

copy_source() {
  "${as_root[@]}" mkdir -p "$1"
  tar --create --exclude='./build*' --exclude=./.git --exclude=./node_modules . |
    "${as_root[@]}" tar --extract --no-same-owner --directory "$1"
}

in_root() { "${as_root[@]}" tools/roots/enter.sh "$@"; }

# Installs the packages of this release and builds applications against them.
dev_install-check() {
  need install
  dev_package
  local root=build-roots/install
  clean_root "$codename" "$root"
  "${as_root[@]}" mkdir -p "$root/orbiq"
  "${as_root[@]}" cp -r build-package/packages "$root/orbiq/packages"
  copy_source "$root/orbiq/source"
  with_network in_root "$root" root / /bin/bash /orbiq/source/tests/install/check.sh
  "${as_root[@]}" rm -rf "$root"
}

# fresh-check [RELEASE [VERB…]]: what a newcomer does, a verb with its arguments being one word.
dev_fresh-check() {
  local chosen=("${releases[@]}") verbs=("${@:2}") release verb root
  [[ -z ${1:-} ]] || chosen=("$1")
  ((${#verbs[@]})) || verbs=(demo test)
  need install
  for release in "${chosen[@]}"; do
    [[ " ${releases[*]} " == *" $release "* ]] || fail "fresh-check: the releases are ${releases[*]}"
    root=build-roots/$release
    clean_root "$release" "$root"
    copy_source "$root/home/newcomer/orbiq"
    "${as_root[@]}" mkdir "$root/home/newcomer/orbiq/build-roots"
    "${as_root[@]}" cp "build-roots/$release.tar" "$root/home/newcomer/orbiq/build-roots"
    in_root "$root" root / chown -R newcomer: /home/newcomer/orbiq
    for verb in "${verbs[@]}"; do
      say "fresh-check: $release, ./dev $verb (${SECONDS}s)"
      # shellcheck disable=SC2086  # words are meant
      in_root "$root" newcomer /home/newcomer/orbiq ./dev $verb ||
        fail "fresh-check: ./dev $verb failed on $release"
    done
    "${as_root[@]}" rm -rf "$root"
  done
}
