# Completion of the tools' options in bash, from what they say themselves.
_orbiq() {
  [[ $2 == -* ]] || return 0
  mapfile -t COMPREPLY < <(
    compgen -W "$("$1" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]+' | sort -u)" -- "$2")
}
complete -o default -F _orbiq orbiq-collector orbiq-doctor orbiq-requests
