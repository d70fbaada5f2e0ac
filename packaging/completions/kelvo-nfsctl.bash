# Completion of kelvo-nfsctl for bash; installed as /usr/share/bash-completion/completions/kelvo-nfsctl.

_kelvo_nfsctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local connection="--endpoint --user --password-file --auth --level --timeout --json --help"
  local words=() takes="" word i

  # The words of the command, without options and what belongs to them.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ -n $takes ]]; then
      takes=""
      continue
    fi
    case $word in
      --json | --help | --version | -h) ;;
      -*) takes=yes ;;
      *) words+=("$word") ;;
    esac
  done

  case $previous in
    --auth) COMPREPLY=($(compgen -W "negotiate ntlm kerberos none" -- "$current")); return ;;
    --level) COMPREPLY=($(compgen -W "connect packet integrity privacy" -- "$current")); return ;;
    --endpoint) compopt -o nospace; COMPREPLY=($(compgen -W "unix: tcp:" -- "$current")); return ;;
    --password-file) compopt -o filenames; COMPREPLY=($(compgen -f -- "$current")); return ;;
    --root-folder) compopt -o filenames; COMPREPLY=($(compgen -d -- "$current")); return ;;
    --user | --timeout | --allow | --vm | --pipe | --description | --id | --xml | --*-port) return ;;
  esac

  local choices=""
  case "${words[*]}" in
    "") choices="share folder host size params mount locks log-folder compat ping call" ;;
    share) choices="create show delete" ;;
    folder) choices="create delete" ;;
    host) choices="add remove list" ;;
    size) choices="set get reset" ;;
    params) choices="get set" ;;
    mount) choices="list publish withdraw" ;;
    call)
      choices="EnumLocks GetLogFolder TestCompatible CreateShare LookupShare GetShareConfig DeleteShare MountBackup
        DismountBackup CreateFolder DeleteFolder GetParams Reconfigure AddEsxHostAddr DeleteEsxHostAddr
        SetNfsDatastoreSize GetNfsDatastoreSize ResetNfsDatastoreSize"
      ;;
  esac
  if [[ $current == -* || -z $choices ]]; then
    case "${words[*]}" in
      "") choices="$connection --version" ;;
      "folder create"*) choices="$connection --allow" ;;
      "params set"*) choices="$connection --root-folder --rpc-port --mount-port --nfs-port" ;;
      "mount publish"*) choices="$connection --vm --pipe --description --allow --id" ;;
      call*) choices="$connection --xml" ;;
      *) choices=$connection ;;
    esac
    [[ $current == -* ]] || return
  fi
  COMPREPLY=($(compgen -W "$choices" -- "$current"))
}

complete -F _kelvo_nfsctl kelvo-nfsctl
