// The proxy as a real program between real sockets, and what it logs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/log_listener.h"
#include "support/private_world.h"
#include "tcp_proxy_fixture.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

// ---- Bytes ----

TEST_F(tcp_proxyTest, PassesBytesOnUnchangedInBothDirectionsAtOnce) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  const std::string up = randomBytes(8 << 20, 1);
  const std::string down = randomBytes(9 << 20, 2);
  std::thread sender([&] {
    client.send(up);
    client.endOutput();
  });
  std::thread answerer([&] {
    server.send(down);
    server.endOutput();
  });
  std::string got_up;
  std::thread receiver([&] { got_up = server.receiveAll(); });
  const std::string got_down = client.receiveAll();
  for (std::thread* thread : {&sender, &answerer, &receiver}) thread->join();
  EXPECT_TRUE(got_up == up);
  EXPECT_TRUE(got_down == down);
  proxy.stop();
}

TEST_F(tcp_proxyTest, SlowReaderSlowsTheSenderDownAndLosesNothing) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  // The client reads nothing: what the server gets rid of lies in the kernel's buffers and in the
  // proxy's. A proxy without a bound would take everything.
  constexpr size_t kMost = 256 << 20;
  const std::string block = randomBytes(1 << 20, 3);
  size_t sent = 0;
  pollfd room = {server.fd(), POLLOUT, 0};
  while (sent < kMost && poll(&room, 1, 200) > 0) {
    const size_t at = sent % block.size();
    const ssize_t n =
        send(server.fd(), block.data() + at, block.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) sent += static_cast<size_t>(n);
  }
  EXPECT_LT(sent, kMost);
  server.endOutput();
  const std::string got = client.receiveAll();
  ASSERT_EQ(got.size(), sent);
  for (size_t at = 0; at < sent; at += block.size())
    ASSERT_EQ(got.compare(at, block.size(), block, 0, std::min(block.size(), sent - at)), 0) << at;
  client.endOutput();
  EXPECT_EQ(server.ending(), 0);
  proxy.stop();
}

TEST_F(tcp_proxyTest, ClientThatHasEndedItsRequestStillGetsTheAnswer) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  client.send("request");
  client.endOutput();
  EXPECT_EQ(server.receiveAll(), "request");
  server.send("answer");
  server.endOutput();
  EXPECT_EQ(client.receiveAll(), "answer");
  proxy.stop();
}

TEST_F(tcp_proxyTest, ServerThatHasEndedItsAnswerStillGetsTheRequest) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  server.send("greeting");
  server.endOutput();
  EXPECT_EQ(client.receiveAll(), "greeting");
  client.send("late request");
  client.endOutput();
  EXPECT_EQ(server.receiveAll(), "late request");
  proxy.stop();
}

TEST_F(tcp_proxyTest, HangUpOfAClientWhoseBytesMustWaitDoesNotKeepItBusy) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  server.endOutput();
  EXPECT_EQ(client.receiveAll(), "");
  // The server reads nothing: soon the proxy holds a chunk and leaves the next bytes in its socket.
  const std::string block = randomBytes(16384, 4);
  size_t blocks = 0;
  do {
    client.send(block);
    ++blocks;
    ASSERT_TRUE(eventually([&] { return client.unacknowledged() == 0; }));
  } while (!proxy.sleeps() || unreadBytes(proxy.port(), client.port()) == 0);
  // Both ends of the client's socket are shut now, which the kernel reports again and again.
  client.endOutput();
  ASSERT_TRUE(eventually([&] { return client.state() == TCP_CLOSE; }));
  EXPECT_TRUE(eventually([&] { return proxy.sleeps(); }));
  const std::string got = server.receiveAll();
  ASSERT_EQ(got.size(), blocks * block.size());
  for (size_t at = 0; at < got.size(); at += block.size())
    ASSERT_EQ(got.compare(at, block.size(), block), 0) << at;
  proxy.stop();
}

TEST_F(tcp_proxyTest, ThreeHundredConnectionsAtOnceKeepTheirBytesApart) {
  constexpr size_t kClients = 300;
  limitDescriptors(1024);
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const int idle_descriptors = proxy.openDescriptors();
  std::vector<Socket> clients;
  std::map<std::string, Socket> servers;
  for (size_t i = 0; i < kClients; ++i) {
    clients.push_back(proxy.client());
    clients.back().send(std::to_string(1000 + i));
  }
  for (size_t i = 0; i < kClients; ++i) {
    Socket server = upstream.accepted();
    std::string name = server.receive(4);
    servers.emplace(std::move(name), std::move(server));
  }
  ASSERT_EQ(servers.size(), kClients);  // all are open, each has its own
  for (const auto& [name, server] : servers) {
    server.send("for " + name);
    server.endOutput();
  }
  for (size_t i = 0; i < kClients; ++i) {
    EXPECT_EQ(clients[i].receiveAll(), "for " + std::to_string(1000 + i));
    clients[i].endOutput();
  }
  for (const auto& [name, server] : servers) EXPECT_EQ(server.ending(), 0) << name;
  // The socket for the next connection's upstream side stays.
  EXPECT_TRUE(eventually([&] { return proxy.openDescriptors() <= idle_descriptors + 1; }))
      << proxy.openDescriptors() << " descriptors are open";
  proxy.stop();
}

// ---- Failures ----

