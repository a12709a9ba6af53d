// What the proxy takes from files: its settings, its routes, and the playlists that pass through.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "tcp_proxy_fixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kSettingsFile[] = "/local/local1/elc/box.elc";
constexpr char kRoutesFile[] = "/tmp/routes";
constexpr char kListen[] = "--listen=127.0.0.1:0";
constexpr char kUpstream[] = "--upstream=127.0.0.1:1";

ChildResult run(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return runProgram(arguments);
}

class tcp_proxyConfigTest : public tcp_proxyTest {
 protected:
  tcp_proxyConfigTest() {
    cover("/local/local1");
    std::filesystem::create_directory("/local/local1/elc");
  }

  // What the proxy would run with.
  static std::string checked(std::vector<std::string> arguments) {
    arguments.emplace_back("--check");
    const ChildResult result = run(arguments);
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.err, "");
    return result.out;
  }

  // Runs it and checks that it is refused for that reason.
  static void expectRefused(const std::vector<std::string>& arguments, const std::string& reason) {
    const ChildResult result = run(arguments);
    EXPECT_EQ(result.exitCode(), 2) << result;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "tcp_proxy: " + reason + "\nTry 'tcp_proxy --help'.\n");
  }
};

// ---- Settings ----

TEST_F(tcp_proxyConfigTest, CheckShowsDefaultsAsSuch) {
  EXPECT_EQ(checked({"--listen=127.0.0.1:80", "--upstream=127.0.0.1:81"}),
            "listen: 127.0.0.1:80 (option)\n"
            "upstream: 127.0.0.1:81 (option)\n"
            "spawn-upstream: none (default)\n"
            "routes: none (default)\n"
            "prefix: none (default)\n"
            "digests: no (default)\n"
            "name: tcp_proxy (default)\n"
            "connections: 512 (default)\n"
            "crash-action: coredump (default)\n"
            "crash-on-signal: no (default)\n"
            "route default -> 127.0.0.1:81\n");
}

constexpr char kAllSettings[] =
    "# a whole box\n"
    "listen 127.0.0.1:80\n"
    "upstream 127.0.0.1:81\n"
    "routes /tmp/routes\n"
    "prefix http://127.0.0.1:80/?u=\n"
    "digests true\n"
    "name \"the box\"\n"
    "connections 0x10\n"
    "crash_action none\n"
    "crash_on_signal YES\n";

TEST_F(tcp_proxyConfigTest, CheckShowsEverySettingOfTheFile) {
  write(kSettingsFile, kAllSettings);
  write(kRoutesFile, "127.0.0.7=127.0.0.1:82\n");
  EXPECT_EQ(checked({"--elc=box"}),
            "settings file: /local/local1/elc/box.elc\n"
            "listen: 127.0.0.1:80 (file)\n"
            "upstream: 127.0.0.1:81 (file)\n"
            "spawn-upstream: none (default)\n"
            "routes: /tmp/routes (file)\n"
            "prefix: http://127.0.0.1:80/?u= (file)\n"
            "digests: yes (file)\n"
            "name: the box (file)\n"
            "connections: 16 (file)\n"
            "crash-action: none (file)\n"
            "crash-on-signal: yes (file)\n"
            "route 127.0.0.7/32 -> 127.0.0.1:82\n"
            "route default -> 127.0.0.1:81\n");
}

TEST_F(tcp_proxyConfigTest, OptionsWinOverTheFileWhereverTheyStand) {
  write(kSettingsFile, kAllSettings);
  EXPECT_EQ(checked({"--listen=127.0.0.1:90", "--prefix=", "--crash-on-signal", "--elc=box",
                     "--upstream=127.0.0.1:91", "--routes=", "--digests=no", "--name=other",
                     "--connections=3", "--crash-action=debug"}),
            "settings file: /local/local1/elc/box.elc\n"
            "listen: 127.0.0.1:90 (option)\n"
            "upstream: 127.0.0.1:91 (option)\n"
            "spawn-upstream: none (default)\n"
            "routes: none (option)\n"
            "prefix: none (option)\n"
            "digests: no (option)\n"
            "name: other (option)\n"
            "connections: 3 (option)\n"
            "crash-action: debug (option)\n"
            "crash-on-signal: yes (option)\n"
            "route default -> 127.0.0.1:91\n");
}

TEST_F(tcp_proxyConfigTest, OptionHidesAWrongValueInTheFile) {
  write(kSettingsFile, "connections 0\nlisten nowhere\n");
  EXPECT_THAT(checked({"--elc=box", "--connections=5", kListen, kUpstream}),
              HasSubstr("connections: 5 (option)\n"));
}

TEST_F(tcp_proxyConfigTest, ServerOfItsOwnReplacesTheUpstreamOfTheFile) {
  write(kSettingsFile, "listen 127.0.0.1:80\nupstream 127.0.0.1:81\n");
  const std::string report = checked({"--elc=box", "--spawn-upstream"});
  EXPECT_THAT(report, HasSubstr("spawn-upstream: the working directory (option)\n"));
  EXPECT_THAT(report, EndsWith("route default -> 127.0.0.1:8008\n"));
}

TEST_F(tcp_proxyConfigTest, FileThatIsNotThereChangesNothing) {
  const std::string report = checked({"--elc=box", kListen, kUpstream});
  EXPECT_THAT(report, testing::StartsWith("settings file: /local/local1/elc/box.elc (not there)\n"
                                          "listen: 127.0.0.1:0 (option)\n"));
}

