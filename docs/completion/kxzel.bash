# bash completion for kxzel and kxzel-testinstall.
# Completes the subcommand, its options, and local file names where a command
# takes a local path (fget, fput, disk lists, the setup certificate).

_kxzel() {
  local cur prev words cword
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  words=("${COMP_WORDS[@]}")
  cword=$COMP_CWORD
  local subcommands="setup init auth lsnodes chnodes lsdisks chdisks vlist vget vput vdel flist fget fput fdel health"

  if ((cword == 1)); then
    COMPREPLY=($(compgen -W "$subcommands --version" -- "$cur"))
    return 0
  fi

  local sub=${words[1]}
  # Options of every subcommand, then each one's own.
  local opts="-P -V -y -F"
  case $sub in
    setup) opts+=" -c -p -n" ;;
    init) opts+=" -c -n -p -d -D" ;;
    auth) opts+=" -n -p" ;;
    chnodes) opts+=" -n -p" ;;
    chdisks) opts+=" -d -D" ;;
    vget | vdel | fget | fdel) opts+=" -c" ;;
    vput | fput) opts+=" -c -v" ;;
  esac

  # The argument of an option.
  case $prev in
    -d)
      compopt -o filenames 2>/dev/null
      COMPREPLY=($(compgen -f -- "$cur"))
      return 0
      ;;
    -D)
      compopt -o filenames 2>/dev/null
      COMPREPLY=($(compgen -d -- "$cur"))
      return 0
      ;;
    -c)
      if [[ $sub == setup ]]; then
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -f -- "$cur"))
      fi
      return 0
      ;;
    -P | -p | -n | -v)
      return 0
      ;;
  esac

  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$opts" -- "$cur"))
    return 0
  fi

  # Which positional argument is being typed: skip options and their values.
  local i npos=0
  for ((i = 2; i < cword; i++)); do
    case ${words[i]} in
      -P | -p | -n | -d | -D | -c | -v | -f) ((i++)) ;;
      -*) ;;
      *) ((npos++)) ;;
    esac
  done
  case $sub in
    fget | fput)
      # name localpath: the local path is a file of this machine.
      if ((npos == 1)); then
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -f -- "$cur"))
      fi
      ;;
  esac
  return 0
}

complete -F _kxzel kxzel kxzel-testinstall
