# Completion of voxdesk for bash.
_voxdesk() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  case $before in
    --desk | --out | --speech | --capture | --wav | report | --first | --second)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    mkey)
      mapfile -t COMPREPLY < <(compgen -W "list set" -- "$word")
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "devices monitor state dpi url mkey update record report send sound mic speaker legacy
    --capture --no-speech --capture-size --desk --virtual-time --json --seconds --device --out --help" -- "$word")
}
complete -F _voxdesk voxdesk
