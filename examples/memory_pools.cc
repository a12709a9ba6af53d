// A table of connections in a pool, with a second pool for what must not reach a core file; see
// docs/memory.md.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <velorin/sd_mgmt>
#include <velorin/simplelock>

#include <new>
#include <thread>

namespace {

struct Connection {
  uint32_t client;
  uint32_t server;
  void* ticket;  // an element of the secret pool
};

constexpr int kConnections = 100;
constexpr int kTicketSize = 40;

int connections = -1;  // the pools
int tickets = -1;

uint32_t served_lock = 0;
unsigned served = 0;

bool createPools() {
  connections = sd_create_mpool(kConnections, sizeof(Connection), /*do_erase=*/0);
  tickets = sd_create_mpool(kConnections, kTicketSize, /*do_erase=*/1);
  return connections >= 0 && tickets >= 0;
}

// Null when the table is full.
Connection* open(uint32_t client, uint32_t server) {
  void* const ticket = sd_elm_alloc(tickets);
  void* const room = sd_elm_alloc(connections);
  if (ticket != nullptr && room != nullptr) {
    memset(ticket, 0, kTicketSize);  // what an element held before is still there
    return new (room) Connection{client, server, ticket};
  }
  if (ticket != nullptr) (void)sd_elm_free(tickets, ticket);
  if (room != nullptr) (void)sd_elm_free(connections, room);
  return nullptr;
}

void close(Connection* connection) {
  memset(connection->ticket, 0, kTicketSize);  // the pool is wiped before a core dump only
  (void)sd_elm_free(tickets, connection->ticket);
  (void)sd_elm_free(connections, connection);
}

void serve(uint32_t client) {
  for (int i = 0; i < 1000; ++i) {
    Connection* const connection = open(client, /*server=*/7);
    if (connection == nullptr) continue;
    s_lock(&served_lock);
    ++served;
    s_unlock(&served_lock);
    close(connection);
  }
}

}  // namespace

int main() {
  if (!createPools()) {
    perror("pools");
    return 1;
  }
  std::thread other(serve, 1);
  serve(2);
  other.join();
  printf("served %u connections\n", served);

  Connection* const first = open(3, 7);
  Connection* const second = open(4, 7);
  printf("open: clients %u and %u\n", first->client, second->client);
  close(first);
  printf("the next one %s\n", open(5, 7) == first ? "takes the place freed last" : "is elsewhere");
  printf("an address inside an element: %d\n",
         sd_elm_free(connections, reinterpret_cast<char*>(second) + 1));
  return 0;
}
