# Completion of kelvo-perflog for bash; installed as /usr/share/bash-completion/completions/kelvo-perflog.

_kelvo_perflog() {
  local current=${COMP_WORDS[COMP_CWORD]}
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "--csv --summary --json --plot --help --version" -- "$current"))
  else
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "$current"))
  fi
}

complete -F _kelvo_perflog kelvo-perflog
