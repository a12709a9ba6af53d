# shellcheck shell=bash
# What the scenes of scripts/demo are made of: showing, waiting, programs and fetches.

declare -A pid=()  # of what runs, by name
declare -A port=() # of the proxies, by name
declare -A seen=() # bytes of a file that were shown or passed over

# By family, what was shown; scripts/demo lists it at the end.
readonly families=(diagnostics process memory text digests playlist files Java)
declare -A shown=()

fail() {
  printf 'demo: FAILED: %s\n' "$*" >&2
  exit 1
}

say() { printf '\n%s\n' "$*"; }
indent() { sed 's/^/    /'; }

# What came to FILE since it was last shown.
news() { [[ ! -e $1 ]] || tail -c "+$((${seen[$1]:-0} + 1))" "$1"; }
pass_over() { seen[$1]=$(stat -c %s "$1"); }
show_news() {
  news "$1" | indent
  pass_over "$1"
}
# The same without the bytes of packets, which were shown before.
show_brief_news() {
  news "$1" | grep -v 'DETL: 0x' | indent
  pass_over "$1"
}

# wait_for WHAT COMMAND...: until the command succeeds.
wait_for() {
  local what=$1 deadline=$((SECONDS + patience))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || fail "waited $patience s for: $what"
    sleep 0.02
  done
}

# Whether the news of FILE hold a line of every PATTERN.
came() {
  local file=$1 text pattern
  shift
  text=$(news "$file")
  for pattern in "$@"; do
    grep -qE -- "$pattern" <<<"$text" || return 1
  done
}
# The same for a TEXT that is no pattern.
came_text() { grep -qF -- "$2" < <(news "$1"); }
wait_for_news() {
  local file=$1
  wait_for "${*:2} in $file" came "$@"
}

# start NAME PROGRAM...: in the background, with its output in NAME.out and NAME.err.
start() {
  local name=$1
  shift
  "$@" >>"$name.out" 2>>"$name.err" &
  pid[$name]=$!
}

gone() { ! kill -0 "$1" 2>/dev/null; }

# Ends it with SIGTERM and takes its exit status.
stop() {
  local status=0
  kill -TERM "${pid[$1]}"
  wait_for "the end of $1" gone "${pid[$1]}"
  wait "${pid[$1]}" || status=$?
  ((status == 0)) || fail "$1 ended with status $status: $(cat "$1.err")"
  unset "pid[$1]"
}

# children_of PROCESS: their ids.
children_of() { cat /proc/[0-9]*/stat 2>/dev/null | awk -v parent="$1" '$4 == parent { print $1 }'; }

# proxy_of WIDTH: the program, which must be of that width.
proxy_of() {
  local program=$root/build/${preset[$1]}/bin/tcp_proxy class
  class=$(od -An -tu1 -j4 -N1 "$program") # of the ELF file: 1 for 32 bits, 2 for 64
  ((class == $1 / 32)) || fail "$program is not a $1-bit program"
  echo "$program"
}

# start_proxy NAME PROGRAM...: and waits until it listens.
start_proxy() {
  local name=$1 out=$1.out
  start "$@"
  wait_for_news "$out" 'listening on'
  port[$name]=$(news "$out" | sed -n 's/^listening on 127\.0\.0\.1://p')
  echo "    $name: $(news "$out")"
  pass_over "$out"
}

# fetch PORT SOURCE FILE TO [OPTION...]: as the client with this address; prints the client's port.
fetch() {
  curl -q --silent --show-error --fail --noproxy '*' --max-time "$patience" --interface "$2" \
    --write-out '%{local_port}' --output "$4" "${@:5}" "http://127.0.0.1:$1/$3"
}
get() { fetch "$@" >/dev/null; }

# get_logged NAME SOURCE FILE [TO [OPTION...]]: fetches through a proxy, waits until the daemon has
# the last line about it, and leaves the client's port in `from`. One after the other, so that the
# daemon's queue (ten lines in most kernels) never fills up.
get_logged() {
  from=$(fetch "${port[$1]}" "$2" "$3" "${4:-/dev/null}" "${@:5}") || fail "$3 as $2 through $1"
  wait_for_news ad_logd.log "$1\(.*closed $2:$from "
}

ctl() {
  echo "    \$ ad_debugctl $*"
  "$root/build/x86-64/bin/ad_debugctl" "$@" >ctl.out || fail "ad_debugctl $*"
  indent <ctl.out
}

# segments: the System V segments of this IPC namespace, without the head of the table.
segments() { tail -n +2 /proc/sysvipc/shm; }