TEST_F(tcp_proxyTest, RefusedUpstreamIsLoggedAndEndsTheClient) {
  const int port = refusingPort();
  Proxy proxy(port);
  const Socket client = proxy.client("127.0.0.2");
  EXPECT_EQ(client.ending(), ECONNRESET);
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy.line("ERRO", "connection",
                                      "connect " + localAddress(client) + " -> 127.0.0.1:" +
                                          std::to_string(port) + ": Connection refused")));
  proxy.stop();
}

TEST_F(tcp_proxyTest, ResetOfTheClientResetsTheServer) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(2);
  Socket client = proxy.client();
  const Socket server = upstream.accepted();
  client.send("abc");
  EXPECT_EQ(server.receive(3), "abc");
  EXPECT_THAT(log().nextLine(), HasSubstr("opened"));
  client.reset();
  EXPECT_EQ(server.ending(), ECONNRESET);
  EXPECT_THAT(log().nextLine(), EndsWith(": 3 bytes to upstream, 0 bytes to client; "
                                         "client: Connection reset by peer"));
  proxy.stop();
}

TEST_F(tcp_proxyTest, ResetOfTheServerResetsTheClient) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(2);
  const Socket client = proxy.client();
  Socket server = upstream.accepted();
  server.send("abcd");
  EXPECT_EQ(client.receive(4), "abcd");
  EXPECT_THAT(log().nextLine(), HasSubstr("opened"));
  server.reset();
  EXPECT_EQ(client.ending(), ECONNRESET);
  EXPECT_THAT(log().nextLine(), EndsWith(": 0 bytes to upstream, 4 bytes to client; "
                                         "upstream: Connection reset by peer"));
  proxy.stop();
}

TEST_F(tcp_proxyTest, AnswerSentBeforeAResetStillArrives) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  const Socket client = proxy.client();
  client.send("request that nobody reads");
  {
    const Socket server = upstream.accepted();
    pollfd request = {server.fd(), POLLIN, 0};
    ASSERT_EQ(poll(&request, 1, kPatience * 1000), 1);
    server.send("error 413");
  }  // closed with unread bytes, which resets the connection
  int err;
  EXPECT_EQ(client.receiveAll(&err), "error 413");
  EXPECT_EQ(err, ECONNRESET);
  proxy.stop();
}

TEST_F(tcp_proxyTest, ClientThatEndedItsRequestAndResetsEndsTheConnection) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  Socket client = proxy.client();
  const Socket server = upstream.accepted();
  client.send("x");
  client.endOutput();
  EXPECT_EQ(server.receiveAll(), "x");
  client.reset();
  // A stream that has ended cannot end again; the error shows beside it.
  pollfd gone = {server.fd(), 0, 0};
  ASSERT_EQ(poll(&gone, 1, kPatience * 1000), 1);
  EXPECT_NE(gone.revents & POLLERR, 0);
  proxy.stop();
}

// An upstream whose queue of one is taken, so that a further connect waits.
class tcp_proxyBusyUpstreamTest : public tcp_proxyTest {
 protected:
  // Whether a connection attempt is under way: the kernel's table shows state 2, SYN_SENT.
  static bool someoneConnects() { return read("/proc/net/tcp").find(" 02 ") != std::string::npos; }

  const Socket upstream_ = listening(/*backlog=*/0);
  const Socket first_ = connected(upstream_.port());
};

TEST_F(tcp_proxyBusyUpstreamTest, BytesSentWhileConnectingArriveAfterwards) {
  Proxy proxy(upstream_.port());
  const Socket client = proxy.client();
  client.send("early");
  client.endOutput();
  ASSERT_TRUE(eventually(someoneConnects));
  const Socket first_server = upstream_.accepted();
  const Socket server = upstream_.accepted();
  EXPECT_EQ(server.receiveAll(), "early");
  server.send("late");
  server.endOutput();
  EXPECT_EQ(client.receiveAll(), "late");
  proxy.stop();
}

TEST_F(tcp_proxyBusyUpstreamTest, ClientThatResetsWhileConnectingIsForgotten) {
  Proxy proxy(upstream_.port());
  setLevel(2);
  const int idle_descriptors = proxy.openDescriptors();
  Socket client = proxy.client();
  EXPECT_THAT(log().nextLine(), HasSubstr("opened"));
  ASSERT_TRUE(eventually(someoneConnects));
  client.reset();
  EXPECT_THAT(log().nextLine(), EndsWith(": 0 bytes to upstream, 0 bytes to client; "
                                         "client: Connection reset by peer"));
  EXPECT_TRUE(eventually([&] { return proxy.openDescriptors() <= idle_descriptors + 1; }));
  proxy.stop();
}

TEST_F(tcp_proxyTest, NoDescriptorIsLeftBehindByFailures) {
  const int port = refusingPort();
  Proxy proxy(port);
  const int idle_descriptors = proxy.openDescriptors();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(proxy.client().ending(), ECONNRESET);
    EXPECT_THAT(log().nextLine(), EndsWith("Connection refused"));
  }
  EXPECT_TRUE(eventually([&] { return proxy.openDescriptors() <= idle_descriptors + 1; }))
      << proxy.openDescriptors() << " descriptors are open";
  proxy.stop();
}

// ---- Few descriptors ----

constexpr char kShort[] = "accept: Too many open files; new clients have to wait";

