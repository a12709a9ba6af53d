# Completion for bash of ad_crash, ad_debugctl, ad_logd and ad_logview; bash-completion finds it when
# it is installed under each of these names. What a command offers is taken from its --help, so that
# this file fits every version of it; here stands only what values mean.
#
# Candidates are compared, never expanded: names of files must not run as commands.

# The line up to the cursor as the command will see its words; bash breaks them at "=" and ":" too.
# Sets words; in_word is how much of the last one stands before what bash wants replaced.
_velorin_util_words() {
  local i part joined=
  words=()
  for ((i = 0; i <= COMP_CWORD; ++i)); do
    part=${COMP_WORDS[i]-}
    if ((${#words[@]} > 1)) && [[ -n $joined || $part =~ ^[=:]+$ ]]; then
      in_word=${words[-1]}
      words[-1]+=$part
      joined=
      if [[ $part =~ ^[=:]+$ ]]; then
        joined=yes
        in_word=${words[-1]}
      fi
    else
      in_word=
      words+=("$part")
    fi
  done
}

# Sets options, those that take a value in valued, and commands, as the help text has them.
_velorin_util_read_help() {
  local line in_commands= help
  local -a name
  help=$("$1" --help 2>/dev/null </dev/null || "${1##*/}" --help 2>/dev/null </dev/null)
  options=() valued=() commands=()
  while IFS= read -r line; do
    if [[ $line =~ ^\ \ (-[a-zA-Z0-9]),\ (--[a-z0-9-]+) ]]; then
      name=("${BASH_REMATCH[@]:1:2}")
      options+=("${name[@]}")
      [[ $line =~ ^\ \ -.,\ --[a-z0-9-]+[\ =][^\ ] ]] && valued+=("${name[@]}")
    elif [[ $line =~ ^\ \ (--?[a-zA-Z0-9-]+)([\ =][^\ ])? ]]; then
      options+=("${BASH_REMATCH[1]}")
      [[ -n ${BASH_REMATCH[2]} ]] && valued+=("${BASH_REMATCH[1]}")
    elif [[ -n $in_commands && $line =~ ^\ \ ([a-z-]+) ]]; then
      commands+=("${BASH_REMATCH[1]}")
    fi
    case $line in
      Commands:) in_commands=yes ;;
      '') in_commands= ;;
    esac
  done <<<"$help"
}

_velorin_util_is_one_of() {
  local wanted=$1 each
  shift
  for each; do [[ $each == "$wanted" ]] && return; done
  return 1
}

# Adds to candidates the files, or with -d the directories, whose names begin so.
_velorin_util_files() {
  local found
  compopt -o filenames 2>/dev/null
  mapfile -t found < <(compgen "${2--f}" -- "$1")
  candidates+=("${found[@]}")
}

# Adds the traces in the directory of crashes, or the programs that have traces or markers there.
_velorin_util_crashes() {
  local what=$1 dir=/local/local1 i name
  for ((i = 1; i < ${#words[@]} - 1; ++i)); do
    [[ ${words[i]} == --dir ]] && dir=${words[i + 1]//\\/}
    [[ ${words[i]} == --dir=* ]] && dir=${words[i]#--dir=} dir=${dir//\\/}
  done
  compopt -o filenames 2>/dev/null
  while IFS= read -r name; do
    if [[ $name =~ ^\.(.+)_crash_trace\.[0-9]+$ ]]; then
      [[ $what == traces ]] && candidates+=("$name")
    elif [[ ! $name =~ ^\.excl_sig\.(.+)\.lock$ ]]; then
      continue
    fi
    [[ $what == programs ]] && ! _velorin_util_is_one_of "${BASH_REMATCH[1]}" "${candidates[@]}" &&
      candidates+=("${BASH_REMATCH[1]}")
  done < <(command ls -A -- "$dir" 2>/dev/null)
}

# Adds what an option of a command may have as its value, which so far reads $3.
_velorin_util_values() {
  local list
  case $1:$2 in
    *:--base | *:--special | *:--path | *:--output | *:--program) _velorin_util_files "$3" ;;
    *:--dir) _velorin_util_files "$3" -d ;;
    *:--level) candidates=(0 1 2 3 4) ;;
    *:--color) candidates=(always auto never) ;;
    ad_logd:--format) candidates=(text json) ;;
    ad_logd:--forward) candidates=(syslog) ;;
    ad_logview:--tag | ad_logview:-t)
      list=
      [[ $3 == *,* ]] && list=${3%,*},
      candidates=("$list"{ERRO,CRTC,TRCE,DETL})
      ;;
  esac
}

# Adds what a command may be given behind its name.
_velorin_util_arguments() {
  case $1:$2 in
    ad_debugctl:level) candidates=(0 1 2 3 4) ;;
    ad_debugctl:client | ad_debugctl:server) candidates=(off) ;;
    ad_crash:show | ad_crash:decode)
      if [[ $3 == */* ]]; then _velorin_util_files "$3"; else _velorin_util_crashes traces; fi
      ;;
    ad_crash:clear) _velorin_util_crashes programs ;;
  esac
}

_velorin_util() {
  local -a words options valued commands candidates=() arguments=()
  local in_word tool=${1##*/} current head= option= ended= i word
  _velorin_util_words
  _velorin_util_read_help "$1"
  current=${words[-1]}

  # What stands before the cursor: arguments, and whether an option waits for its value.
  for word in "${words[@]:1:${#words[@]}-2}"; do
    if [[ -n $option ]]; then
      option=
    elif [[ -z $ended && $word == -- ]]; then
      ended=yes
    elif [[ -z $ended && $word == -?* ]]; then
      _velorin_util_is_one_of "$word" "${valued[@]}" && option=$word
    else
      arguments+=("$word")
    fi
  done

  if [[ -n $option ]]; then
    _velorin_util_values "$tool" "$option" "$current"
  elif [[ -z $ended && $current == --*=* ]]; then
    head=${current%%=*}=
    current=${current#*=}
    _velorin_util_values "$tool" "${head%=}" "$current"
  elif [[ -z $ended && $current == -* ]]; then
    candidates=("${options[@]}")
  elif ((${#commands[@]} > 0 && ${#arguments[@]} == 0)); then
    candidates=("${commands[@]}")
  elif ((${#arguments[@]} == 1)); then
    _velorin_util_arguments "$tool" "${arguments[0]}" "$current"
  fi
  [[ -z $option && -z $head && $tool == ad_logview && ( -n $ended || $current != -?* ) ]] &&
    _velorin_util_files "$current"

  COMPREPLY=()
  for word in "${candidates[@]}"; do
    [[ $word == "$current"* ]] || continue
    word=$head$word
    COMPREPLY+=("${word#"$in_word"}")
  done
}

complete -F _velorin_util ad_crash ad_debugctl ad_logd ad_logview