TEST_F(tcp_proxyConfigTest, RunsWithTheSettingsOfTheFileAlone) {
  const Socket upstream = listening();
  write(kSettingsFile, "listen 127.0.0.1:7001\nname fromfile\nupstream 127.0.0.1:" +
                           std::to_string(upstream.port()) + "\n");
  Child proxy({kProgram, "--elc=box"});
  ASSERT_TRUE(proxy.waitForOut("listening on 127.0.0.1:7001\n"));
  setLevel(2);
  const Socket client = connected(7001);
  const Socket server = upstream.accepted();
  client.send("through");
  EXPECT_EQ(server.receive(7), "through");
  EXPECT_THAT(log().nextLine(), testing::StartsWith("fromfile("));
}

TEST_F(tcp_proxyConfigTest, CrashesOnTheSignalAsTheFileSays) {
  write(kSettingsFile, "crash_on_signal true\ncrash_action none\n");
  removeLog();  // more lines than its socket holds
  Proxy proxy({kUpstream, "--elc=box"});
  proxy.child().signal(SIGUSR2);
  const ChildResult result = proxy.child().wait();
  EXPECT_EQ(result.signal(), SIGQUIT) << result;
  EXPECT_THAT(result.err, HasSubstr("-> SIGNAL 11 (Segmentation fault)\n"));
}

TEST_F(tcp_proxyConfigTest, OptionTakesTheCrashOnTheSignalBack) {
  write(kSettingsFile, "crash_on_signal true\n");
  EXPECT_THAT(checked({"--elc=box", "--crash-on-signal=no", kListen, kUpstream}),
              HasSubstr("crash-on-signal: no (option)\n"));
  expectRefused({"--crash-on-signal=maybe", kListen, kUpstream}, "not yes or no: maybe");
}

TEST_F(tcp_proxyConfigTest, DigestsAreAskedForWithOrWithoutAWord) {
  for (const std::string option : {"--digests", "--digests=yes"})
    EXPECT_THAT(checked({option, kListen, kUpstream}), HasSubstr("digests: yes (option)\n"));
  expectRefused({"--digests=md5", kListen, kUpstream}, "not yes or no: md5");
}

TEST_F(tcp_proxyConfigTest, NameOfTheFileMustNotBeCutOrLeadElsewhere) {
  write("/local/local1/elc/ninechars.elc", "listen 127.0.0.1:80\n");
  EXPECT_THAT(checked({"--elc=ninechars", kUpstream}), HasSubstr("listen: 127.0.0.1:80 (file)\n"));
  for (const std::string name : {"", "tencharact", "../box"})
    expectRefused({"--elc=" + name},
                  "not the name of a settings file, of 1 to 9 characters: " + name);
}

TEST_F(tcp_proxyConfigTest, CheckThatCannotBeWrittenExitsWithOne) {
  const ChildResult result = runInChild([] {
    dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
    execl(kProgram, kProgram, kListen, kUpstream, "--check", static_cast<char*>(nullptr));
  });
  EXPECT_EQ(result.exitCode(), 1) << result;
}

TEST_F(tcp_proxyConfigTest, CheckTakesNoPortAndLogsNothing) {
  const Socket taken = listening();
  checked({"--listen=127.0.0.1:" + std::to_string(taken.port()), kUpstream});
  EXPECT_EQ(log().waiting().size(), 0U);
}

struct WrongFile {
  const char* name;
  std::string text;
  std::string reason;
};

void PrintTo(const WrongFile& file, std::ostream* to) {
  *to << file.name;
}

const auto nameOfRow = [](const auto& row) { return std::string(row.param.name); };

class tcp_proxySettingsFileTest : public tcp_proxyConfigTest,
                                  public testing::WithParamInterface<WrongFile> {};

TEST_P(tcp_proxySettingsFileTest, IsRefusedWithItsPlaceEvenByACheck) {
  write(kSettingsFile, GetParam().text);
  const std::string reason = kSettingsFile + GetParam().reason;
  expectRefused({"--elc=box", kListen, kUpstream}, reason);
  expectRefused({"--elc=box", kListen, kUpstream, "--check"}, reason);
}

constexpr char kNoPrefix[] =
    ": not a prefix of links, at most 1000 characters without blanks, quotes and angle brackets: ";

INSTANTIATE_TEST_SUITE_P(
    Wrong, tcp_proxySettingsFileTest,
    testing::Values(
        WrongFile{"UnknownName", "name x\n Listen 127.0.0.1:80\n", ":2:2: Unknown ELC name"},
        WrongFile{"NoValue", "name", ":1:5: Missing value"},
        WrongFile{"NoNumber", "connections many\n", ":1:13: Invalid number"},
        WrongFile{"NoBoolean", "crash_on_signal maybe\n", ":1:17: Invalid boolean"},
        WrongFile{"OpenQuote", "name \"x\n", ":1:9: Missing '\"'"},
        WrongFile{"Connections", "connections 60001\n",
                  ": not a number of connections, 1 to 60000: 60001"},
        WrongFile{"NegativeConnections", "connections -1\n",
                  ": not a number of connections, 1 to 60000: 4294967295"},
        WrongFile{"CrashAction", "crash_action panic\n", ": not an action after a crash: panic"},
        WrongFile{"QuoteInPrefix", "prefix \"http://a/\"b\"\n",
                  std::string(kNoPrefix) + "http://a/\"b"},
        WrongFile{"BlankInPrefix", "prefix \"http://a/ b\"\n",
                  std::string(kNoPrefix) + "http://a/ b"}),
    nameOfRow);

TEST_F(tcp_proxyConfigTest, AddressesOfTheFileAreCheckedLikeThoseOfOptions) {
  const std::string place = std::string(kSettingsFile) + ": ";
  write(kSettingsFile, "listen 127.0.0.1\n");
  expectRefused({"--elc=box", kUpstream}, place + "not an IPv4 address and port: 127.0.0.1");
  write(kSettingsFile, "upstream 127.0.0.1:0\n");
  expectRefused({"--elc=box", kListen}, place + "no port to connect to: 127.0.0.1:0");
}

