
# _kavrinctl_take WORDS: proposes them, one a line. Needs no /dev/fd, which a bare chroot lacks.
_kavrinctl_take() { [ -z "$1" ] || mapfile -t COMPREPLY <<<"$1"; }

# _kavrinctl_propose KIND: what fits the word under the cursor.
_kavrinctl_propose() {
  case $1 in
    words:*) _kavrinctl_take "$(IFS=, compgen -W "${1#words:}" -- "$cur")" ;;
    words) _kavrinctl_take "$(compgen -W "$2" -- "$cur")" ;;
    user) _kavrinctl_take "$(compgen -u -- "$cur")" ;;
    group) _kavrinctl_take "$(compgen -g -- "$cur")" ;;
    folder) compopt -o filenames 2>/dev/null; _kavrinctl_take "$(compgen -d -- "$cur")" ;;
    file) compopt -o filenames 2>/dev/null; _kavrinctl_take "$(compgen -f -- "$cur")" ;;
  esac
}

_kavrinctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} path=kavrinctl word
  COMPREPLY=()
  # bash takes --option=VALUE for three words.
  if [ "$before" = = ]; then before=${COMP_WORDS[COMP_CWORD - 2]}; fi
  if [ "$cur" = = ]; then cur=; fi

  for word in "${COMP_WORDS[@]:1:COMP_CWORD - 1}"; do
    case " ${_kavrinctl_commands[$path]} " in *" $word "*) path+=" $word" ;; esac
  done
  if [ -n "${_kavrinctl_values["$path $before"]:-}" ]; then
    _kavrinctl_propose "${_kavrinctl_values["$path $before"]}"
  elif [[ $cur == -* ]]; then
    _kavrinctl_propose words "${_kavrinctl_options[$path]}"
  elif [ -n "${_kavrinctl_commands[$path]}" ]; then
    _kavrinctl_propose words "${_kavrinctl_commands[$path]}"
  else
    _kavrinctl_propose "${_kavrinctl_operands[$path]}"
  fi
}

complete -F _kavrinctl kavrinctl