TEST_F(tcp_proxyTest, ClientsBeyondTheDescriptorLimitWaitAndAreServedLater) {
  constexpr size_t kClients = 12;
  const Socket upstream = listening();
  Proxy proxy(upstream.port(), [] { limitDescriptors(16); });
  std::vector<Socket> clients;
  for (size_t i = 0; i < kClients; ++i) {
    clients.push_back(proxy.client());
    clients.back().send(std::to_string(10 + i));
    clients.back().endOutput();
  }
  EXPECT_THAT(log().nextLine(), MatchesRegex(proxy.line("ERRO", "proxy", kShort)));
  EXPECT_TRUE(eventually([&] { return proxy.sleeps(); }));  // it does not try all the time
  for (size_t i = 0; i < kClients; ++i) {
    const Socket server = upstream.accepted();
    server.send("for " + server.receiveAll());
    (void)log().waiting();
  }
  for (size_t i = 0; i < kClients; ++i)
    EXPECT_EQ(clients[i].receiveAll(), "for " + std::to_string(10 + i));
  proxy.stop();
}

TEST_F(tcp_proxyTest, AcceptsAgainWhenDescriptorsAreToBeHadAgain) {
  const Socket upstream = listening();
  // Its own descriptors and no more: no connection can end and so end the wait.
  Proxy proxy(upstream.port(), [] { limitDescriptors(8); });
  const Socket client = proxy.client();
  EXPECT_THAT(log().nextLine(), MatchesRegex(proxy.line("ERRO", "proxy", kShort)));
  rlimit more;
  ASSERT_EQ(prlimit(proxy.pid(), RLIMIT_NOFILE, nullptr, &more), 0);
  more.rlim_cur = 64;
  ASSERT_EQ(prlimit(proxy.pid(), RLIMIT_NOFILE, &more, nullptr), 0);
  const Socket server = upstream.accepted();
  server.send("at last");
  EXPECT_EQ(client.receive(7), "at last");
  EXPECT_EQ(log().waiting().size(), 0U);  // the shortage was reported once
  proxy.stop();
}

// ---- The log ----

TEST_F(tcp_proxyTest, QuietConnectionLogsNothingAtLevelOne) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(1);
  {
    const Socket client = proxy.client();
    const Socket server = upstream.accepted();
    client.endOutput();
    server.endOutput();
    EXPECT_EQ(client.ending(), 0);
    EXPECT_EQ(server.ending(), 0);
  }
  proxy.stop();
  EXPECT_EQ(log().waiting().size(), 0U);
}

TEST_F(tcp_proxyTest, LevelTwoShowsConnectionsWithTheirByteCounts) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(2);
  const Socket client = proxy.client("127.0.0.5");
  const Socket server = upstream.accepted();
  const std::string pair =
      localAddress(client) + " -> 127.0.0.1:" + std::to_string(upstream.port());
  EXPECT_THAT(log().nextLine(), MatchesRegex(proxy.line("TRCE", "connection", "opened " + pair)));
  client.send("12345");
  client.endOutput();
  EXPECT_EQ(server.receiveAll(), "12345");
  server.send(std::string(100000, 'x'));
  server.endOutput();
  EXPECT_EQ(client.receiveAll().size(), 100000U);
  EXPECT_THAT(
      log().nextLine(),
      MatchesRegex(proxy.line("TRCE", "connection",
                              "closed " + pair + ": 5 bytes to upstream, 100000 bytes to client")));
  proxy.stop();
}

// The last lines about a connection that carries `request` and `response`, with digests asked for.
std::vector<std::string> linesWithDigests(LogListener* log, const std::string& request,
                                          const std::string& response) {
  const Socket upstream = listening();
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--digests"});
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  EXPECT_THAT(log->nextLine(), HasSubstr("opened"));
  client.send(request);
  client.endOutput();
  EXPECT_EQ(server.receiveAll(), request);
  server.send(response);
  server.endOutput();
  EXPECT_EQ(client.receiveAll(), response);
  std::vector<std::string> lines = {log->nextLine(), log->nextLine()};
  EXPECT_THAT(lines[0],
              MatchesRegex(proxy.line("TRCE", "connection",
                                      "digests " + localAddress(client) + " -> 127.0.0.1:" +
                                          std::to_string(upstream.port()) + ": .*")));
  EXPECT_THAT(lines[1], HasSubstr("-> closed "));
  proxy.stop();
  return lines;
}

TEST_F(tcp_proxyTest, DigestsAreOfWhatTheClientGot) {
  setLevel(2);
  EXPECT_THAT(linesWithDigests(&log(), "not these", "abc")[0],
              EndsWith(": MD5 900150983cd24fb0d6963f7d28e17f72, SHA-1 "
                       "qZk+NkcGgWq6PiVxeFDCbJzQ2J0= of what the client got"));
}

TEST_F(tcp_proxyTest, DigestsOfManyChunksAreThoseOfTheWhole) {
  setLevel(2);
  EXPECT_THAT(linesWithDigests(&log(), "", std::string(100000, 'a'))[0],
              EndsWith(": MD5 1af6d6f2f682f76f80e606aeaaee1680, SHA-1 "
                       "xNSzCFEYL8TrhnVJTUL9fxfinJM= of what the client got"));
}