TEST_F(tcp_proxyConfigTest, PrefixOptionIsChecked) {
  for (const std::string& prefix : {std::string("<"), std::string("it's"), std::string("\t"),
                                    std::string("\x80"), std::string(1001, 'x')})
    expectRefused({kListen, kUpstream, "--prefix=" + prefix}, kNoPrefix + 2 + prefix);
  (void)checked({kListen, kUpstream, "--prefix=" + std::string(1000, 'x')});
}

// ---- Routes ----

// Which of the servers gets the connection of a client that comes from `source`.
size_t serverOf(const Proxy& proxy, const std::string& source, const std::vector<Socket>& servers) {
  const Socket client = proxy.client(source);
  std::vector<pollfd> waiting;
  for (const Socket& server : servers) waiting.push_back({server.fd(), POLLIN, 0});
  EXPECT_GT(poll(waiting.data(), waiting.size(), kPatience * 1000), 0) << source;
  for (size_t i = 0; i < servers.size(); ++i) {
    if (waiting[i].revents == 0) continue;
    (void)servers[i].accepted();
    return i;
  }
  return servers.size();
}

std::vector<Socket> someServers(size_t count) {
  std::vector<Socket> servers;
  while (servers.size() < count) servers.push_back(listening());
  return servers;
}

std::string routeTo(const std::string& client, const Socket& server) {
  return client + "=127.0.0.1:" + std::to_string(server.port()) + "\n";
}

TEST_F(tcp_proxyConfigTest, ClientsGetTheServerOfTheLongestNetworkThatTheyAreIn) {
  const std::vector<Socket> servers = someServers(6);
  // In the order of the keys a shorter network may come before or behind a longer one.
  write(kRoutesFile, "# who goes where\n\n" + routeTo("127.9.0.0/16", servers[1]) +
                         routeTo("127.9.8.0/24", servers[2]) + routeTo("127.9.8.7", servers[3]) +
                         routeTo("127.9.8.128/25", servers[4]) +
                         routeTo("127.0.0.2/32", servers[5]));
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(servers[0].port()),
               std::string("--routes=") + kRoutesFile});
  const std::pair<const char*, size_t> expected[] = {
      {"127.0.0.1", 0},   {"127.0.0.2", 5}, {"127.0.0.3", 0},     {"127.8.255.255", 0},
      {"127.9.0.1", 1},   {"127.9.8.1", 2}, {"127.9.8.7", 3},     {"127.9.8.127", 2},
      {"127.9.8.128", 4}, {"127.9.9.7", 1}, {"127.9.255.254", 1}, {"127.10.0.1", 0}};
  for (const auto& [source, server] : expected)
    EXPECT_EQ(serverOf(proxy, source, servers), server) << source;
  proxy.stop();
}

TEST_F(tcp_proxyConfigTest, DefaultRouteComesBeforeTheUpstreamThatIsSet) {
  const std::vector<Socket> servers = someServers(3);
  for (const std::string name : {"default", "0.0.0.0/0"}) {
    write(kRoutesFile, routeTo("127.0.0.2", servers[1]) + routeTo(name, servers[2]));
    Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(servers[0].port()),
                 std::string("--routes=") + kRoutesFile});
    EXPECT_EQ(serverOf(proxy, "127.0.0.2", servers), 1U);
    EXPECT_EQ(serverOf(proxy, "127.0.0.3", servers), 2U);
    proxy.stop();
  }
}

TEST_F(tcp_proxyConfigTest, WithADefaultRouteNoUpstreamNeedsToBeSet) {
  const std::vector<Socket> servers = someServers(1);
  write(kRoutesFile, routeTo("default", servers[0]));
  Proxy proxy({std::string("--routes=") + kRoutesFile});
  EXPECT_EQ(serverOf(proxy, "127.0.0.3", servers), 0U);
  proxy.stop();
}

TEST_F(tcp_proxyConfigTest, WithoutADefaultRouteAnUpstreamMustBeSet) {
  write(kRoutesFile, "127.0.0.0/8=127.0.0.1:1\n");
  expectRefused({kListen, std::string("--routes=") + kRoutesFile}, "--upstream is missing");
}

TEST_F(tcp_proxyConfigTest, LogShowsTheServerThatWasChosen) {
  const Socket upstream = listening();
  write(kRoutesFile, routeTo("127.0.0.5", upstream));
  write(kSettingsFile, std::string("routes ") + kRoutesFile + "\n");
  Proxy proxy({kUpstream, "--elc=box"});
  setLevel(2);
  const Socket client = proxy.client("127.0.0.5");
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy.line("TRCE", "connection",
                                      "opened " + localAddress(client) +
                                          " -> 127.0.0.1:" + std::to_string(upstream.port()))));
  const Socket server = upstream.accepted();
  proxy.stop();
}

TEST_F(tcp_proxyConfigTest, CheckShowsRoutesInTheOrderInWhichTheyAreTried) {
  write(kRoutesFile,
        "10.0.0.0/8=127.0.0.1:1\n9.9.9.9=127.0.0.1:2\ndefault=127.0.0.1:3\n"
        "10.1.0.0/16=127.0.0.1:4\n10.0.0.1=127.0.0.1:5\n128.0.0.0/1=127.0.0.1:6\n");
  EXPECT_THAT(checked({kListen, std::string("--routes=") + kRoutesFile}),
              EndsWith("routes: /tmp/routes (option)\n"
                       "prefix: none (default)\n"
                       "digests: no (default)\n"
                       "name: tcp_proxy (default)\n"
                       "connections: 512 (default)\n"
                       "crash-action: coredump (default)\n"
                       "crash-on-signal: no (default)\n"
                       "route 9.9.9.9/32 -> 127.0.0.1:2\n"
                       "route 10.0.0.1/32 -> 127.0.0.1:5\n"
                       "route 10.1.0.0/16 -> 127.0.0.1:4\n"
                       "route 10.0.0.0/8 -> 127.0.0.1:1\n"
                       "route 128.0.0.0/1 -> 127.0.0.1:6\n"
                       "route default -> 127.0.0.1:3\n"));
}

