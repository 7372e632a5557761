# Completion of tarnwick's programs for bash. Installed once under each program's name.

_tarnwick_interfaces() {
  local path
  for path in /sys/class/net/*; do
    [ -d "$path" ] && printf '%s\n' "${path##*/}"
  done
}

# The words that may follow the option $2 of the program $1; none: an option comes next.
_tarnwick_values() {
  case $1,$2 in
    tarnwick,-u | tarnwick,-d | *,-u | *,--upstream | *,-d | *,--downstream) _tarnwick_interfaces ;;
    tarnwick,-q) echo 0 1 ;;
    tarnwick,-m) echo 4to4 4to6 6to6 ;;
    tarnwick-run,--network) echo host private ;;
    tarnwick-run,--upstream-link) echo macvlan ipvlan ;;
    tarnwick-run,--log) echo all info error none ;;
    tarnwick-status,-p | tarnwick-status,--pid) pgrep -x tarnwick ;;
    *) return 1 ;;
  esac
}

_tarnwick_options() {
  case $1 in
    tarnwick) echo -v -b -u -d -q -m ;;
    tarnwick-assist) echo -u --upstream -d --downstream --without= -h --help --version ;;
    tarnwick-run)
      echo -u --upstream -d --downstream --network= --upstream-link= --log= --log-file= --log-file-size= --nvram=
      echo --runtime-folder= --preload= --no-assist --assist-options= --explain -h --help --version
      ;;
    tarnwick-status)
      echo -o --once -w --watch -c --check -W --wait -j --json -P --prometheus -p --pid -h --help -V --version
      ;;
  esac
}

_tarnwick() {
  local program=${1##*/} word=$2 option=$3 values
  # bash takes "--log=info" apart at the equals sign.
  if [ "$word" = = ]; then
    word=
  elif [ "$option" = = ] && [ "$COMP_CWORD" -ge 2 ]; then
    option=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  COMPREPLY=()
  case $program,$option in
    tarnwick-run,--log-file | tarnwick-run,--nvram | tarnwick-run,--preload | tarnwick-run,--runtime-folder | \
      tarnwick-status,--prometheus)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
  esac
  if values=$(_tarnwick_values "$program" "$option"); then
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
    return
  fi
  mapfile -t COMPREPLY < <(compgen -W "$(_tarnwick_options "$program")" -- "$word")
  if [ "${#COMPREPLY[@]}" -eq 1 ] && [ "${COMPREPLY[0]%=}" != "${COMPREPLY[0]}" ]; then
    compopt -o nospace 2>/dev/null
  fi
}

complete -F _tarnwick tarnwick tarnwick-assist tarnwick-run tarnwick-status
