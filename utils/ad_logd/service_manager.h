// What a service manager hands over when it starts the daemon, and what it wants to hear: the
// protocols of sd_listen_fds(3) and sd_notify(3).
#ifndef VELORIN_AD_LOGD_service_manager_
#define VELORIN_AD_LOGD_service_manager_

#include "log_socket.h"

// Takes the sockets that LISTEN_FDS and LISTEN_PID announce, each as the one of the two at whose
// path it is bound. Nothing when they announce none to this process.
// Returns: false, having said why, when one of them is neither of the two.
bool adoptSockets(LogSocket* log, LogSocket* special);

// Sends `state`, "READY=1" for instance, to where NOTIFY_SOCKET says, if it is set.
void tellServiceManager(const char* state);

#endif  // VELORIN_AD_LOGD_service_manager_
