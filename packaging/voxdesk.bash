# Completion of voxdesk for bash.
_voxdesk() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command= given words
  for given in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $given in
      devices | monitor | state | dpi | url | mkey | update | record | report | send | sound | mic | speaker | legacy)
        command=$given
        break
        ;;
    esac
  done
  case $before in
    --desk | --out | --speech | --capture | --wav | report | --first | --second)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    --format)
      mapfile -t COMPREPLY < <(compgen -W "wav raw" -- "$word")
      return
      ;;
    --device)
      mapfile -t COMPREPLY < <(compgen -W "Tern Wren Finch Robin Heron Egret Swift" -- "$word")
      return
      ;;
    mkey)
      mapfile -t COMPREPLY < <(compgen -W "list set" -- "$word")
      return
      ;;
  esac
  words="--help --json"
  [ "$command" = report ] || words+=" --desk --virtual-time --capture --no-speech --capture-size"
  case $command in
    "") words+=" --out --format --seconds --version
      devices monitor state dpi url mkey update record report send sound mic speaker legacy" ;;
    monitor) words+=" --seconds --raw" ;;
    legacy) words+=" --seconds" ;;
    record) words+=" --device --speech --out --format --seconds" ;;
    mic) words+=" --device --out --format --seconds" ;;
    speaker) words+=" --out --format --seconds" ;;
    report) words+=" --out --text --wav --slow" ;;
    state | dpi | url | mkey) words+=" --device" ;;
    send) words+=" --device --wait --force" ;;
    update) words+=" --device --first --second --yes" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _voxdesk voxdesk
