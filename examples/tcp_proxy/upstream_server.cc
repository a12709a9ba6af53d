// A web server that runs behind the proxy. See upstream_server.h.
#include "upstream_server.h"

#include <signal.h>

#include "velorin/Exception"

namespace {

volatile sig_atomic_t stop_requested = 0;

// Handled, not blocked or ignored: those two the server would inherit, and it could not be stopped.
void handleStopSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { stop_requested = 1; };
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGTERM, SIGINT}) (void)sigaction(number, &action, nullptr);
}

void leaveReapingToTheKernel(bool on) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = on ? SA_NOCLDWAIT : 0;
  (void)sigaction(SIGCHLD, &action, nullptr);
}

Launcher_t* start(const std::string& directory) {
  // A server that ends at once, as for want of the program, would stay there as a zombie, and the
  // launcher would wait a minute for it to listen. Later the zombie is welcome: it keeps anybody
  // else from getting the process id that is signalled in the end.
  leaveReapingToTheKernel(true);
  const std::string arguments = directory.empty() ? "" : "-d " + directory;
  Launcher_t* const server = Launcher_newHttpd(arguments.c_str());
  leaveReapingToTheKernel(false);
  return server;
}

}  // namespace

UpstreamServer::UpstreamServer(const std::string& directory) {
  handleStopSignals();
  server_ = start(directory);
  if (server_ == nullptr && !stopRequested())
    throw Exception("thttpd did not start; the log tells why");
}

UpstreamServer::~UpstreamServer() {
  if (server_ != nullptr) Launcher_delete(server_);
}

bool UpstreamServer::stopRequested() {
  return stop_requested != 0;
}