TEST_F(tcp_proxyTest, DigestsOfNothingAreThoseOfTheEmptyMessage) {
  setLevel(2);
  EXPECT_THAT(linesWithDigests(&log(), "", "")[0],
              EndsWith(": MD5 d41d8cd98f00b204e9800998ecf8427e, SHA-1 "
                       "2jmj7l5rSw0yVb/vlWAYkK/YBwk= of what the client got"));
}

TEST_F(tcp_proxyTest, ConnectionsWithDigestsMakeRoomForTheNext) {
  const Socket upstream = listening();
  Proxy proxy(
      {"--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--digests", "--connections=2"});
  setLevel(2);
  for (int i = 0; i < 100; ++i) {  // more than a page holds
    {
      const Socket client = proxy.client();
      const Socket server = upstream.accepted();
      server.send("x");
      EXPECT_EQ(client.receive(1), "x");
    }
    for (const char* expected : {"-> opened", "-> digests", "-> closed"})
      ASSERT_THAT(log().nextLine(), HasSubstr(expected));
  }
  proxy.stop();
}

TEST_F(tcp_proxyTest, LevelThreeShowsEveryChunk) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(3);
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  EXPECT_THAT(log().nextLine(), HasSubstr("opened"));
  const std::string pair =
      localAddress(client) + " -> 127.0.0.1:" + std::to_string(upstream.port());
  client.send("12345");
  EXPECT_EQ(server.receive(5), "12345");
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy.line("DETL", "connection", pair + ": 5 bytes from client")));
  // The first bytes of the client are dumped, by lines without the process name.
  EXPECT_THAT(log().nextLine(),
              MatchesRegex("\\([0-9]+\\)DETL:connection.cc:[0-9]+-> DUMP length = "
                           "0x5 \\(" +
                           pair + "\\)"));
  EXPECT_THAT(log().nextLine(), EndsWith(")DETL: 0x000: 0x31,0x32,0x33,0x34,0x35"));
  server.send("1234567");
  EXPECT_EQ(client.receive(7), "1234567");
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy.line("DETL", "connection", pair + ": 7 bytes from upstream")));
  proxy.stop();
}

TEST_F(tcp_proxyTest, ClientFilterDropsEveryLineOfOtherClientsEvenErrors) {
  Proxy proxy(refusingPort());
  setLevel(3);
  record().debug_target_client_ip = inet_addr("127.0.0.2");
  EXPECT_EQ(proxy.client("127.0.0.3").ending(), ECONNRESET);
  EXPECT_EQ(proxy.client("127.0.0.2").ending(), ECONNRESET);
  EXPECT_THAT(log().nextLine(), HasSubstr("opened 127.0.0.2:"));
  EXPECT_THAT(log().nextLine(), AllOf(HasSubstr("ERRO"), HasSubstr("connect 127.0.0.2:")));
  EXPECT_THAT(log().nextLine(), HasSubstr("closed 127.0.0.2:"));
  EXPECT_EQ(proxy.client("127.0.0.3").ending(), ECONNRESET);
  // Lines that belong to no connection pass.
  proxy.child().signal(SIGTERM);
  EXPECT_THAT(log().nextLine(), EndsWith("Terminated: stopping with 0 connections open"));
  EXPECT_THAT(log().nextLine(), HasSubstr("-> served 3 connections "));
  proxy.stop();
  EXPECT_EQ(log().waiting().size(), 0U);
}

TEST_F(tcp_proxyTest, ServerFilterDropsTheLinesOfOtherServers) {
  Proxy proxy(refusingPort());
  record().debug_target_server_ip = inet_addr("127.0.0.9");
  EXPECT_EQ(proxy.client().ending(), ECONNRESET);
  record().debug_target_server_ip = inet_addr("127.0.0.1");
  EXPECT_EQ(proxy.client().ending(), ECONNRESET);
  proxy.stop();
  EXPECT_EQ(log().waiting().size(), 1U);
}

TEST_F(tcp_proxyTest, InterleavedConnectionsAreFilteredEachByItsOwnAddress) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(3);
  record().debug_target_client_ip = inet_addr("127.0.0.3");
  const Socket hidden = proxy.client("127.0.0.2");
  const Socket hidden_server = upstream.accepted();
  const Socket shown = proxy.client("127.0.0.3");
  const Socket shown_server = upstream.accepted();
  EXPECT_THAT(log().nextLine(), HasSubstr("opened 127.0.0.3:"));
  for (int i = 0; i < 3; ++i) {
    hidden.send("hidden");
    EXPECT_EQ(hidden_server.receive(6), "hidden");
    shown.send("shown");
    EXPECT_EQ(shown_server.receive(5), "shown");
    EXPECT_THAT(log().nextLine(),
                AllOf(HasSubstr("-> 127.0.0.3:"), EndsWith("5 bytes from client")));
    if (i > 0) continue;
    EXPECT_THAT(log().nextLine(), HasSubstr("DUMP length = 0x5 (127.0.0.3:"));
    EXPECT_THAT(log().nextLine(), HasSubstr("0x73,0x68,0x6f,0x77,0x6e"));
  }
  EXPECT_EQ(log().waiting().size(), 0U);
  record().debug_target_client_ip = 0;
  proxy.stop();
}

