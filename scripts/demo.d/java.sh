# shellcheck shell=bash
# A component in Java: the library in a JVM of its own width.

# java_of WIDTH ARGUMENT...: the 32-bit one is where scripts/setup has unpacked it.
java_of() {
  local java=java unpacked=$root/build/i386-jre lib=$root/build/${preset[$1]}/lib
  local -x LD_LIBRARY_PATH=${LD_LIBRARY_PATH-}
  if (($1 == 32)); then
    java=$unpacked/usr/lib/jvm/java-17-openjdk-i386/bin/java
    LD_LIBRARY_PATH=$unpacked/lib/i386-linux-gnu
  fi
  "$java" -Xmx64m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -XX:-UsePerfData \
    -Djava.library.path="$lib" -jar "$lib/log-from-java.jar" "${@:2}"
}

scenes_of_java() {
  local width text there=()
  # There are package sources without a 32-bit JVM.
  if [[ -e $root/build/i386-jre/.unpacked/openjdk-17-jre-headless ]]; then there+=(32); fi
  there+=(64)
  say "A Java component writes to the same daemon, which listens for them, too" \
    "(JVMs of ${there[*]} bits)."
  for width in "${there[@]}"; do
    java_of "$width" "from $width bits" >java.out 2>java.err || fail "java: $(cat java.out java.err)"
    [[ $(cat java.out) == "debug output is off" ]] || fail "java: $(cat java.out java.err)"
    wait_for_news ad_logd.log "arguments: from $width bits"
    for text in '[N] started' '[R] no list: every client is refused' \
      "[D] arguments: from $width bits"; do
      came_text ad_logd.log "[special]  $text" || fail "this line is missing: $text"
    done
    show_news ad_logd.log
  done
  shown[Java]="one daemon for Java components and the rest, JVMs of ${there[*]} bits"
}
