// A process that tests of the other width start: counts under a spin lock on shared memory.
// Usage: lock_peer FILE TIMES. FILE holds four 32-bit words: the lock, the number of processes that
// have come, and two counters that are to be equal whenever the lock is free. It waits until two
// have come, counts TIMES times and exits with 0, or with 1 when the counters ever differ.
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/lock_words.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int fd = open(argv[1], O_RDWR);
  void* const memory = mmap(nullptr, sizeof(LockWords), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    perror(argv[1]);
    return 2;
  }
  return count_with_another(static_cast<LockWords*>(memory), atoi(argv[2])) ? 0 : 1;
}