TEST_F(tcp_proxyTest, SignalTenReloadsTheSettingsOfARunningProxy) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(1);
  ASSERT_TRUE(eventually([&] { return proxy.sleeps(); }));
  write(std::string(kDaemonSocket) + ".cfg", "debug_level=2\ndebug_client_ip=127.0.0.7\n");
  proxy.child().signal(10);
  EXPECT_TRUE(eventually([&] {
    return __atomic_load_n(&record().debug_target_client_ip, __ATOMIC_RELAXED) ==
           inet_addr("127.0.0.7");
  }));
  EXPECT_EQ(record().ad_debug_level, 2);
  const Socket other = proxy.client("127.0.0.6");
  const Socket other_server = upstream.accepted();
  const Socket client = proxy.client("127.0.0.7");
  const Socket server = upstream.accepted();
  EXPECT_THAT(log().nextLine(), HasSubstr("opened 127.0.0.7:"));
  proxy.stop();
}

TEST_F(tcp_proxyTest, EnvironmentNamesTheDaemon) {
  LogListener other("/tmp/other_log.0");
  const int port = refusingPort();
  Proxy proxy(port, [] { setenv("ERROR_LOG_SOCKET", "/tmp/other_log", 1); });
  EXPECT_EQ(proxy.client().ending(), ECONNRESET);
  EXPECT_THAT(other.nextLine(), StartsWith("proxy("));
  proxy.stop();
}

TEST_F(tcp_proxyTest, WithoutADaemonLinesGoToStandardError) {
  removeLog();
  const Socket upstream = listening();
  Proxy proxy(upstream.port(), [] { setenv("DEBUG_LEVEL", "2", 1); });
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  EXPECT_TRUE(proxy.child().waitForErr(" -> 127.0.0.1:"));
  EXPECT_THAT(proxy.child().err(), HasSubstr("WARNING: cannot contact ad_logd"));
  client.send("still served");
  EXPECT_EQ(server.receive(12), "still served");
}

TEST_F(tcp_proxyTest, SurvivesAStandardErrorThatNobodyReads) {
  removeLog();
  const Socket upstream = listening();
  Proxy proxy(upstream.port(), [] {
    setenv("DEBUG_LEVEL", "3", 1);
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
  });
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  client.send("still served");
  EXPECT_EQ(server.receive(12), "still served");
  proxy.stop();
}

TEST_F(tcp_proxyTest, StandardStreamsThatAreClosedDoNotBecomeSockets) {
  removeLog();
  constexpr int kPort = 7001;
  const Socket upstream = listening();
  const std::string upstream_address = "127.0.0.1:" + std::to_string(upstream.port());
  const Child proxy([&] {
    setenv("DEBUG_LEVEL", "3", 1);
    for (const int fd : {0, 1, 2}) close(fd);
    execl(kProgram, kProgram, "--listen", "127.0.0.1:7001", "--upstream", upstream_address.c_str(),
          static_cast<char*>(nullptr));
  });
  std::optional<Socket> client;
  ASSERT_TRUE(eventually([&] {
    try {
      client.emplace(connected(kPort));
    } catch (const std::runtime_error&) {
    }
    return client.has_value();
  }));
  const Socket server = upstream.accepted();
  client->send("up");
  client->endOutput();
  EXPECT_EQ(server.receiveAll(), "up");
  server.send("down");
  server.endOutput();
  EXPECT_EQ(client->receiveAll(), "down");
}

// ---- Limits and crashes ----

TEST_F(tcp_proxyTest, ClientsBeyondTheNumberThatIsServedWait) {
  const Socket upstream = listening();
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--connections=1"});
  std::optional<Socket> first(proxy.client());
  std::optional<Socket> first_server(upstream.accepted());
  const Socket second = proxy.client();
  EXPECT_THAT(log().nextLine(), HasSubstr("accept: No buffer space available"));
  second.send("waiting");
  first.reset();
  first_server.reset();
  const Socket second_server = upstream.accepted();
  EXPECT_EQ(second_server.receive(7), "waiting");
}

class tcp_proxyCrashTest : public tcp_proxyTest {
 protected:
  static constexpr char kCrashes[] = "/local/local1";

  tcp_proxyCrashTest() {
    removeLog();  // more lines than a socket holds: they are looked at on standard error
    cover(kCrashes);
  }

  // A proxy that has crashed: how it ended.
  static ChildResult crash(Proxy* proxy) {
    proxy->child().signal(SIGUSR2);
    return proxy->child().wait();
  }
  static std::string traceOf(const Proxy& proxy) {
    return std::string(kCrashes) + "/.tcp_proxy_crash_trace." + std::to_string(proxy.pid());
  }
};

TEST_F(tcp_proxyCrashTest, LeavesItsTraceInTheLogAndInAFile) {
  const Socket upstream = listening();
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--crash-on-signal",
               "--crash-action=none"});
  const ChildResult result = crash(&proxy);
  EXPECT_EQ(result.signal(), SIGQUIT) << result;
  EXPECT_FALSE(WCOREDUMP(result.status));
  EXPECT_THAT(result.err, HasSubstr("CRTC:crash.cc:"));
  EXPECT_THAT(result.err, HasSubstr("-> SIGNAL 11 (Segmentation fault)\n"));
  EXPECT_THAT(result.err, HasSubstr("-> ----- stack dump and backtrace done.\n"));
  EXPECT_THAT(read(traceOf(proxy)), HasSubstr("SIGNAL 11 (Segmentation fault)\n"));
  EXPECT_TRUE(std::filesystem::exists(std::string(kCrashes) + "/.excl_sig.tcp_proxy.lock"));
}

