# shellcheck shell=bash
# Crashes: what a proxy's memory holds before, the trace and the core that stay behind, and the
# proxy that takes over.

crash() {
  echo "    \$ ad_crash $*"
  "$root/build/x86-64/bin/ad_crash" "$@" >crash.out || fail "ad_crash $*: $(cat crash.out)"
  indent <crash.out
}

# watch_by_gdb NAME: shows the pools with the commands that come with the library, and writes a core
# now and one at the signal by which the proxy ends. The kernel would write that one only for a
# process that may raise its core limit, and where the machine's administrator wants it.
watch_by_gdb() {
  local name=$1
  DEBUGINFOD_URLS='' start gdb gdb -nx -q -batch -iex 'set width 0' -p "${pid[$name]}" \
    -iex "add-auto-load-safe-path $root/build/${preset[${name#proxy-}]}/lib" \
    -ex 'velorin pools' -ex 'generate-core-file before.core' \
    -ex 'handle SIGSEGV nostop noprint pass' -ex 'handle SIGQUIT stop' -ex 'echo ready\n' \
    -ex continue -ex 'generate-core-file core-by-gdb' -ex continue
  wait_for_news gdb.out '^ready'
}

# A client stays connected. What it has sent lies in the proxy's memory: `secret`.
send_secret() {
  local status
  secret=$(head -c 18 /dev/urandom | base64)
  exec {client}<>"/dev/tcp/127.0.0.1/${port[$1]}"
  printf 'GET /1 HTTP/1.1\r\nHost: demo\r\nAuthorization: Basic %s\r\n\r\n' "$secret" >&"$client"
  read -r -t "$patience" status <&"$client" || fail "no answer through $1"
  [[ $status == 'HTTP/1.1 200 OK'* ]] || fail "the answer through $1 was: $status"
}

# What gdb says of the pools: a connection and its two chunks are in use.
show_pools() {
  local name=$1 used
  echo "    \$ gdb -p ${pid[$name]} -ex 'velorin pools'"
  watch_by_gdb "$name"
  news gdb.out | awk '$1 == "pool" || $8 == "yes" || $8 == "no"' >pools.out
  pass_over gdb.out
  indent <pools.out
  # Elements made less those that are free, and whether they are wiped.
  used=$(awk 'NR > 1 { printf "%d %s, ", $6 - $7, $8 }' pools.out)
  [[ $used == '1 no, 2 yes, ' ]] || fail "the pools have in use: $used"
  grep -qaF "$secret" before.core || fail "the secret is not in the memory of $name"
}

# crash_proxy NAME: one after the other, as both are programs of one name.
crash_proxy() {
  local name=$1 id=${pid[$1]} status=0
  kill -USR2 "$id"
  # Bash would say of what signal it died.
  { timeout "$patience" tail --pid="$id" -f /dev/null && wait "$id"; } 2>/dev/null || status=$?
  unset "pid[$name]"
  ((status == 128 + 3)) || fail "$name ended with status $status, not by SIGQUIT"
  wait "${pid[gdb]}" || fail "gdb: $(cat gdb.out gdb.err)"
  unset "pid[gdb]"
  pass_over gdb.out
  crash list
  crash decode "/local/local1/.tcp_proxy_crash_trace.$id"
  grep -q 'crash\.cc:[0-9]' crash.out || fail "the trace does not lead to the source"
}

# Cores, that of gdb and any of the kernel's, hold what the proxy knew but for what its pools wiped.
show_cores() {
  local name=$1 core
  [[ -s core-by-gdb ]] || fail "there is no core"
  for core in core*; do
    grep -qaF "$name" "$core" || fail "$core does not know $name"
    ! grep -qaF "$secret" "$core" || fail "the secret is in $core"
    echo "    $(stat -c '%n, %s bytes' "$core"): the password is not in it"
    rm "$core"
  done
  rm before.core
}

scenes_of_crashes() {
  local name secret client
  say "A client sends a password through each proxy, which then crashes on request: the pools hold" \
    "the password, the core does not; the trace names functions and lines; the next proxy takes over."
  for name in "${proxies[@]}"; do
    send_secret "$name"
    show_pools "$name"
    crash_proxy "$name"
    exec {client}<&-
    show_cores "$name"
    start_plain_proxy "$name"
    [[ ! -e /local/local1/.excl_sig.tcp_proxy.lock ]] || fail "the marker is still there"
    get "${port[$name]}" 127.0.0.1 1000 /dev/null || fail "a fetch after the restart"
  done
  crash clear tcp_proxy
  pass_over ad_logd.log
  shown[memory]="pools and what is free in them, by gdb; a core without what they held"
}
