# Completion of docsource for bash.
_docsource() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= index
  local commands='wake-up providers placeholder start stop extend-sandbox extend-bookmark bookmark
    resolve consume read grants revoke install uninstall bundles device run add accounts remove sync
    status get evict pin unpin transfers cancel conflicts'
  for ((index = 1; index < COMP_CWORD; ++index)); do
    case ${COMP_WORDS[index]} in
      --timeout | --provider | --consumer) ((++index)) ;;
      -*) ;;
      *) command=${COMP_WORDS[index]} && break ;;
    esac
  done
  local options='--json --timeout --help'
  case $previous in
    --timeout | --provider | --consumer) return ;;
  esac
  case $command in
    '') mapfile -t COMPREPLY < <(compgen -W "$commands $options" -- "$word") ;;
    add)
      if [[ $previous == add ]]; then
        mapfile -t COMPREPLY < <(compgen -W "folder $options" -- "$word")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
      fi
      return
      ;;
    remove | sync)
      options+=$([[ $command == sync ]] && echo ' --confirm-deletions' || echo ' --discard')
      mapfile -t COMPREPLY < <(compgen -W "$options $(docsource accounts --json 2>/dev/null |
        grep -o '"name": "[^" ]*"' | cut -d'"' -f4)" -- "$word")
      return
      ;;
    accounts | transfers) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") && return ;;
    device) mapfile -t COMPREPLY < <(compgen -W "status lock unlock $options" -- "$word") ;;
    placeholder | start | stop | extend-sandbox) options+=' --provider --consumer' ;;&
    status) options+=' --recursive' ;;&
    conflicts) options+=' --take' ;;&
    extend-bookmark) options+=' --consumer' ;;&
    *)
      if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
      fi
      ;;
  esac
}
complete -F _docsource docsource