TEST_F(tcp_proxyCrashTest, NextProxyRemovesTheMarkerAndMayCrashAsWell) {
  const Socket upstream = listening();
  const std::vector<std::string> options = {
      "--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--crash-on-signal"};
  Proxy first(options);
  EXPECT_EQ(crash(&first).signal(), SIGQUIT);
  Proxy second(options);
  const Socket client = second.client();
  const Socket server = upstream.accepted();
  client.send("served");
  EXPECT_EQ(server.receive(6), "served");
  EXPECT_EQ(crash(&second).signal(), SIGQUIT);
  EXPECT_THAT(read(traceOf(second)), HasSubstr("SIGNAL 11"));
}

TEST_F(tcp_proxyCrashTest, WaitsForADebuggerWhereItIsToldTo) {
  const Socket upstream = listening();
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(upstream.port()), "--crash-on-signal",
               "--crash-action=debug"});
  proxy.child().signal(SIGUSR2);
  EXPECT_TRUE(proxy.child().waitForErr("please attach to process " + std::to_string(proxy.pid())));
  EXPECT_TRUE(eventually([&] { return proxy.sleeps(); }));
}

TEST_F(tcp_proxyCrashTest, WithoutTheOptionTheSignalJustEndsIt) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  EXPECT_EQ(crash(&proxy).signal(), SIGUSR2);
  EXPECT_FALSE(std::filesystem::exists(traceOf(proxy)));
}

// ---- Start and stop ----

class tcp_proxyStopTest : public tcp_proxyTest, public testing::WithParamInterface<int> {};

TEST_P(tcp_proxyStopTest, EndsItsConnectionsAndExitsWithZero) {
  const Socket upstream = listening();
  Proxy proxy(upstream.port());
  setLevel(2);
  std::vector<Socket> open_ends;
  for (int i = 0; i < 2; ++i) {
    open_ends.push_back(proxy.client());
    open_ends.push_back(upstream.accepted());
    EXPECT_THAT(log().nextLine(), HasSubstr("opened"));
  }
  proxy.child().signal(GetParam());
  const ChildResult result = proxy.child().wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "listening on 127.0.0.1:" + std::to_string(proxy.port()) + "\n");
  for (const Socket& end : open_ends) EXPECT_EQ(end.ending(), ECONNRESET);
  EXPECT_THAT(log().nextLine(),
              EndsWith(std::string(strsignal(GetParam())) + ": stopping with 2 connections open"));
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT(log().nextLine(), EndsWith(": 0 bytes to upstream, 0 bytes to client; stopped"));
}

TEST_F(tcp_proxyTest, StopSumsUpWhatWasServed) {
  const Socket upstream = listening();
  const time_t before = time(nullptr);
  Proxy proxy(upstream.port());
  const time_t after = time(nullptr);
  {
    const Socket client = proxy.client();
    const Socket server = upstream.accepted();
    client.send("12345");
    client.endOutput();
    EXPECT_EQ(server.receiveAll(), "12345");
    server.send("1234567");
    server.endOutput();
    EXPECT_EQ(client.receiveAll(), "1234567");
  }
  const Socket client = proxy.client();
  const Socket server = upstream.accepted();
  client.send("123");
  EXPECT_EQ(server.receive(3), "123");
  setLevel(2);
  proxy.stop();
  EXPECT_THAT(log().nextLine(), HasSubstr("stopping with 1 connections open"));
  EXPECT_THAT(log().nextLine(), HasSubstr("closed"));
  const std::string line = log().nextLine();
  EXPECT_THAT(line, MatchesRegex(proxy.line("TRCE", "proxy",
                                            "served 2 connections and 15 bytes since .* GMT, for "
                                            "[0-9]+ seconds: [0-9.]+(e-?3)? bytes a second")));
  tm date = {};
  const char* const text = strstr(line.c_str(), "since ");
  ASSERT_NE(text, nullptr);
  ASSERT_NE(strptime(text, "since %a, %d %b %Y %H:%M:%S GMT", &date), nullptr) << line;
  EXPECT_GE(timegm(&date), before);
  EXPECT_LE(timegm(&date), after);
}

INSTANTIATE_TEST_SUITE_P(Signals, tcp_proxyStopTest, testing::Values(SIGTERM, SIGINT),
                         [](const auto& row) {
                           return std::string(row.param == SIGTERM ? "SIGTERM" : "SIGINT");
                         });

// ---- The upstream server that is the proxy's own ----

constexpr int kServerPort = 8008;
constexpr char kStandIn[] = VELORIN_BUILD "/stand-in";  // a folder with a thttpd

class tcp_proxySpawnTest : public tcp_proxyTest {
 protected:
  tcp_proxySpawnTest() {
    std::filesystem::create_directories("/tmp/site/sub");
    write("/tmp/site/page", "the page\n");
    write("/tmp/site/sub/page", "the other page\n");
    searchFirst(kStandIn);
  }
  ~tcp_proxySpawnTest() override { setenv("PATH", path_.c_str(), 1); }

  static void searchFirst(const std::string& dir) {
    setenv("PATH", (dir + ":" + path_).c_str(), 1);
  }

  static void inSite() {
    if (chdir("/tmp/site") != 0) _exit(126);
  }

