// What a crash of the proxy leaves behind, and a crash on request.
#ifndef TCP_PROXY_crash_
#define TCP_PROXY_crash_

#include "velorin/sig_handler"

// From now on a crash leaves its trace in the log and under /local/local1, then does as `action`
// says; so does running out of stack. Called once, by the main thread. Throws Exception.
void handleCrashes(sig_signal_action action);

// Crashes, for drills.
[[noreturn]] void crash();

#endif  // TCP_PROXY_crash_
