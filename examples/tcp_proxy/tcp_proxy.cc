// A TCP proxy that shows the library at work: it logs through the machine's log daemon, with the
// level and the connection filter that all processes share.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>

#include "address.h"
#include "crash.h"
#include "options.h"
#include "proxy.h"
#include "upstream_server.h"
#include "velorin/Exception"
#include "velorin/ad_debug"

namespace {

constexpr char kLogBase[] = "/tmp/ad_errorlog";
constexpr uint32_t kModuleId = 80;  // of the syslog copies

// A socket must never get the number of a standard stream: log lines that fall back to standard
// error would go to a client.
bool openStandardStreams() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  return fd >= 0 && close(fd) == 0;
}

void initialiseLog(const std::string& name) {
  ad_debug_set_process_name(name.c_str());
  ad_debug_set_default_module_id(kModuleId);
  (void)ad_init_debug_lib(getenv("ERROR_LOG_SOCKET") == nullptr ? kLogBase : nullptr);
  // An empty text is not sent, but it makes the log's socket while descriptors are to be had.
  ad_errorlog_printf("%s", "");
}

int serve(const Settings& settings) {
  // Before the proxy blocks the stop signals: what is started behind that could not be stopped. And
  // before it gives up its core size limit, which what is started would inherit.
  std::optional<UpstreamServer> upstream;
  if (settings.spawn_upstream) upstream.emplace(settings.upstream_directory);
  handleCrashes(settings.crash_action);
  Proxy proxy(settings);
  if (upstream && UpstreamServer::stopRequested()) return 0;
  printf("listening on %s\n", addressText(proxy.address()).c_str());
  if (!flushOutput()) {
    fputs("tcp_proxy: cannot write to standard output\n", stderr);
    return kExitFailure;
  }
  proxy.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!openStandardStreams()) {
    perror("tcp_proxy: /dev/null");
    return kExitFailure;
  }
  int exit_status;
  const std::optional<Settings> settings = parseOptions(argc, argv, &exit_status);
  if (!settings) return exit_status;

  // A log reader or a client that is gone shows as EPIPE.
  (void)signal(SIGPIPE, SIG_IGN);
  initialiseLog(settings->name);
  try {
    return serve(*settings);
  } catch (const Exception& e) {
    const Exception failure(e.id(), addressText(settings->listen) + ": " + e.details());
    failure.caught(__FILE_NAME__, __LINE__);
    fprintf(stderr, "tcp_proxy: %s\n", failure.details().c_str());
    return kExitFailure;
  } catch (const std::exception& e) {
    AD_ERRO("%s: %s\n", addressText(settings->listen).c_str(), e.what());
    fprintf(stderr, "tcp_proxy: %s: %s\n", addressText(settings->listen).c_str(), e.what());
    return kExitFailure;
  }
}
