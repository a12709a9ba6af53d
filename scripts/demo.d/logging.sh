# shellcheck shell=bash
# The log and what steers it: levels, filter, fall-back, reload.

readonly proxies=(proxy-32 proxy-64)
readonly socket=/tmp/ad_errorlog.0
readonly web_port=8080

logd_runs() { [[ -S $socket ]]; }

# The unified log, to which the Java components write, comes to the same daemon.
start_daemon() {
  start ad_logd "$root/build/x86-64/bin/ad_logd" --output ad_logd.log --special /tmp/zam-errorlog
  wait_for "$socket" logd_runs
  wait_for_news ad_logd.err 'listening at'
  show_news ad_logd.err
}

serve_files() {
  local size files
  mkdir www
  cp "$root"/docs/*.md www/
  cp "$root/build/x86/bin/tcp_proxy" www/program
  for size in 0 1 1000 65536 1048577 4194304; do head -c "$size" /dev/urandom >"www/$size"; done
  cat >web.conf <<END
server.document-root = "$PWD/www"
server.bind = "127.0.0.1"
server.port = $web_port
server.upload-dirs = ("$PWD")
server.max-keep-alive-idle = 600
mimetype.assign = ("" => "application/octet-stream")
END
  start web lighttpd -D -f web.conf
  wait_for "the web server" get "$web_port" 127.0.0.1 1 /dev/null 2>/dev/null
  files=(www/*)
  echo "    ${#files[@]} files, $(du -cb "${files[@]}" | tail -n 1 | cut -f 1) bytes"
}

# One of the two in front of the web server, by its name.
start_plain_proxy() {
  local program
  program=$(proxy_of "${1#proxy-}")
  start_proxy "$1" "$program" --name "$1" --listen 127.0.0.1:0 --upstream "127.0.0.1:$web_port" \
    --crash-on-signal
}

fetch_everything() {
  local name file count
  for name in "${proxies[@]}"; do
    count=0
    for file in www/*; do
      get "${port[$name]}" 127.0.0.1 "${file#www/}" got || fail "$file through $name"
      cmp "$file" got || fail "$file came through $name altered"
      count=$((count + 1))
    done
    echo "    $name: $count files, each equal to the original"
  done
}

# records_of NAME: the ids of the System V segments that it is attached to.
records_of() { awk '/SYSV/ { print $5 }' "/proc/${pid[$1]}/maps"; }

one_record() {
  local id name
  id=$(records_of proxy-32)
  [[ $id =~ ^[0-9]+$ ]] || fail "proxy-32 is not attached to one record, but to: $id"
  for name in ad_logd proxy-64; do
    grep -qx "$id" < <(records_of "$name") || fail "$name has another record"
  done
  segments | awk -v id="$id" '$2 == id {
    print "    System V segment " id ", of " $4 " bytes, attached by " $7 " processes" }'
}

show_levels() {
  local name from
  ctl level 2
  [[ $(cat ctl.out) == "level: 0 -> 2" ]] || fail "the level was not 0"
  for name in "${proxies[@]}"; do get_logged "$name" 127.0.0.1 1048577; done
  for name in "${proxies[@]}"; do
    came ad_logd.log "$name\(.*TRCE.* opened" "$name\(.*TRCE.*: [0-9]+ bytes .* 10[0-9]{5} b" ||
      fail "trace lines are missing"
  done
  ! came ad_logd.log DETL || fail "detail lines at level 2"
  show_news ad_logd.log

  say "At level 3 each chunk shows too."
  ctl level 3
  for name in "${proxies[@]}"; do get_logged "$name" 127.0.0.1 1000; done
  for name in "${proxies[@]}"; do
    came ad_logd.log "$name\(.*DETL.* from client" "$name\(.*DETL.* from upstream" ||
      fail "detail lines are missing"
  done
  show_news ad_logd.log
}

show_filter() {
  local name source from
  ctl client 127.0.0.2
  for name in "${proxies[@]}"; do
    for source in 127.0.0.1 127.0.0.3; do
      get "${port[$name]}" "$source" 1000 /dev/null || fail "a fetch as $source"
    done
    get_logged "$name" 127.0.0.2 1000
  done
  # The lines of a dump's bytes name nobody; the line before them does.
  ! news ad_logd.log | grep -vE -- '(> |opened |closed |\()127\.0\.0\.2:|\)DETL: 0x' ||
    fail "these lines are of other clients"
  show_brief_news ad_logd.log
  ctl client off
}

show_fall_back() {
  local name from
  for name in "${proxies[@]}"; do pass_over "$name.err"; done
  stop ad_logd
  show_news ad_logd.err
  [[ ! -e $socket ]] || fail "$socket is still there"
  for name in "${proxies[@]}"; do
    from=$(fetch "${port[$name]}" 127.0.0.1 1 /dev/null) || fail "a fetch through $name"
    wait_for_news "$name.err" "closed 127.0.0.1:$from "
    came "$name.err" '^WARNING: cannot contact ad_logd' || fail "no warning"
    echo "    On standard error of $name:"
    show_brief_news "$name.err"
  done
}

show_return() {
  local name from
  start_daemon
  for name in "${proxies[@]}"; do
    get_logged "$name" 127.0.0.1 1
    [[ -z $(news "$name.err") ]] || fail "$name still writes to standard error"
  done
  show_brief_news ad_logd.log
  ctl level 2
  [[ $(cat ctl.out) == "level: 3 -> 2" ]] || fail "the level was not 3"
  for name in "${proxies[@]}"; do wait_for "level 2 in $name" logs_no_detail "$name"; done
  show_news ad_logd.log
}

# Whether a fetch leaves trace lines alone.
logs_no_detail() {
  pass_over ad_logd.log
  get_logged "$1" 127.0.0.1 1
  ! came ad_logd.log DETL
}

# Both proxies share a record, so one signal is enough. It is served before any later connection.
show_reload() {
  local name from
  echo "debug_level=3" >"$socket.cfg"
  echo "    \$ echo debug_level=3 >$socket.cfg; kill -10 ${pid[proxy-32]}"
  kill -10 "${pid[proxy-32]}"
  for name in "${proxies[@]}"; do get_logged "$name" 127.0.0.1 1; done
  for name in "${proxies[@]}"; do
    came ad_logd.log "$name\(.*DETL" || fail "detail lines are missing"
  done
  show_brief_news ad_logd.log
  rm "$socket.cfg" # which every process reads when it starts
  ctl level 2
}

scenes_of_the_log() {
  local name
  say "The log daemon starts."
  start_daemon
  say "A web server starts."
  serve_files
  say "A 32-bit and a 64-bit proxy start in front of it. They find the daemon and its record."
  for name in "${proxies[@]}"; do start_plain_proxy "$name"; done
  one_record
  say "Everything is fetched through both, at level 0, and compared byte for byte."
  fetch_everything
  [[ ! -s ad_logd.log ]] || fail "lines at level 0: $(cat ad_logd.log)"
  say "The level is raised to 2 from outside: both proxies trace their connections."
  show_levels
  say "Only the client 127.0.0.2 is to be logged; 127.0.0.1 and 127.0.0.3 fetch files, too."
  show_filter
  say "The daemon goes: lines go to standard error, behind one warning."
  show_fall_back
  say "The daemon comes back, and so do the lines. Its new socket has a new record with the" \
    "old settings; the proxies, which were not told, keep theirs, and what is set reaches both."
  show_return
  say "The daemon's settings file asks for level 3, and signal 10 makes one proxy read it."
  show_reload
  shown[diagnostics]="one log and one record for both widths: level, filter, fall-back, return, reload"
}

scenes_of_errors() {
  local name
  say "The web server goes: errors are logged at every level."
  ctl level 0
  stop web
  for name in "${proxies[@]}"; do
    ! get "${port[$name]}" 127.0.0.1 1 /dev/null 2>curl.err || fail "nobody served this file"
    echo "    $(cat curl.err)"
    wait_for_news ad_logd.log "$name\(.*ERRO.*Connection refused"
  done
  ! came ad_logd.log TRCE || fail "trace lines at level 0"
  show_news ad_logd.log
  ctl level 2 # for the last lines
}