  // A thttpd that the shell runs.
  static void httpd(const std::string& commands) {
    std::filesystem::create_directory("/tmp/bin");
    write("/tmp/bin/thttpd", "#!/bin/sh\n" + commands);
    chmod("/tmp/bin/thttpd", 0755);
    searchFirst("/tmp/bin");
  }

  static std::string pageThrough(const Proxy& proxy) {
    const Socket client = proxy.client();
    client.send("GET /page HTTP/1.0\r\n\r\n");
    return client.receiveAll();
  }

  static bool serverIsGone() {
    try {
      connected(kServerPort);
      return false;
    } catch (const std::runtime_error&) {
      return true;
    }
  }

 private:
  inline static const std::string path_ = getenv("PATH");
};

TEST_F(tcp_proxySpawnTest, ServerServesTheWorkingDirectoryUntilSigterm) {
  Proxy proxy({"--spawn-upstream"}, inSite);
  EXPECT_THAT(pageThrough(proxy), AllOf(HasSubstr("200 OK"), EndsWith("\r\n\r\nthe page\n")));
  EXPECT_TRUE(std::filesystem::exists("/tmp/site/thttpd.log"));
  proxy.stop();
  EXPECT_TRUE(serverIsGone());
  EXPECT_THAT(log().waiting(), testing::IsEmpty());
}

TEST_F(tcp_proxySpawnTest, ServerServesTheDirectoryThatIsNamed) {
  Proxy proxy({"--spawn-upstream=/tmp/site/sub"}, inSite);
  EXPECT_THAT(pageThrough(proxy), EndsWith("\r\n\r\nthe other page\n"));
  proxy.stop();
  EXPECT_TRUE(serverIsGone());
}

TEST_F(tcp_proxySpawnTest, InterruptOfATerminalStopsBoth) {
  Proxy proxy({"--spawn-upstream"}, inSite);
  // Sent to all processes of the group.
  ASSERT_EQ(killpg(proxy.pid(), SIGINT), 0);
  const ChildResult result = proxy.child().wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(serverIsGone());
}

TEST_F(tcp_proxySpawnTest, StopStillWorksWhenTheServerIsGone) {
  httpd("echo $$ > /tmp/server.pid\nexec " + std::string(kStandIn) + "/thttpd \"$@\"\n");
  Proxy proxy({"--spawn-upstream"}, inSite);
  ASSERT_EQ(kill(std::stoi(read("/tmp/server.pid")), SIGKILL), 0);
  ASSERT_TRUE(eventually(serverIsGone));
  EXPECT_EQ(proxy.client().ending(), ECONNRESET);
  proxy.stop();
}

TEST_F(tcp_proxySpawnTest, StopWhileTheServerStartsLeavesNoServer) {
  httpd(
      "> /tmp/started\nuntil [ -e /tmp/go ]; do sleep 0.01; done\n"
      "exec " +
      std::string(kStandIn) + "/thttpd \"$@\"\n");
  Child proxy({kProgram, "--listen=127.0.0.1:0", "--spawn-upstream"});
  ASSERT_TRUE(eventually([] { return std::filesystem::exists("/tmp/started"); }));
  proxy.signal(SIGTERM);
  write("/tmp/go", "");
  const ChildResult result = proxy.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(serverIsGone());
}

TEST_F(tcp_proxySpawnTest, InterruptWhileTheServerStartsEndsBoth) {
  httpd("> /tmp/started\nexec sleep 1000\n");
  Child proxy({kProgram, "--listen=127.0.0.1:0", "--spawn-upstream"});
  ASSERT_TRUE(eventually([] { return std::filesystem::exists("/tmp/started"); }));
  ASSERT_EQ(killpg(proxy.pid(), SIGINT), 0);
  const ChildResult result = proxy.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, "");
}