TEST_F(tcp_proxyConfigTest, RoutesFileThatCannotBeReadIsRefused) {
  expectRefused({kListen, kUpstream, "--routes=/tmp/gone"}, "/tmp/gone: No such file or directory");
  expectRefused({kListen, kUpstream, "--routes=/tmp"}, "/tmp: cannot be read");
}

class tcp_proxyRoutesFileTest : public tcp_proxyConfigTest,
                                public testing::WithParamInterface<WrongFile> {};

TEST_P(tcp_proxyRoutesFileTest, IsRefusedWithItsWrongEntry) {
  write(kRoutesFile, GetParam().text);
  expectRefused({kListen, kUpstream, std::string("--routes=") + kRoutesFile},
                kRoutesFile + (": " + GetParam().reason));
}

WrongFile wrongClient(const char* name, const std::string& client) {
  return {name, client + "=127.0.0.1:1\n",
          "not an IPv4 address, network or \"default\": \"" + client + "\""};
}

WrongFile wrongServer(const char* name, const std::string& server) {
  return {name, "default=" + server + "\n",
          "not an IPv4 address and port for \"default\": \"" + server + "\""};
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, tcp_proxyRoutesFileTest,
    testing::Values(
        wrongClient("HostName", "localhost"), wrongClient("ShortQuad", "127.1"),
        wrongClient("NumberTooHigh", "127.0.0.256"), wrongClient("NoLength", "127.0.0.0/"),
        wrongClient("LengthTooHigh", "127.0.0.0/33"), wrongClient("NegativeLength", "127.0.0.0/-1"),
        wrongClient("BytesBehindTheLength", "127.0.0.0/8x"), wrongClient("Upper", "Default"),
        wrongClient("BlankBehind", "127.0.0.1 "), wrongClient("PortOfAClient", "127.0.0.1:1"),
        wrongServer("NoPort", "127.0.0.1"), wrongServer("PortZero", "127.0.0.1:0"),
        wrongServer("NoServer", ""), wrongServer("BlankBefore", " 127.0.0.1:1"),
        WrongFile{"NoEqualsSign", "127.0.0.1\n",
                  "not an IPv4 address and port for \"127.0.0.1\": \"127.0.0.1\""},
        WrongFile{"BitsBehindTheLength", "127.0.0.1/8=127.0.0.1:1\n",
                  "bits are set behind the network's length: \"127.0.0.1/8\""},
        WrongFile{"SameNetworkTwice", "127.0.0.1=127.0.0.1:1\n127.0.0.1/32=127.0.0.1:2\n",
                  "two routes for 127.0.0.1/32"},
        WrongFile{"TwoDefaults", "default=127.0.0.1:1\n0.0.0.0/0=127.0.0.1:1\n",
                  "two routes for default"},
        WrongFile{"LongLine", "#" + std::string(1023, '#') + "\ndefault=127.0.0.1:1\n",
                  "a line is longer than 1023 characters"}),
    nameOfRow);

// ---- Playlists ----

constexpr char kPrefix[] = "http://box/?u=";

constexpr char kSmil[] =
    "<smil><body><video src=\"http://a/1.rm?s=0\"/><audio src='RTSP://a/2.rm'/>"
    "<img src=\"3.gif\"/><ref src=\"https://a/4\"/><a href=\"mms://b/5\"></a></body></smil>\n";
constexpr char kNewSmil[] =
    "<smil><body><video src=\"http://box/?u=http://a/1.rm?s=0\"/>"
    "<audio src='http://box/?u=RTSP://a/2.rm'/><img src=\"3.gif\"/><ref src=\"https://a/4\"/>"
    "<a href=\"http://box/?u=mms://b/5\"></a></body></smil>\n";
constexpr char kAsx[] = "<ASX><Entry><Ref HREF = \"mms://a/1.asf\"/></Entry></ASX>\n";
constexpr char kNewAsx[] =
    "<ASX><Entry><Ref HREF = \"http://box/?u=mms://a/1.asf\"/></Entry></ASX>\n";

std::string get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n";
}

// With the fields that are given, each with its line end.
std::string answer(const std::string& body, const std::string& fields = "",
                   const std::string& status = "200 OK") {
  return "HTTP/1.1 " + status + "\r\n" + fields + "Content-Length: " + std::to_string(body.size()) +
         "\r\nServer: s\r\n\r\n" + body;
}

std::string typed(const std::string& type) {
  return "Content-Type: " + type + "\r\n";
}

const std::string kSmilType = typed("application/smil");

class tcp_proxyPlaylistTest : public tcp_proxyTest {
 protected:
  // One request and what is answered arrive, the latter as `expected`.
  void exchange(const std::string& request, const std::string& response,
                const std::string& expected) const {
    client_.send(request);
    // To receive nothing would be to wait for something.
    if (!request.empty()) {
      ASSERT_EQ(server_.receive(request.size()), request);
    }
    server_.send(response);
    const std::string got = client_.receive(expected.size());
    if (got.size() + expected.size() < 10000)
      EXPECT_EQ(got, expected);
    else
      EXPECT_TRUE(got == expected);
  }
  void passes(const std::string& request, const std::string& response) const {
    exchange(request, response, response);
  }
  // That the connection is still understood.
  void playlistIsRewritten() const {
    exchange(get("/last"), answer(kSmil, kSmilType), answer(kNewSmil, kSmilType));
  }
  // Nothing but that has arrived.
  void end() {
    client_.endOutput();
    EXPECT_EQ(server_.ending(), 0);
    server_.endOutput();
    EXPECT_EQ(client_.ending(), 0);
    proxy_.stop();
  }
  void reconnect() {
    client_ = proxy_.client();
    server_ = upstream_.accepted();
  }
  // Waits until the proxy has dealt with all that was sent.
  void settles(const Socket& sender) const {
    ASSERT_TRUE(eventually([&] { return sender.unacknowledged() == 0 && proxy_.sleeps(); }));
  }
  // Sends byte by byte, each taken before the next one comes.
  void sendSlowly(const Socket& sender, const std::string& text) const {
    for (const char c : text) {
      sender.send(std::string(1, c));
      settles(sender);
    }
  }

