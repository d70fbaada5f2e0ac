# Completion of kelvo-mount-agent for bash; installed as /usr/share/bash-completion/completions/kelvo-mount-agent.

_kelvo_mount_agent() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local word given=" " choices="--pipe --source" IFS=$' \t\n'

  case $previous in
    --pipe) return ;;
    --source | --overlay)
      compopt -o filenames
      IFS=$'\n'
      COMPREPLY=($(compgen -d -- "$current"))
      return
      ;;
  esac

  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    given+="$word "
  done
  # What becomes of writes: some of the answers rule others out.
  if [[ $given != *" --write-through "* ]]; then
    choices+=" --overlay"
    [[ $given == *" --sync "* ]] || choices+=" --read-only"
    [[ $given == *" --overlay "* && $given != *" --read-only "* ]] && choices+=" --sync"
  fi
  [[ $given == *" --overlay "* || $given == *" --read-only "* || $given == *" --sync "* ]] || choices+=" --write-through"
  [[ $given == " " ]] && choices+=" --help --version"

  for word in $choices; do
    [[ $given == *" $word "* ]] || COMPREPLY+=($(compgen -W "$word" -- "$current"))
  done
}

complete -F _kelvo_mount_agent kelvo-mount-agent