TEST_F(tcp_proxySpawnTest, MissingServerIsReportedAndExitsWithOne) {
  setenv("PATH", "/nonexistent", 1);
  const ChildResult result = runProgram({kProgram, "--listen=127.0.0.1:0", "--spawn-upstream"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "tcp_proxy: 127.0.0.1:0: thttpd did not start; the log tells why\n");
  EXPECT_THAT(log().nextLine(), EndsWith("exec thttpd: No such file or directory"));
  EXPECT_THAT(log().nextLine(), HasSubstr("No thttpd process "));
}

TEST_F(tcp_proxySpawnTest, ServerPortInUseIsReportedAndExitsWithOne) {
  Socket taken(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = addressOf("127.0.0.1", kServerPort);
  const int on = 1;
  setsockopt(taken.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ASSERT_EQ(bind(taken.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(taken.fd(), 8), 0);
  const ChildResult result = runProgram({kProgram, "--listen=127.0.0.1:0", "--spawn-upstream"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_THAT(log().nextLine(), EndsWith("Someone is already using port 8008"));
}

TEST_F(tcp_proxySpawnTest, ServerIsStoppedWhenTheProxyCannotListen) {
  const Socket taken = listening();
  const ChildResult result = runProgram(
      {kProgram, "--listen=127.0.0.1:" + std::to_string(taken.port()), "--spawn-upstream"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_THAT(result.err, EndsWith(": bind: Address already in use\n"));
  EXPECT_TRUE(serverIsGone());
}

TEST_F(tcp_proxyTest, AddressInUseIsReportedAndExitsWithOne) {
  const Socket taken = listening();
  const std::string address = "127.0.0.1:" + std::to_string(taken.port());
  const ChildResult result =
      runProgram({kProgram, "--listen", address, "--upstream", "127.0.0.1:1"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "tcp_proxy: " + address + ": bind: Address already in use\n");
  EXPECT_THAT(log().nextLine(), EndsWith(": 0 \"" + address + ": bind: Address already in use\""));
}

TEST_F(tcp_proxyTest, OutputThatCannotBeWrittenExitsWithOne) {
  for (const char* option : {"--help", "--version", "--listen=127.0.0.1:0"}) {
    const ChildResult result = runInChild([=] {
      dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
      execl(kProgram, kProgram, "--upstream=127.0.0.1:1", option, static_cast<char*>(nullptr));
    });
    EXPECT_EQ(result.exitCode(), 1) << option << result;
  }
}

TEST_F(tcp_proxyTest, HelpAndVersionGoToStandardOutput) {
  const ChildResult help = runProgram({kProgram, "--help"});
  EXPECT_EQ(help.exitCode(), 0);
  EXPECT_THAT(help.out, StartsWith("Usage: tcp_proxy --listen"));
  EXPECT_EQ(help.err, "");
  const ChildResult version = runProgram({kProgram, "--version"});
  EXPECT_EQ(version.exitCode(), 0);
  EXPECT_THAT(version.out, MatchesRegex("tcp_proxy [0-9.]+\n"));
}

struct WrongUsage {
  const char* name;
  std::vector<std::string> arguments;
  const char* complaint;
};

void PrintTo(const WrongUsage& usage, std::ostream* to) {
  *to << usage.name;
}

class tcp_proxyUsageTest : public PrivateWorld, public testing::WithParamInterface<WrongUsage> {};

TEST_P(tcp_proxyUsageTest, ExitsWithTwoAndSaysWhy) {
  std::vector<std::string> argv = {kProgram};
  argv.insert(argv.end(), GetParam().arguments.begin(), GetParam().arguments.end());
  const ChildResult result = runProgram(argv);
  EXPECT_EQ(result.exitCode(), 2) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err,
              AllOf(HasSubstr(GetParam().complaint), EndsWith("Try 'tcp_proxy --help'.\n")));
}

constexpr char kUpstream[] = "--upstream=127.0.0.1:1";
constexpr char kNoDirectory[] = "not a directory name without blanks, of 1 to 900 bytes: ";
constexpr char kNoConnections[] = "not a number of connections, 1 to 60000: ";
constexpr char kNoAddress[] = "not an IPv4 address and port: ";

INSTANTIATE_TEST_SUITE_P(
    Usage, tcp_proxyUsageTest,
    testing::Values(
        WrongUsage{"Nothing", {}, "--listen is missing"},
        WrongUsage{"NoListen", {kUpstream}, "--listen is missing"},
        WrongUsage{"NoUpstream", {"--listen=127.0.0.1:0"}, "--upstream is missing"},
        WrongUsage{"NoValue", {kUpstream, "--listen"}, "requires an argument"},
        WrongUsage{"UnknownOption", {"--frobnicate"}, "unrecognized option"},
        WrongUsage{"Operand", {kUpstream, "--listen=127.0.0.1:0", "x"}, "unexpected argument: x"},
        WrongUsage{"NoPort", {"--listen=127.0.0.1"}, kNoAddress},
        WrongUsage{"EmptyPort", {"--listen=127.0.0.1:"}, kNoAddress},
        WrongUsage{"PortTooHigh", {"--listen=127.0.0.1:65536"}, kNoAddress},
        WrongUsage{"NegativePort", {"--listen=127.0.0.1:-1"}, kNoAddress},
        WrongUsage{"BytesBehindThePort", {"--listen=127.0.0.1:80x"}, kNoAddress},
        WrongUsage{"HostName", {"--listen=localhost:80"}, kNoAddress},
        WrongUsage{"ShortQuad", {"--listen=127.1:80"}, kNoAddress},
        WrongUsage{
            "CrashAction", {kUpstream, "--crash-action=panic"}, "not an action after a crash: "},
        WrongUsage{"NoConnections", {kUpstream, "--connections=0"}, kNoConnections},
        WrongUsage{"TooManyConnections", {kUpstream, "--connections=60001"}, kNoConnections},
        WrongUsage{"BytesBehindConnections", {kUpstream, "--connections=1x"}, kNoConnections},
        WrongUsage{"EmptyConnections", {kUpstream, "--connections="}, kNoConnections},
        WrongUsage{"EmptyAddress", {"--upstream="}, kNoAddress},
        WrongUsage{"UpstreamPortZero", {"--upstream=127.0.0.1:0"}, "no port to connect to: "},
        WrongUsage{"TwoUpstreams",
                   {kUpstream, "--listen=127.0.0.1:0", "--spawn-upstream"},
                   "--upstream and --spawn-upstream exclude each other"},
        WrongUsage{"EmptyDirectory", {"--spawn-upstream="}, kNoDirectory},
        WrongUsage{"DirectoryWithABlank", {"--spawn-upstream=/tmp/a b"}, kNoDirectory},
        WrongUsage{
            "DirectoryTooLong", {"--spawn-upstream=" + std::string(901, 'x')}, kNoDirectory}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