  const Socket upstream_ = listening();
  Proxy proxy_{{"--upstream=127.0.0.1:" + std::to_string(upstream_.port()),
                std::string("--prefix=") + kPrefix}};
  Socket client_ = proxy_.client();
  Socket server_ = upstream_.accepted();
};

TEST_F(tcp_proxyPlaylistTest, AbsoluteLinksOfASmilPlaylistGetThePrefix) {
  exchange(get("/x"), answer(kSmil, kSmilType), answer(kNewSmil, kSmilType));
  end();
}

TEST_F(tcp_proxyPlaylistTest, AbsoluteLinksOfAnAsxPlaylistGetThePrefix) {
  const std::string type = typed("video/x-ms-asf");
  exchange(get("/x"), answer(kAsx, type), answer(kNewAsx, type));
  end();
}

TEST_F(tcp_proxyPlaylistTest, WithoutAPrefixPlaylistsPass) {
  Proxy plain(upstream_.port());
  client_ = plain.client();
  server_ = upstream_.accepted();
  passes(get("/x.smil"), answer(kSmil, kSmilType));
  plain.stop();
}

struct Told {
  const char* name;
  std::string text;
  enum { kNothing, kSmilPlaylist, kAsxPlaylist } what;
};

void PrintTo(const Told& told, std::ostream* to) {
  *to << told.name;
}

// Both kinds of link elements: what is rewritten tells what it was taken for.
constexpr char kBoth[] = "<a href=\"http://a/\"/><entryref href=\"http://b/\"/>";

std::string expectedOf(const Told& told) {
  switch (told.what) {
    case Told::kSmilPlaylist:
      return "<a href=\"http://box/?u=http://a/\"/><entryref href=\"http://b/\"/>";
    case Told::kAsxPlaylist:
      return "<a href=\"http://a/\"/><entryref href=\"http://box/?u=http://b/\"/>";
    default:
      return kBoth;
  }
}

class tcp_proxyPlaylistTypeTest : public tcp_proxyPlaylistTest,
                                  public testing::WithParamInterface<Told> {};

TEST_P(tcp_proxyPlaylistTypeTest, TellsWhatItIs) {
  const std::string type = typed(GetParam().text);
  exchange(get("/x"), answer(kBoth, type), answer(expectedOf(GetParam()), type));
  playlistIsRewritten();
  end();
}

INSTANTIATE_TEST_SUITE_P(
    Types, tcp_proxyPlaylistTypeTest,
    testing::Values(Told{"Smil", "application/smil", Told::kSmilPlaylist},
                    Told{"SmilXml", "application/smil+xml", Told::kSmilPlaylist},
                    Told{"Parameter", "application/smil ; charset=utf-8", Told::kSmilPlaylist},
                    Told{"AnyCase", "Application/SMIL", Told::kSmilPlaylist},
                    Told{"Asf", "video/x-ms-asf", Told::kAsxPlaylist},
                    Told{"VideoWax", "video/x-ms-wax", Told::kAsxPlaylist},
                    Told{"Wvx", "video/x-ms-wvx", Told::kAsxPlaylist},
                    Told{"AudioWax", "audio/x-ms-wax", Told::kAsxPlaylist},
                    Told{"Plain", "text/plain", Told::kNothing},
                    Told{"Xml", "text/xml", Told::kNothing},
                    Told{"LongerName", "application/smile", Told::kNothing},
                    Told{"Empty", "", Told::kNothing}),
    nameOfRow);

class tcp_proxyPlaylistNameTest : public tcp_proxyPlaylistTest,
                                  public testing::WithParamInterface<Told> {};

TEST_P(tcp_proxyPlaylistNameTest, TellsWhatItIs) {
  const std::string type = typed("text/plain");
  exchange(get(GetParam().text), answer(kBoth, type), answer(expectedOf(GetParam()), type));
  exchange(get(GetParam().text), answer(kBoth), answer(expectedOf(GetParam())));
  playlistIsRewritten();
  end();
}

INSTANTIATE_TEST_SUITE_P(Names, tcp_proxyPlaylistNameTest,
                         testing::Values(Told{"Smil", "/a.smil", Told::kSmilPlaylist},
                                         Told{"Smi", "/a.smi", Told::kSmilPlaylist},
                                         Told{"Asx", "/a.asx", Told::kAsxPlaylist},
                                         Told{"Wax", "/a.wax", Told::kAsxPlaylist},
                                         Told{"Wvx", "/a.wvx", Told::kAsxPlaylist},
                                         Told{"AnyCase", "/A.ASX", Told::kAsxPlaylist},
                                         Told{"WholeUrl", "http://a/b/c.asx", Told::kAsxPlaylist},
                                         Told{"Query", "/a.asx?b=c.mp3", Told::kAsxPlaylist},
                                         Told{"OnlyInTheQuery", "/a.mp3?b=c.asx", Told::kNothing},
                                         Told{"NotAtTheEnd", "/a.asx/b", Told::kNothing},
                                         Told{"WithoutADot", "/asx", Told::kNothing}),
                         nameOfRow);

TEST_F(tcp_proxyPlaylistTest, TypeCountsMoreThanTheName) {
  exchange(get("/a.asx"), answer(kSmil, kSmilType), answer(kNewSmil, kSmilType));
  end();
}

