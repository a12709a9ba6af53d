// A program that crashes and leaves a trace in the crash handler's format, for ad_crash's tests.
//   ad_crash_victim DIRECTORY [wait]
// With "wait" it says "written" on standard output when it has crashed, and stays.
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

const char* directory;
bool stays;

struct Registers {
  uintptr_t sp, bp, ip;
};

Registers registers_of(const void* context) {
  const auto& words = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
#ifdef __i386__
  const int sp = REG_ESP, bp = REG_EBP, ip = REG_EIP;
#else
  const int sp = REG_RSP, bp = REG_RBP, ip = REG_RIP;
#endif
  return {static_cast<uintptr_t>(words[sp]), static_cast<uintptr_t>(words[bp]),
          static_cast<uintptr_t>(words[ip])};
}

int open_trace() {
  char exe[256] = "";
  if (readlink("/proc/self/exe", exe, sizeof exe - 1) < 0) _exit(3);
  char path[512];
  snprintf(path, sizeof path, "%s/.%s_crash_trace.%d", directory, strrchr(exe, '/') + 1, getpid());
  const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) _exit(4);
  return fd;
}

void handle(int number, siginfo_t* info, void* context) {
  const int fd = open_trace();
  const Registers at = registers_of(context);
  dprintf(fd, "Process %d stack(sp=0x%lx, bp=0x%lx, ip=0x%lx)\n", getpid(),
          static_cast<unsigned long>(at.sp), static_cast<unsigned long>(at.bp),
          static_cast<unsigned long>(at.ip));
  dprintf(fd, "End of stack dump.\n");
  dprintf(fd, "SIGNAL %d (%s)\n", number, strsignal(number));
  dprintf(fd, "Referenced address: %p\n", info->si_addr);
  dprintf(fd, "backtrace for crash at: %p\n", reinterpret_cast<void*>(at.ip));
  const void* function = nullptr;
  int count = 0;
  for (uintptr_t frame = at.bp; frame > 4096 && count < 4; ++count) {
    void* const* const words = reinterpret_cast<void**>(frame);
    dprintf(fd, "%02d: %p(%p, %p, %p, %p, ....\n", count, function, words[2], words[3], words[4],
            words[5]);
    function = words[1];
    frame = reinterpret_cast<uintptr_t>(words[0]);
  }
  dprintf(fd, "End of backtrace\n\n");
  void* addresses[64];
  backtrace_symbols_fd(addresses, backtrace(addresses, 64), fd);
  dprintf(fd, "End of backtrace\n\n");
  close(fd);
  if (!stays) _exit(0);
  printf("written\n");
  fflush(stdout);
  for (;;) pause();
}

}  // namespace

namespace victim {

int crash(volatile int* at);
int middle(int depth, volatile int* at);
int outer(volatile int* at);

__attribute__((noinline)) int crash(volatile int* at) {
  return *at + 1;  // line of crash
}

__attribute__((always_inline)) inline int inlined(volatile int* at) {
  return crash(at) + 2;  // line of inlined
}

__attribute__((noinline)) int middle(int depth, volatile int* at) {
  if (depth > 0) return middle(depth - 1, at) + 3;  // line of recursion
  return inlined(at) + 4;                           // line of middle
}

__attribute__((noinline)) int outer(volatile int* at) {
  return middle(1, at) + 5;  // line of outer
}

}  // namespace victim

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  directory = argv[1];
  stays = argc > 2 && strcmp(argv[2], "wait") == 0;
  struct sigaction handler = {};
  handler.sa_sigaction = handle;
  handler.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(SIGSEGV, &handler, nullptr);
  return victim::outer(reinterpret_cast<volatile int*>(16)) & 1;
}
