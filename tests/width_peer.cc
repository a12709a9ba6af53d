// A process that tests of the other width start. It does the commands of its arguments in order:
//   init BASE        initialise
//   fill N           store N, N + 1, ... in the record's 35 words
//   words            print the record's 35 words
//   level N          set the level from the program
//   serve IP         serve this client
//   error TEXT, trace TEXT   a log statement
//   send TEXT        bare text to the daemon
//   raise            signal 10 to itself
//   await FIFO       print "awaiting" and wait until somebody opens and closes FIFO
// and exits with 0, or with 2 when it does not understand.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "velorin/ad_debug"

namespace {

constexpr int kWords = 35;

volatile uint32_t* words() {
  return reinterpret_cast<volatile uint32_t*>(ad_debug_cfg_p);
}

void init(const char* base) {
  (void)ad_init_debug_lib(base);
}

void fill(const char* first) {
  for (int i = 0; i < kWords; ++i) words()[i] = static_cast<uint32_t>(atoi(first) + i);
}

void print(const char*) {
  for (int i = 0; i < kWords; ++i) printf("%u ", words()[i]);
  printf("\n");
}

void level(const char* number) {
  ad_debug_set_debug_level_directly(atoi(number));
}

void serve(const char* client) {
  ad_current_client_ip = inet_addr(client);
}

void error(const char* text) {
  AD_ERRO("%s\n", text);
}

void trace(const char* text) {
  AD_TRCE("%s\n", text);
}

void send(const char* text) {
  ad_errorlog_printf("%s", text);
}

void raise_reload(const char*) {
  (void)raise(10);
}

void await(const char* fifo) {
  printf("awaiting\n");
  fflush(stdout);
  const int fd = open(fifo, O_RDONLY);
  char byte;
  while (read(fd, &byte, 1) > 0) continue;
  close(fd);
}

struct Command {
  const char* name;
  int arguments;
  void (*run)(const char* argument);
};
constexpr Command kCommands[] = {
    {"init", 1, init},   {"fill", 1, fill},          {"words", 0, print}, {"level", 1, level},
    {"serve", 1, serve}, {"error", 1, error},        {"trace", 1, trace}, {"send", 1, send},
    {"await", 1, await}, {"raise", 0, raise_reload},
};

const Command* find(const char* name) {
  for (const Command& command : kCommands)
    if (strcmp(command.name, name) == 0) return &command;
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc;) {
    const Command* const command = find(argv[i]);
    if (command == nullptr || i + command->arguments >= argc) {
      fprintf(stderr, "%s: %s?\n", argv[0], argv[i]);
      return 2;
    }
    command->run(argv[i + command->arguments]);
    i += 1 + command->arguments;
  }
}