TEST_F(tcp_proxyPlaylistTest, ComesInSmallSegmentsAndIsRewrittenAsAWhole) {
  const std::string request = get("/x");
  sendSlowly(client_, request);
  EXPECT_EQ(server_.receive(request.size()), request);
  sendSlowly(server_, answer(kSmil, kSmilType));
  const std::string expected = answer(kNewSmil, kSmilType);
  EXPECT_EQ(client_.receive(expected.size()), expected);
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, SeveralResponsesOnOneConnectionAreEachTreatedAsTheyAre) {
  for (int i = 0; i < 3; ++i) {
    playlistIsRewritten();
    passes(get("/page"), answer("<a href=\"http://a/\">", typed("text/html")));
    passes(get("/empty.asx"), answer(""));
    exchange("POST /x.asx HTTP/1.1\r\nContent-Length: 5\r\n\r\nGET /", answer(kAsx),
             answer(kNewAsx));
  }
  end();
}

TEST_F(tcp_proxyPlaylistTest, RequestsThatDoNotWaitGetTheirResponsesInOrder) {
  const std::string page = answer(std::string(100000, 'x'));
  exchange(get("/1.asx") + "\r\n" + get("/2") + get("/3.smil") + get("/4"),
           answer(kAsx) + page + answer(kSmil) + answer(kSmil),
           answer(kNewAsx) + page + answer(kNewSmil) + answer(kSmil));
  end();
}

TEST_F(tcp_proxyPlaylistTest, StreamMayBeCutAnywhere) {
  const std::string requests = get("/1.asx") + get("/2") + get("/3.asx");
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n0\r\nA: b\r\n\r\n";
  const std::string responses = answer(kAsx) + chunked + answer(kAsx);
  const std::string expected = answer(kNewAsx) + chunked + answer(kNewAsx);
  for (size_t cut = 1; cut < responses.size(); ++cut) {
    reconnect();
    client_.send(requests);
    ASSERT_EQ(server_.receive(requests.size()), requests);
    server_.send(responses.substr(0, cut));
    settles(server_);
    server_.send(responses.substr(cut));
    server_.endOutput();
    ASSERT_EQ(client_.receiveAll(), expected) << cut;
  }
  proxy_.stop();
}

TEST_F(tcp_proxyPlaylistTest, ResponseToHeadHasNoBody) {
  passes("HEAD /x.smil HTTP/1.1\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Type: application/smil\r\nContent-Length: 100\r\n\r\n");
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, ChunkedPlaylistPasses) {
  passes(get("/x.smil"),
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n14\r\n<a href=\"http://a/\">\r\n"
         "00A ; x\r\n0123456789\r\n0\r\nTrailer: x\r\n\r\n");
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, ChunkedRequestIsFollowedToItsEnd) {
  exchange(
      "PUT /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nGET \r\n0\r\n\r\n" + get("/y.asx"),
      answer("", "", "204 No Content") + answer(kAsx),
      answer("", "", "204 No Content") + answer(kNewAsx));
  playlistIsRewritten();
  end();
}

class tcp_proxyPlaylistPassesTest : public tcp_proxyPlaylistTest,
                                    public testing::WithParamInterface<Told> {};

TEST_P(tcp_proxyPlaylistPassesTest, UnchangedAndTheNextOneIsRewritten) {
  passes(get("/x.smil"), GetParam().text);
  playlistIsRewritten();
  end();
}

INSTANTIATE_TEST_SUITE_P(
    Unchanged, tcp_proxyPlaylistPassesTest,
    testing::Values(
        Told{"Compressed", answer(kSmil, kSmilType + "Content-Encoding: gzip\r\n"), {}},
        Told{"Part", answer(kSmil, kSmilType, "206 Partial Content"), {}},
        Told{"NotFound", answer(kSmil, kSmilType, "404 Not Found"), {}},
        Told{"NotModified",
             "HTTP/1.1 304 Not Modified\r\nContent-Length: 100\r\n" + kSmilType + "\r\n",
             {}},
        Told{"NoQuotes", answer("<a href=\"http://a/\"/><a href=http://b/>", kSmilType), {}},
        Told{"EndsInAnElement", answer("<a href=\"http://a/\"/><video ", kSmilType), {}},
        Told{"ZeroByte", answer(kSmil + std::string(1, '\0') + kSmil, kSmilType), {}},
        Told{"NoLinks", answer("<smil></smil>", kSmilType), {}},
        Told{"LoneLineFeeds", "HTTP/1.0 200 OK\nContent-Length: 3\n\nabc", {}},
        Told{"Informational",
             "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\nA: b\r\n\r\n" + answer("x"),
             {}}),
    nameOfRow);

class tcp_proxyUnclearTest : public tcp_proxyPlaylistTest,
                             public testing::WithParamInterface<Told> {};

TEST_P(tcp_proxyUnclearTest, ResponsePassesAndSoDoesAllBehindIt) {
  passes(get("/x.smil"), GetParam().text);
  passes(get("/y.smil"), answer(kSmil, kSmilType));
  end();
}

