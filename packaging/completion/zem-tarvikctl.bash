# Completes zem-tarvikctl from what its help shows, so that it knows what the installed program knows.

_zem_tarvikctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command= i
  COMPREPLY=()
  case "$before" in
    --socket | --check | --trace) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --timeout) return ;;
  esac
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case "${COMP_WORDS[i - 1]}" in --socket | --timeout) continue ;; esac
    case "${COMP_WORDS[i]}" in -*) ;; *) command=${COMP_WORDS[i]}; break ;; esac
  done
  local words
  if [[ $word == -* ]]; then
    # The program's own options, and those of the command.
    words=$({ "$1" --help; [ -z "$command" ] || "$1" "$command" --help; } 2>/dev/null | grep -oE -- '--[a-z][a-z-]*' | sort -u)
  elif [ -z "$command" ]; then
    words=$("$1" --help 2>/dev/null | sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p')
  elif [ "$command" = log ]; then
    words="off fatal error warn info debug trace"
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o filenames -F _zem_tarvikctl zem-tarvikctl
