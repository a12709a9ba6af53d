# shellcheck shell=bash
# A whole box: a proxy that takes its settings and routes from files, starts and stops a web server
# of its own, rewrites playlists, logs digests and sums up.

readonly prefix='http://cache.example/?to='
readonly own_port=8008 # of the server that a proxy starts

write_files() {
  cat >/local/local1/elc/box.elc <<END
# The box, as it was delivered.
listen      127.0.0.1:0
routes      $PWD/routes
prefix      "$prefix"
digests     yes
connections 0x40
END
  cat >routes <<END
# This client has the web server, all others the box's own.
127.0.0.2=127.0.0.1:$web_port
END
  mkdir own
  cp "$root"/examples/playlists/{concert.smil,films.asx} own/
  echo "the web server" >www/where
  echo "the box's own server" >own/where
}

# The settings that NAME is started with, and where they come from.
show_settings() {
  local name=$1
  cat >expected <<END
settings file: /local/local1/elc/box.elc
listen: 127.0.0.1:0 (file)
upstream: none (default)
spawn-upstream: $PWD/own (option)
routes: $PWD/routes (file)
prefix: $prefix (file)
digests: yes (file)
name: $name (option)
connections: 64 (file)
crash-action: coredump (default)
crash-on-signal: no (default)
route 127.0.0.2/32 -> 127.0.0.1:$web_port
route default -> 127.0.0.1:$own_port
END
  echo "    \$ tcp_proxy ${options[*]} --check"
  "$program" "${options[@]}" --check >checked || fail "tcp_proxy --check"
  diff expected checked || fail "these settings are not what the files say"
  indent <checked
}

own_server_is_there() { get "$own_port" 127.0.0.1 where /dev/null 2>/dev/null; }

show_server() {
  local name=$1
  server=$(children_of "${pid[$name]}")
  [[ $server =~ ^[0-9]+$ ]] || fail "$name has not exactly one child: $server"
  echo "    process ${pid[$name]} has started $server: $(tr '\0' ' ' <"/proc/$server/cmdline")"
  own_server_is_there || fail "nobody serves at port $own_port"
}

show_routes() {
  local name=$1 source from
  for source in 127.0.0.1 127.0.0.2; do
    get_logged "$name" "$source" where got
    echo "    $source got its answer from: $(cat got)"
    if [[ $source == 127.0.0.2 ]]; then cmp got www/where; else cmp got own/where; fi ||
      fail "$source was sent to the wrong server"
  done
}

# Links to servers get the prefix; names of files, other attributes and all else stay.
prefixed() {
  case $1 in
    *.smil) sed -E "s#((src|href)=[\"'])((rtsp|http)://)#\1$prefix\3#I" "$1" ;;
    *.asx) sed -E "/<MoreInfo/!s#(href *= *[\"'])((mms|http)://)#\1$prefix\2#I" "$1" ;;
  esac
}

show_playlists() {
  local name=$1 file from
  for file in concert.smil films.asx; do
    get_logged "$name" 127.0.0.1 "$file" got
    prefixed "own/$file" >expected
    cmp expected got || fail "$file did not come as expected"
    echo "    $file, $(stat -c %s "own/$file") bytes, came as $(stat -c %s got)," \
      "with $(grep -cF "$prefix" got) links through the box, as in:"
    grep -m 1 -F "$prefix" got | indent
  done
}

# The digests in the log are those of the bytes that arrived, heads included.
show_digests() {
  local name=$1 source file from line
  while read -r source file; do
    get_logged "$name" "$source" "$file" got --include
    line=$(news ad_logd.log | grep "$name(.*digests $source:$from ") || fail "no digests of $file"
    echo "    $(stat -c %s got) bytes of $file: ${line##*: }"
    [[ $line == *": MD5 $(md5sum <got | cut -c -32), SHA-1 $(sha1_base64 got) of what "* ]] ||
      fail "these are not the digests of $file"
  done <<<"127.0.0.1 films.asx
127.0.0.2 4194304
127.0.0.2 0"
}
sha1_base64() { sha1sum <"$1" | cut -c -40 | tr a-f A-F | basenc --decode --base16 | base64; }

# The proxy's last line, against what its other lines say.
show_summary() {
  local name=$1 begun=$2 ready=$3 line since connections bytes
  line=$(grep "$name(.*served " ad_logd.log) || fail "$name has not summed up"
  echo "    ${line##*-> }"
  since=$(date -u -d "$(sed -E 's/.* since (.*), for .*/\1/' <<<"$line")" +%s)
  ((begun <= since && since <= ready)) || fail "$name did not start at $since"
  read -r connections bytes < <(grep -E "$name\(.* closed " ad_logd.log |
    awk '{ sub(/.* closed [^:]*:[^:]*:/, ""); match($0, /: /); $0 = substr($0, RSTART + 2)
           count++; sum += $1 + $5 } END { print count, sum }')
  [[ $line == *" served $connections connections and $bytes bytes since "* ]] ||
    fail "it was $connections connections and $bytes bytes"
  # The time in words, rounded down, and a rate of three digits, as in 4.86e6.
  awk -v bytes="$bytes" -v text="${line##*GMT, for }" 'BEGIN {
    if (text !~ /^([0-9]+ minutes and )?[0-9]+ seconds: [0-9.]+(e-?[0-9]+)? bytes a second$/) exit 1
    split(text, word, " ")
    seconds = word[2] == "minutes" ? 60 * word[1] + word[4] : word[1]
    rate = word[2] == "minutes" ? word[6] : word[3]
    exit !(rate * (seconds + 1) >= bytes * 0.99 && rate * seconds <= bytes * 1.01) }' ||
    fail "time and rate do not go with $bytes bytes"
}

run_box() {
  local width=$1 name=box-$1 begun ready server program options
  program=$(proxy_of "$width")
  options=(--elc box --spawn-upstream="$PWD/own" --name "$name")
  say "The $width-bit box: its settings and routes come from files."
  show_settings "$name"
  say "It starts, and starts its own web server, here a stand-in for thttpd."
  begun=$(date +%s)
  start_proxy "$name" env "PATH=$root/build/x86-64/stand-in:$PATH" "$program" "${options[@]}"
  ready=$(date +%s)
  show_server "$name"
  show_routes "$name"
  say "Playlists lead through the box."
  show_playlists "$name"
  say "The log has the digests of what clients got; md5sum and sha1sum agree."
  show_digests "$name"
  say "The box stops, stops its server, and sums up."
  stop "$name"
  wait_for_news ad_logd.log "$name\(.*served "
  show_summary "$name" "$begun" "$ready"
  gone "$server" || fail "the server of $name is still there"
  ! own_server_is_there || fail "somebody still serves at port $own_port"
  pass_over ad_logd.log
}

scenes_of_the_box() {
  local width
  ctl level 2
  mkdir /local/local1/elc
  write_files
  for width in "${widths[@]}"; do run_box "$width"; done
  rm -r /local/local1/elc
  shown[process]="a web server started, probed and stopped; crash, trace, core, takeover"
  shown[text]="HTTP date, time span, numbers in engineering notation in the box's summary"
  shown[digests]="MD5 and SHA-1, in hexadecimal and Base64, as md5sum and sha1sum have them"
  shown[playlist]="links of SMIL and ASX playlists, rewritten as they pass through"
  shown[files]="typed settings and routes from files, with their sources, and in force"
}