INSTANTIATE_TEST_SUITE_P(
    Unclear, tcp_proxyUnclearTest,
    testing::Values(
        Told{"NoLength", "HTTP/1.1 200 OK\r\n" + kSmilType + "\r\n" + kSmil, {}},
        Told{"TwoLengths", answer(kSmil, "Content-Length: 3\r\n" + kSmilType), {}},
        Told{"LengthAndChunked",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n",
             {}},
        Told{"EmptyChunkSize", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n\r\n\r\n", {}},
        Told{"ControlByte", answer("x", "A: \x01\r\n"), {}},
        Told{"OtherEncoding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\nabc", {}},
        Told{"LengthNoNumber", "HTTP/1.1 200 OK\r\nContent-Length: 3x\r\n\r\nabc", {}},
        Told{"LengthTooHigh",
             "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551616\r\n\r\nabc",
             {}},
        Told{"NegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -3\r\n\r\nabc", {}},
        Told{"FoldedField", "HTTP/1.1 200 OK\r\nA: b\r\n c\r\nContent-Length: 1\r\n\r\nx", {}},
        Told{"BlankBeforeTheColon", answer("x", "A : b\r\n"), {}},
        Told{"NoColon", "HTTP/1.1 200 OK\r\nContent-Length\r\n\r\nx", {}},
        Told{"ChunkSizeNoNumber",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n",
             {}},
        Told{"ChunkSizeTooHigh",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1234567890123456\r\nabc",
             {}},
        Told{"ChunkTooLong",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabcd\r\n0\r\n\r\n",
             {}},
        Told{"OtherProtocol", "ICY 200 OK\r\n" + kSmilType + "Content-Length: 1\r\n\r\nx", {}},
        Told{"NoHeadAtAll", "220 hello", {}},
        Told{"OtherVersion", "HTTP/2.0 200 OK\r\nContent-Length: 1\r\n\r\nx", {}},
        Told{"StatusNoNumber", "HTTP/1.1 2x0 OK\r\nContent-Length: 1\r\n\r\nx", {}},
        Told{"EmptyLine", "\r\n" + answer(kSmil, kSmilType), {}},
        Told{"HeadTooLong", answer("x", "A: " + std::string(20000, 'a') + "\r\n"), {}},
        Told{"Upgrade", "HTTP/1.1 101 Switching Protocols\r\n\r\nHTTP/1.1 ", {}},
        Told{"OneTooMany", answer("x") + answer("y"), {}}),
    nameOfRow);

class tcp_proxyUnclearRequestTest : public tcp_proxyPlaylistTest,
                                    public testing::WithParamInterface<Told> {};

TEST_P(tcp_proxyUnclearRequestTest, ResponsesToThoseBeforeAreStillRewritten) {
  exchange(get("/1.smil") + GetParam().text, answer(kSmil), answer(kNewSmil));
  passes("", answer("x"));
  passes(get("/2.smil"), answer(kSmil));
  end();
}

INSTANTIATE_TEST_SUITE_P(
    Unclear, tcp_proxyUnclearRequestTest,
    testing::Values(
        Told{"Connect", "CONNECT a:1 HTTP/1.1\r\n\r\n", {}},
        Told{"OtherProtocol", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", {}},
        Told{"NoVersion", "GET /x.smil\r\n\r\n", {}},
        Told{"BlankInTheTarget", "GET /x y.smil HTTP/1.1\r\n\r\n", {}},
        Told{"TwoLengths", "PUT / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx", {}},
        Told{"LengthAndChunked",
             "PUT / HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
             {}},
        Told{"HeadTooLong", "GET / HTTP/1.1\r\nA: " + std::string(20000, 'a') + "\r\n\r\n", {}},
        Told{"ZeroByte", "GET / HTTP/1.1\r\nA: " + std::string(1, '\0') + "\r\n\r\n", {}}),
    nameOfRow);

TEST_F(tcp_proxyPlaylistTest, BodyThatTheServerHasToAskForEndsTheReadingOfRequests) {
  exchange("PUT /x.smil HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n",
           answer(kSmil), answer(kNewSmil));
  // Four bytes that may be the body, or empty lines in front of a request.
  passes("\r\n\r\n" + get("/y.smil"), answer(kSmil));
  end();
}

TEST_F(tcp_proxyPlaylistTest, MoreRequestsAtOnceThanAreKeptInMindLoseNothing) {
  std::string requests, responses, expected;
  for (int i = 0; i < 70; ++i) {
    requests += get("/x.asx");
    responses += answer(kAsx);
    expected += i < 64 ? answer(kNewAsx) : answer(kAsx);
  }
  exchange(requests, responses, expected);
  end();
}

TEST_F(tcp_proxyPlaylistTest, BytesOfOtherProtocolsPassInBothDirections) {
  const std::string up = "GET / HTTP/1.1\r\n" + randomBytes(3 << 20, 5);
  const std::string down = "HTTP/1." + randomBytes(3 << 20, 6);
  server_.send("220 hello\r\n");
  EXPECT_EQ(client_.receive(11), "220 hello\r\n");
  std::thread sender([&] {
    client_.send(up);
    client_.endOutput();
  });
  std::thread answerer([&] {
    server_.send(down);
    server_.endOutput();
  });
  std::string got_up;
  std::thread receiver([&] { got_up = server_.receiveAll(); });
  const std::string got_down = client_.receiveAll();
  for (std::thread* thread : {&sender, &answerer, &receiver}) thread->join();
  EXPECT_TRUE(got_up == up);
  EXPECT_TRUE(got_down == down);
  proxy_.stop();
}

TEST_F(tcp_proxyPlaylistTest, ServerThatEndsInTheMiddleLosesNothing) {
  const std::string response = answer(kSmil, kSmilType);
  for (const size_t size : {size_t{3}, response.find("\r\n") + 1, response.find(kSmil),
                            response.find(kSmil) + 20, response.size() - 1}) {
    reconnect();
    client_.send(get("/x"));
    EXPECT_EQ(server_.receive(get("/x").size()), get("/x"));
    server_.send(response.substr(0, size));
    server_.endOutput();
    EXPECT_EQ(client_.receiveAll(), response.substr(0, size));
  }
  proxy_.stop();
}

TEST_F(tcp_proxyPlaylistTest, WhatWasHeldBackArrivesBeforeTheResetOfTheServer) {
  const std::string response = answer(kSmil, kSmilType).substr(0, 150);
  client_.send(get("/x") + "unread");
  EXPECT_EQ(server_.receive(get("/x").size()), get("/x"));
  pollfd more = {server_.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&more, 1, kPatience * 1000), 1);
  server_.send(response);
  settles(server_);
  server_.reset();
  int err;
  EXPECT_EQ(client_.receiveAll(&err), response);
  EXPECT_EQ(err, ECONNRESET);
  proxy_.stop();
}

// A playlist of exactly that size.
std::string playlistOf(size_t size) {
  return kSmil + std::string(size - sizeof kSmil + 1, ' ');
}

TEST_F(tcp_proxyPlaylistTest, OneMebibyteIsRewrittenAndMoreIsNot) {
  constexpr size_t kMost = 1 << 20;
  const std::string filling(kMost - sizeof kSmil + 1, ' ');
  exchange(get("/x.smil"), answer(playlistOf(kMost)), answer(kNewSmil + filling));
  passes(get("/x.smil"), answer(playlistOf(kMost + 1)));
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, SlowReaderGetsALongPlaylistWholeInTheEnd) {
  // More than the kernel holds for a receiver that does not read.
  constexpr char kLink[] = "<a href=\"mms://b\">";
  constexpr char kNewLink[] = "<a href=\"http://box/?u=mms://b\">";
  std::string playlist, expected;
  for (int i = 0; i < 50000; ++i) {
    playlist += kLink;
    expected += kNewLink;
  }
  std::string requests, responses, all;
  for (int i = 0; i < 8; ++i) {
    requests += get("/x.smil");
    responses += answer(playlist);
    all += answer(expected);
  }
  client_.send(requests);
  EXPECT_EQ(server_.receive(requests.size()), requests);
  std::thread answerer([&] {
    server_.send(responses);
    server_.endOutput();
  });
  ASSERT_TRUE(eventually([&] { return unreadBytes(client_.port(), proxy_.port()) > 65536; }));
  EXPECT_TRUE(client_.receiveAll() == all);
  answerer.join();
  proxy_.stop();
}

TEST_F(tcp_proxyPlaylistTest, PlaylistThatWouldGrowTooLongPasses) {
  Proxy proxy({"--upstream=127.0.0.1:" + std::to_string(upstream_.port()),
               "--prefix=" + std::string(1000, 'p')});
  client_ = proxy.client();
  server_ = upstream_.accepted();
  std::string playlist, fitting;
  // The 4121st link is the one that goes beyond 4 MiB.
  for (int i = 0; i < 4120; ++i) {
    playlist += "<a href=\"mms://b\">";
    fitting += "<a href=\"" + std::string(1000, 'p') + "mms://b\">";
  }
  exchange(get("/x.smil"), answer(playlist), answer(fitting));
  passes(get("/x.smil"), answer(playlist + "<a href=\"mms://b\">"));
  proxy.stop();
}

TEST_F(tcp_proxyPlaylistTest, PlaylistsOfAllConnectionsTogetherAreBounded) {
  constexpr size_t kMost = 32;
  const std::string big = answer(playlistOf(1 << 20));
  std::vector<Socket> held;
  for (size_t i = 0; i < kMost; ++i) {
    held.push_back(proxy_.client());
    held.push_back(upstream_.accepted());
    held[2 * i].send(get("/x.smil"));
    EXPECT_EQ(held[2 * i + 1].receive(get("/x.smil").size()), get("/x.smil"));
    held[2 * i + 1].send(big.substr(0, 200));
    settles(held[2 * i + 1]);
  }
  passes(get("/x.smil"), answer(kSmil));
  held.pop_back();  // the last server goes, and the proxy lets go of its playlist
  EXPECT_EQ(held.back().receiveAll(), big.substr(0, 200));
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, WithoutDescriptorsForItPlaylistPassesAndTheLogTells) {
  playlistIsRewritten();  // so it is done with accepting, and has the next connection's socket
  rlimit none;
  ASSERT_EQ(prlimit(proxy_.pid(), RLIMIT_NOFILE, nullptr, &none), 0);
  none.rlim_cur = 0;
  ASSERT_EQ(prlimit(proxy_.pid(), RLIMIT_NOFILE, &none, nullptr), 0);
  passes(get("/x.smil"), answer(kSmil));
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy_.line("ERRO", "playlist", "playlist: Too many open files")));
  none.rlim_cur = 64;
  ASSERT_EQ(prlimit(proxy_.pid(), RLIMIT_NOFILE, &none, nullptr), 0);
  playlistIsRewritten();
  end();
}

TEST_F(tcp_proxyPlaylistTest, NoDescriptorIsLeftBehind) {
  playlistIsRewritten();  // so it is done with accepting, and has the next connection's socket
  const int before = proxy_.openDescriptors();
  for (int i = 0; i < 20; ++i) {
    playlistIsRewritten();
    passes(get("/x.smil"), answer("<a href=x>"));
  }
  EXPECT_EQ(proxy_.openDescriptors(), before);
  end();
}

TEST_F(tcp_proxyPlaylistTest, LevelTwoShowsWhatBecameOfPlaylists) {
  playlistIsRewritten();  // the connection has been logged, as far as the level asks for it
  setLevel(2);
  const std::string pair =
      localAddress(client_) + " -> 127.0.0.1:" + std::to_string(upstream_.port());
  exchange(get("/x.asx"), answer(kAsx), answer(kNewAsx));
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy_.line("TRCE", "playlist_filter",
                                       pair + ": playlist rewritten, [0-9]+ bytes with its head "
                                              "to [0-9]+")));
  passes(get("/x.smil"), answer("<a href=x>"));
  EXPECT_THAT(log().nextLine(),
              MatchesRegex(proxy_.line("TRCE", "playlist_filter",
                                       pair + ": playlist left as it is, [0-9]+ bytes with its "
                                              "head")));
  proxy_.stop();
}

}  // namespace
