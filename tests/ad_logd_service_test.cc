// The log daemon as a service: lines as JSON, copies to syslog, sockets that a service manager
// hands over, and records that outlive their socket.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/log_daemon.h"
#include "support/private_world.h"
#include "support/syslog_listener.h"
#include "velorin/ad_debug"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class ad_logdServiceTest : public PrivateWorld {
 protected:
  ad_logdServiceTest() { removeDaemon(); }

  // Waits for what nobody announces.
  static void waitUntil(const std::function<bool()>& done, const char* what) {
    const time_t limit = time(nullptr) + 20;
    while (!done()) {
      ASSERT_LT(time(nullptr), limit) << what;
      std::this_thread::yield();
    }
  }
};

// ---- JSON ----

class ad_logdJsonTest : public ad_logdServiceTest {
 protected:
  // Lets another JSON parser read the lines and prints what `statements` make of each object `d`.
  // It takes nothing but UTF-8 and refuses a name that comes twice.
  static Texts parsed(const std::string& json, const std::string& statements) {
    write("/tmp/lines.json", json);
    write("/tmp/parse.py",
          "import json\n"
          "def once(pairs):\n"
          "    assert len(dict(pairs)) == len(pairs), pairs\n"
          "    return dict(pairs)\n"
          "def original(d):\n"
          "    if 'raw' in d: return bytes.fromhex(d['raw'])\n"
          "    head = '' if d['tag'] is None else '%s(%d)%s:' % (d['process'] or '', d['pid'], "
          "d['tag'])\n"
          "    if head: head += ' ' if d['file'] is None else '%s:%d-> ' % (d['file'], d['line'])\n"
          "    return (head + d['text']).encode()\n"
          "data = open('/tmp/lines.json', 'rb').read()\n"
          "assert data.endswith(b'\\n')\n"
          "for line in data[:-1].split(b'\\n'):\n"
          "    d = json.loads(line.decode('utf-8', 'strict'), object_pairs_hook=once)\n"
          "    assert type(d) is dict\n"
          "    " +
              statements + "\n");
    const ChildResult result = runProgram({"/usr/bin/python3", "-I", "/tmp/parse.py"});
    EXPECT_EQ(result.exitCode(), 0) << result;
    return lines(result.out);
  }

  static std::string jsonOf(const Texts& datagrams, const Texts& environment = {}) {
    Texts arguments = {"--format=json"};
    if (environment.empty()) arguments.push_back("--utc");
    return linesOf(datagrams, arguments, environment);
  }

  // All of a line's values but its times.
  static Texts valuesOf(const Texts& datagrams) {
    return parsed(jsonOf(datagrams),
                  "print(*[ascii(v) for k, v in d.items() if k not in ('time', 'sent')])");
  }
};

TEST_F(ad_logdJsonTest, ALineIsOneObjectWithTheStatementsParts) {
  const std::string json =
      jsonOf({datagram("tcp_proxy(4711)TRCE:main.cc:120-> 10.0.0.7 connected\n")});
  EXPECT_THAT(json, StartsWith("{\"time\":\"20"));
  const size_t sent = json.find(",\"sent\"");
  ASSERT_NE(sent, std::string::npos) << json;
  EXPECT_EQ(json.substr(sent),
            ",\"sent\":\"2001-09-09T01:46:40.000123Z\",\"special\":false,\"malformed\":false,"
            "\"process\":\"tcp_proxy\",\"pid\":4711,\"tag\":\"TRCE\",\"file\":\"main.cc\","
            "\"line\":120,\"text\":\"10.0.0.7 connected\"}\n");
}

TEST_F(ad_logdJsonTest, TheTimeIsThatOfReceipt) {
  const time_t before = time(nullptr);
  const Texts times = parsed(jsonOf({datagram("a"), "malformed"}),
                             "import datetime; t = datetime.datetime.fromisoformat("
                             "d['time'].replace('Z', '+00:00')); print(int(t.timestamp()))");
  const time_t after = time(nullptr);
  ASSERT_THAT(times, SizeIs(2));
  for (const std::string& text : times) {
    EXPECT_GE(std::stoll(text), before);
    EXPECT_LE(std::stoll(text), after);
  }
}

TEST_F(ad_logdJsonTest, LocalTimesCarryTheirOffset) {
  struct {
    const char* zone;
    const char* sent;
  } const rows[] = {{"CET-1CEST,M3.5.0,M10.5.0/3", "2001-09-09T03:46:40.000123+02:00"},
                    {"NST3:30", "2001-09-08T22:16:40.000123-03:30"},
                    {"UTC0", "2001-09-09T01:46:40.000123+00:00"},
                    {"ODD-1:02:03", "2001-09-09T02:48:43.000123+01:02:03"}};
  for (const auto& row : rows) {
    const std::string json = jsonOf({datagram("a")}, {std::string("TZ=") + row.zone});
    EXPECT_THAT(parsed(json, "print(d['sent'])"), ElementsAre(row.sent)) << row.zone;
  }
}

TEST_F(ad_logdJsonTest, MicrosecondsThatAreNoneStandByThemselves) {
  EXPECT_THAT(parsed(jsonOf({datagram("a", kSecond, 999999), datagram("b", kSecond, 1000000),
                             datagram("c", 0xffffffff, 0xffffffff)}),
                     "print(d['sent'], d.get('sent_usec'))"),
              ElementsAre("2001-09-09T01:46:40.999999Z None", "2001-09-09T01:46:40Z 1000000",
                          "2106-02-07T06:28:15Z 4294967295"));
}

TEST_F(ad_logdJsonTest, PartsAreFoundWhereAStatementHasThem) {
  struct {
    const char* name;
    std::string text;
    const char* values;  // special, malformed, process, pid, tag, file, line, text
  } const rows[] = {
      {"no process", "(12)ERRO:a.c:3-> hi\n", "False False None 12 'ERRO' 'a.c' 3 'hi'"},
      {"empty text", "p(12)CRTC:a.c:3-> ", "False False 'p' 12 'CRTC' 'a.c' 3 ''"},
      {"process with parentheses", "p (x) (12)DETL:a.c:3-> hi",
       "False False 'p (x) ' 12 'DETL' 'a.c' 3 'hi'"},
      {"file with colons", "p(1)TRCE:a:1:b.c:3-> hi", "False False 'p' 1 'TRCE' 'a:1:b.c' 3 'hi'"},
      {"another line quoted", "p(1)TRCE:a.c:3-> q(2)ERRO:b.c:4-> x",
       "False False 'p' 1 'TRCE' 'a.c' 3 'q(2)ERRO:b.c:4-> x'"},
      {"packet dump", "(3021)DETL: 0x010: 0x0d,0x0a\n",
       "False False None 3021 'DETL' None None '0x010: 0x0d,0x0a'"},
      {"head of a dump", "(3021)DETL:c.cc:88-> DUMP length = 0x12 (x)\n",
       "False False None 3021 'DETL' 'c.cc' 88 'DUMP length = 0x12 (x)'"},
      {"bare text", "reset special log",
       "False False None None None None None 'reset special log'"},
      {"unknown tag", "p(1)WARN:a.c:3-> x",
       "False False None None None None None 'p(1)WARN:a.c:3-> x'"},
      {"no number as JSON has it", "p(01)TRCE:a.c:3-> x",
       "False False None None None None None 'p(01)TRCE:a.c:3-> x'"},
      {"overlong number", "p(12345678901)TRCE:a.c:3-> x",
       "False False None None None None None 'p(12345678901)TRCE:a.c:3-> x'"},
      {"no line", "p(1)TRCE:a.c-> x", "False False None None None None None 'p(1)TRCE:a.c-> x'"},
      {"no file", "p(1)TRCE::3-> x", "False False None None None None None 'p(1)TRCE::3-> x'"},
      {"zeros", "p(0)TRCE:a.c:0-> x", "False False 'p' 0 'TRCE' 'a.c' 0 'x'"},
      {"no end of the number", "p(1 TRCE:a.c:3-> x",
       "False False None None None None None 'p(1 TRCE:a.c:3-> x'"},
      {"no colon", "p(1)TRCE;a.c:3-> x",
       "False False None None None None None 'p(1)TRCE;a.c:3-> x'"},
      {"dump of a short offset", "(1)DETL: 0x10: 0x0d",
       "False False None None None None None '(1)DETL: 0x10: 0x0d'"},
      {"dump without a colon", "(1)DETL: 0x010; 0x0d",
       "False False None None None None None '(1)DETL: 0x010; 0x0d'"},
      {"ends in the middle", "p(1)TR", "False False None None None None None 'p(1)TR'"},
      {"ends behind the tag", "p(1)TRCE:", "False False None None None None None 'p(1)TRCE:'"},
  };
  for (const auto& row : rows)
    EXPECT_THAT(valuesOf({datagram(row.text)}), ElementsAre(row.values)) << row.name;
}

TEST_F(ad_logdJsonTest, ALongestNameIsFoundAndALongerOneIsText) {
  const std::string name(255, 'n');
  const std::string rest = "(1)ERRO:" + name + ":3-> x";
  EXPECT_THAT(parsed(jsonOf({datagram(name + rest), datagram("n" + name + rest)}),
                     "print(d['process'] and len(d['process']), d['file'] and len(d['file']))"),
              ElementsAre("255 255", "None None"));
}

TEST_F(ad_logdJsonTest, EveryTextIsAValidString) {
  struct {
    const char* name;
    std::string text;
    const char* shown;  // as Python shows text and, where there is one, raw
  } const rows[] = {
      {"no newline", "text", "'text'"},
      {"one newline", "text\n", "'text'"},
      {"two newlines", "text\n\n", "'text\\n'"},
      {"only a newline", "\n", "''"},
      {"control characters", std::string("\0\1\x1f\x7f\t\r\x1b[2J", 10),
       "'\\x00\\x01\\x1f\\x7f\\t\\r\\x1b[2J'"},
      {"quotes", "say \"C:\\new\"", "'say \"C:\\\\new\"'"},
      {"UTF-8", "\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80", "'\\xfc\\u20ac\\U0001f600'"},
      {"last of UTF-8", "\xf4\x8f\xbf\xbf", "'\\U0010ffff'"},
      {"8-bit control character", "\xc2\x9b", "'\\x9b'"},
      {"line separator", "\xe2\x80\xa8", "'\\u2028'"},
      {"Latin-1", "gr\xfc\xdf", "'gr\\ufffd\\ufffd' '6772fcdf'"},
      {"newline behind Latin-1", "\xfc\n", "'\\ufffd' 'fc0a'"},
      {"overlong", "\xc0\x80\xe0\x9f\xbf", "'\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd' 'c080e09fbf'"},
      {"surrogate", "\xed\xa0\x80", "'\\ufffd\\ufffd\\ufffd' 'eda080'"},
      {"above Unicode", "\xf4\x90\x80\x80", "'\\ufffd\\ufffd\\ufffd\\ufffd' 'f4908080'"},
      {"cut sequence", "x\xe2\x82", "'x\\ufffd\\ufffd' '78e282'"},
      {"replacement character itself", "\xef\xbf\xbd", "'\\ufffd'"},
  };
  for (const auto& row : rows)
    EXPECT_THAT(parsed(jsonOf({datagram(row.text)}),
                       "print(*[ascii(d[k]) for k in ('text', 'raw') if k in d])"),
                ElementsAre(row.shown))
        << row.name;
}

TEST_F(ad_logdJsonTest, WhatTerminalsObeyIsEscaped) {
  EXPECT_THAT(jsonOf({datagram("\x7f\xc2\x80\xc2\x9f\xc2\xa0")}),
              HasSubstr("\"text\":\"\\u007f\\u0080\\u009f\xc2\xa0\"}"));
}

TEST_F(ad_logdJsonTest, AnyPartMayHoldBytesThatAreNotUtf8) {
  EXPECT_THAT(valuesOf({datagram("\xff(1)ERRO:\xfe.c:3-> ok")}),
              ElementsAre("False False '\\ufffd' 1 'ERRO' '\\ufffd.c' 3 'ok' "
                          "'ff2831294552524f3afe2e633a332d3e206f6b'"));
}

TEST_F(ad_logdJsonTest, MalformedDatagramsAreValidLines) {
  EXPECT_THAT(parsed(jsonOf({"", "a\n", "p(1)ERRO:a.c:3-> no time", datagram("")}),
                     "print(d['sent'], d['malformed'], d['tag'], ascii(d['text']), d.get('raw'))"),
              ElementsAre("None True None '' None", "None True None 'a\\n' None",
                          "None True None 'p(1)ERRO:a.c:3-> no time' None",
                          "None True None '\\x00\\x00\\u029a;{\\x00\\x00\\x00' None"));
}

TEST_F(ad_logdJsonTest, NoByteOfAnyDatagramIsLost) {
  const Texts pieces = {"p",        "(7)",      "ERRO:", "f.c",      ":9-> ",
                        " 0x010: ", "\n",       "\"",    "\\",       "\\u00",
                        "\xc3\xa4", "\xe2\x82", "\xff",  "\x80",     "\xed\xa0",
                        "\x7f",     "\x1b",     "\t",    "\xc2\x85", std::string(1, '\0'),
                        "(",        ":",        "-> ",   "{",        "\xf0\x9f\x98\x80"};
  std::mt19937 random(1);
  const auto pick = [&random](size_t below) { return random() % below; };
  Texts datagrams;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    std::string text = pick(2) == 0 ? "p(7)ERRO:f.c:9-> " : "";
    for (size_t n = 1 + pick(12); n > 0; --n) text += pieces[pick(pieces.size())];
    const bool malformed = pick(8) == 0;
    datagrams.push_back(malformed ? text.substr(0, 8) : datagram(text));
    // "raw" has the newline that ends a line, "text" has not.
    std::string whole = malformed ? text.substr(0, 8) : text;
    if (!malformed && whole.back() == '\n') whole.pop_back();
    for (const char c : whole) {
      char hex[3];
      (void)snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(c));
      expected += hex;
    }
    expected += '\n';
  }
  const Texts found = parsed(jsonOf(datagrams),
                             "o = original(d); print((o[:-1] if 'raw' in d and not d['malformed'] "
                             "and o.endswith(b'\\n') else o).hex())");
  EXPECT_EQ(found, lines(expected));
}

TEST_F(ad_logdJsonTest, TheLargestDatagramsFit) {
  const size_t size = 65536 - 9;
  struct {
    const char* name;
    char byte;
  } const rows[] = {{"longest escapes", '\1'}, {"not UTF-8", '\xff'}, {"plain", 'x'}};
  for (const auto& row : rows) {
    const std::string json =
        jsonOf({datagram(std::string(size, row.byte)), std::string(100000, row.byte),
                datagram(std::string(size / 2, '\1') + std::string(size - size / 2, '\xff'))});
    EXPECT_THAT(parsed(json,
                       "print(len(d['text']), len(d.get('raw', '')) in (0, 2 * "
                       "len(d['text'])), d['malformed'])"),
                ElementsAre("65527 True False", "65536 True True", "65527 True False"))
        << row.name;
  }
}

TEST_F(ad_logdJsonTest, TheSpecialLogIsTold) {
  Logd logd({"--format=json", "--special", kSpecialBase});
  Sender().send(datagram("(3)DETL:a.c:1-> x"), kSpecialSocket);
  EXPECT_THAT(parsed(logd.stop().out, "print(d['special'], d['text'])"), ElementsAre("True x"));
}

TEST_F(ad_logdJsonTest, LostLinesAreToldInTheirPlace) {
  FifoReader reader;
  Logd logd({"--format=json", "--output", "/tmp/fifo"});
  const Sender sender;
  reader.leave();
  sender.send(datagram("first"));
  logd.waitForErr("ad_logd: cannot write /tmp/fifo: Broken pipe\n");
  constexpr int kCount = 60;
  for (int i = 0; i < kCount; ++i) sender.send(datagram(std::string(60000, 'x')));
  logd.signal(SIGUSR2);
  logd.waitForErr("61 received");
  reader.open();
  logd.waitForErr(" lines lost\n");
  const size_t at = logd.err().find(" lines lost\n");
  const size_t begin = logd.err().rfind(' ', at - 1) + 1;
  const size_t lost = std::stoul(logd.err().substr(begin));
  const std::string json = reader.readLines(1 + kCount - lost + 1);
  const Texts last = parsed(json, "print(d['process'], d['tag'], d['text'], d.get('lost'))");
  EXPECT_EQ(last.back(),
            "ad_logd None " + std::to_string(lost) + " lines lost here " + std::to_string(lost));
}

// A socket that is bound as a service manager does it.
class HandedSocket {
 public:
  explicit HandedSocket(const std::string& path, int type = SOCK_DGRAM, bool abstract = false)
      : path_(path), fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {AF_UNIX, ""};
    path.copy(address.sun_path + abstract, sizeof address.sun_path - 2);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) abort();
    if (!abstract && chmod(path.c_str(), 0666) != 0) abort();
  }
  ~HandedSocket() { close(fd_); }
  HandedSocket(const HandedSocket&) = delete;
  HandedSocket& operator=(const HandedSocket&) = delete;

  int fd() const { return fd_; }
  ino_t inode() const {
    struct stat file = {};
    EXPECT_EQ(lstat(path_.c_str(), &file), 0) << path_;
    return file.st_ino;
  }

 private:
  const std::string path_;
  int fd_;
};

// ---- Syslog ----

class ad_logdSyslogTest : public ad_logdServiceTest {
 protected:
  ad_logdSyslogTest() {
    cover("/dev");
    server_ = std::make_unique<SyslogListener>();
  }

  // Takes records until there are `count` of them.
  std::vector<SyslogRecord> records(size_t count) {
    std::vector<SyslogRecord> all;
    waitUntil(
        [&] {
          for (SyslogRecord& record : server_->waiting()) all.push_back(std::move(record));
          return all.size() >= count;
        },
        "syslog records");
    return all;
  }

  // Datagrams that a queue holds: the kernel takes one more than it is told.
  static size_t queueLength() { return std::stoul(read("/proc/sys/net/unix/max_dgram_qlen")) + 1; }

  std::unique_ptr<SyslogListener> server_;
};

TEST_F(ad_logdSyslogTest, ThePriorityFollowsTheTag) {
  struct {
    std::string text;
    int priority;
  } const rows[] = {{"p(1)CRTC:a.c:3-> x\n", LOG_CRIT}, {"p(1)ERRO:a.c:3-> x\n", LOG_ERR},
                    {"p(1)TRCE:a.c:3-> x\n", LOG_INFO}, {"(1)DETL:a.c:3-> x\n", LOG_DEBUG},
                    {"(1)DETL: 0x000: 0x1", LOG_DEBUG}, {"reset special log", LOG_NOTICE},
                    {"p(1)WARN:a.c:3-> x", LOG_NOTICE}};
  Logd logd({"--utc", "--forward=syslog"});
  const Sender sender;
  for (const auto& row : rows) {
    sender.send(datagram(row.text));
    const std::vector<SyslogRecord> got = records(1);
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].priority, row.priority) << row.text;
    EXPECT_EQ(got[0].facility, LOG_DAEMON);
    EXPECT_EQ(got[0].ident, "ad_logd");
    EXPECT_EQ(got[0].pid, logd.pid());
    EXPECT_EQ(got[0].text + "\n", row.text.back() == '\n' ? row.text : row.text + "\n");
  }
  const ChildResult result = logd.stop();
  EXPECT_THAT(lines(result.out), SizeIs(std::size(rows)));
  EXPECT_THAT(result.err,
              EndsWith("ad_logd: 7 received, 0 malformed, 0 failed, 0 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, ARecordHasTheMarksAndEscapesOfALine) {
  for (const char* format : {"--format=text", "--format=json"}) {
    Logd logd({"--forward=syslog", "--special", kSpecialBase, format});
    const Sender sender;
    sender.send(datagram("(1)DETL:a.c:3-> tab\there\n"), kSpecialSocket);
    EXPECT_EQ(records(1)[0].text, "[special] (1)DETL:a.c:3-> tab\\there");
    sender.send("bad\n");
    const SyslogRecord bad = records(1)[0];
    EXPECT_EQ(bad.text, "[malformed] bad\\n");
    EXPECT_EQ(bad.priority, LOG_WARNING);
  }
}

TEST_F(ad_logdSyslogTest, TheTimeIsThatOfSyslogNow) {
  Logd logd({"--forward=syslog"}, {"TZ=UTC0", "LC_ALL=de_DE.UTF-8"});
  Sender().send(datagram("x"));
  const std::string bytes = records(1)[0].bytes;
  const time_t now = time(nullptr);
  tm parts = {};
  gmtime_r(&now, &parts);
  const int year = parts.tm_year;
  ASSERT_NE(strptime(bytes.c_str() + bytes.find('>') + 1, "%b %d %H:%M:%S ", &parts), nullptr)
      << bytes;
  parts.tm_year = year;
  EXPECT_NEAR(static_cast<double>(timegm(&parts)), static_cast<double>(now), 60);
}

TEST_F(ad_logdSyslogTest, ALongTextIsCutAndTheOutputHasItWhole) {
  Logd logd({"--utc", "--forward=syslog"});
  Sender().send(datagram(std::string(60000, '\1')));
  const SyslogRecord record = records(1)[0];
  EXPECT_LE(record.bytes.size(), 8192u);
  EXPECT_GT(record.bytes.size(), 8192u - 4);
  EXPECT_THAT(record.text, EndsWith("\\x01"));
  EXPECT_THAT(lines(logd.stop().out), ElementsAre(SizeIs(28 + 4 * 60000)));
}

TEST_F(ad_logdSyslogTest, AServerThatComesLaterGetsTheLinesSoFar) {
  server_.reset();
  Logd logd({"--forward=syslog"});
  const Sender sender;
  sender.send(datagram("one\n"));
  logd.waitForOut(" one\n");
  logd.waitForErr("ad_logd: cannot forward to syslog at /dev/log: No such file or directory\n");
  sender.send(datagram("two\n"));
  logd.waitForOut(" two\n");
  server_ = std::make_unique<SyslogListener>();
  const std::vector<SyslogRecord> got = records(2);
  ASSERT_THAT(got, SizeIs(2));
  EXPECT_EQ(got[0].text, "one");
  EXPECT_EQ(got[1].text, "two");
  logd.waitForErr("ad_logd: forwarding to syslog again\n");
  EXPECT_THAT(logd.stop().err, EndsWith(" 0 failed, 0 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, AServerThatStartsAnewIsFound) {
  Logd logd({"--forward=syslog"});
  const Sender sender;
  sender.send(datagram("one"));
  EXPECT_EQ(records(1)[0].text, "one");
  server_.reset();
  server_ = std::make_unique<SyslogListener>();
  sender.send(datagram("two"));
  EXPECT_EQ(records(1)[0].text, "two");
  EXPECT_THAT(logd.stop().err, Not(HasSubstr("cannot forward")));
}

TEST_F(ad_logdSyslogTest, AServerThatLeavesItsSocketBehindIsWaitedFor) {
  server_.reset();
  Logd logd({"--forward=syslog"});
  const Sender sender;
  {
    const HandedSocket server("/dev/log");
    sender.send(datagram("one"));
    char record[100];
    EXPECT_GT(recv(server.fd(), record, sizeof record, 0), 0);
  }
  sender.send(datagram("two"));
  logd.waitForErr("ad_logd: cannot forward to syslog at /dev/log: Connection refused\n");
  std::filesystem::remove("/dev/log");
  server_ = std::make_unique<SyslogListener>();
  EXPECT_EQ(records(1)[0].text, "two");
  EXPECT_THAT(logd.stop().err, EndsWith(" 0 failed, 0 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, AServerThatLagsHoldsNothingUpAndGetsAll) {
  constexpr size_t kCount = 500;
  Logd logd({"--forward=syslog", "--output", "/tmp/log"});
  const Sender sender;
  for (size_t i = 0; i < kCount; ++i) sender.send(datagram(std::to_string(i)));
  logd.settle("500 received, 0 malformed, 0 failed, " + std::to_string(kCount - queueLength()) +
              " not forwarded");
  EXPECT_THAT(lines(read("/tmp/log")), SizeIs(kCount));
  const std::vector<SyslogRecord> got = records(kCount);
  ASSERT_THAT(got, SizeIs(kCount));
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(got[i].text, std::to_string(i));
  EXPECT_THAT(logd.stop().err, EndsWith(" 0 failed, 0 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, WhatDoesNotFitIsCountedAndTheOutputHasIt) {
  constexpr size_t kCount = 300;
  Logd logd({"--forward=syslog", "--output", "/tmp/log"});
  const Sender sender;
  for (size_t i = 0; i < kCount; ++i) sender.send(datagram(std::string(8000, 'x')));
  logd.signal(SIGUSR2);
  logd.waitForErr("300 received, 0 malformed, 0 failed");
  EXPECT_THAT(lines(read("/tmp/log")), SizeIs(kCount));
  constexpr char kTold[] = " lines were not forwarded to syslog\n";
  EXPECT_THAT(logd.err(), Not(HasSubstr(kTold))) << "one by one they would be as many lines again";
  size_t got = 0;
  std::atomic<bool> told_it = false;
  std::thread reader([&] {
    while (!told_it) got += server_->waiting().size();
  });
  logd.waitForErr(kTold);
  told_it = true;
  reader.join();
  const std::string told = logd.err();
  const size_t lost = std::stoul(told.substr(told.rfind("ad_logd: ") + strlen("ad_logd: ")));
  got += server_->waiting().size();
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(got + lost, kCount);
  EXPECT_THAT(logd.stop().err, EndsWith(" 0 failed, " + std::to_string(lost) + " not forwarded\n"));
  EXPECT_THAT(server_->waiting(), IsEmpty());
}

TEST_F(ad_logdSyslogTest, AServerThatLagsGetsAllBeforeItStops) {
  Logd logd({"--forward=syslog", "--output", "/tmp/log"});
  const Sender sender;
  for (int i = 0; i < 100; ++i) sender.send(datagram("x"));
  logd.settle("100 received, 0 malformed, 0 failed, " + std::to_string(100 - queueLength()) +
              " not forwarded");
  logd.signal(SIGTERM);
  size_t sent = 100;
  while (sender.trySend(datagram("y")) == 0) ++sent;
  EXPECT_THAT(records(sent), SizeIs(sent));
  const ChildResult result = logd.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.err, EndsWith(" 0 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, AServerThatHangsCannotKeepItFromStopping) {
  Logd logd({"--forward=syslog", "--output", "/tmp/log"});
  const Sender sender;
  for (int i = 0; i < 100; ++i) sender.send(datagram("x"));
  logd.settle("100 received, 0 malformed, 0 failed, " + std::to_string(100 - queueLength()) +
              " not forwarded");
  logd.signal(SIGTERM);
  while (sender.trySend(datagram("y")) == 0) continue;
  logd.signal(SIGTERM);
  const ChildResult result = logd.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.err, Not(EndsWith(" 0 not forwarded\n")));
  EXPECT_THAT(lines(read("/tmp/log")), testing::Contains(EndsWith(" x")).Times(100));
}

TEST_F(ad_logdSyslogTest, ItsOwnSocketIsNotForwardedTo) {
  server_.reset();
  std::filesystem::create_symlink(kSpecialSocket, "/dev/log");
  Logd logd({"--forward=syslog", "--special", kSpecialBase});
  Sender().send(datagram("once\n"));
  logd.waitForErr(
      "ad_logd: cannot forward to syslog at /dev/log: that is this daemon's own "
      "socket\n");
  const ChildResult result = logd.stop();
  EXPECT_THAT(lines(result.out), SizeIs(1));
  EXPECT_THAT(result.err, EndsWith("1 received, 0 malformed, 0 failed, 1 not forwarded\n"));
}

TEST_F(ad_logdSyslogTest, WithoutTheOptionNothingIsForwarded) {
  Logd logd;
  Sender().send(datagram("p(1)CRTC:a.c:3-> x\n"));
  EXPECT_THAT(logd.stop().err, EndsWith("1 received, 0 malformed, 0 failed\n"));
  EXPECT_THAT(server_->waiting(), IsEmpty());
}

TEST_F(ad_logdServiceTest, OptionsWithWrongValuesAreRefused) {
  struct {
    Texts arguments;
    const char* message;
  } const rows[] = {
      {{"--format=xml"}, "ad_logd: the format is text or json, not 'xml'\n"},
      {{"--format="}, "ad_logd: the format is text or json, not ''\n"},
      {{"--forward=journal"}, "ad_logd: lines are forwarded to syslog only, not to 'journal'\n"},
  };
  for (const auto& row : rows) {
    const ChildResult result = runProgram(Logd::commandLine(row.arguments));
    EXPECT_EQ(result.exitCode(), 2);
    EXPECT_EQ(result.err, std::string(row.message) + "Try 'ad_logd --help'.\n");
  }
}

// ---- Sockets that are handed over ----

// A daemon that is started as a service manager starts it.
class Activated : public Child {
 public:
  explicit Activated(const std::vector<int>& fds, const Texts& arguments = {},
                     const std::string& pid = "")
      : Child([&] {
          std::vector<int> high;
          for (const int fd : fds) high.push_back(fcntl(fd, F_DUPFD, 100));
          for (size_t i = 0; i < high.size(); ++i) dup2(high[i], 3 + static_cast<int>(i));
          for (const int fd : high) close(fd);
          setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), 1);
          setenv("LISTEN_PID", (pid.empty() ? std::to_string(getpid()) : pid).c_str(), 1);
          setenv("LISTEN_FDNAMES", "first:second", 1);
          Texts words = Logd::commandLine(arguments);
          std::vector<char*> argv;
          for (std::string& word : words) argv.push_back(word.data());
          argv.push_back(nullptr);
          execv(kProgram, argv.data());
        }) {}

  ChildResult stop() {
    signal(SIGTERM);
    return wait();
  }
};

TEST_F(ad_logdServiceTest, ASocketThatIsHandedOverIsUsedAndLeft) {
  const HandedSocket handed(kSocket);
  const ino_t inode = handed.inode();
  const Sender sender;
  for (int round = 0; round < 3; ++round) {
    Activated logd({handed.fd()});
    logd.waitForErr("ad_logd: listening at /tmp/ad_errorlog.0 (shared record, level 0)\n");
    sender.send(datagram("hello\n"));
    logd.waitForOut(" hello\n");
    const ChildResult result = logd.stop();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.err, EndsWith("ad_logd: 1 received, 0 malformed, 0 failed\n"));
    EXPECT_EQ(handed.inode(), inode);
  }
  EXPECT_EQ(fcntl(handed.fd(), F_GETFL) & O_NONBLOCK, 0) << "it is shared with the manager";
}

TEST_F(ad_logdServiceTest, LinesWaitInTheSocketForTheNextDaemon) {
  const HandedSocket handed(kSocket);
  const Sender sender;
  sender.send(datagram("before\n"));
  {
    Activated logd({handed.fd()});
    logd.waitForOut(" before\n");
    EXPECT_EQ(logd.stop().exitCode(), 0);
  }
  sender.send(datagram("between\n"));
  Activated next({handed.fd()});
  next.waitForOut(" between\n");
}

TEST_F(ad_logdServiceTest, ARestartKeepsTheSocketAndTheRecord) {
  const HandedSocket handed(kSocket);
  auto logd = std::make_unique<Activated>(std::vector<int>{handed.fd()});
  logd->waitForErr(kListening);
  const int id = shmget(ftok(kSocket, 100), 0, 0);
  Worker worker([](char command) {
    if (ad_debug_inited() == 0) connectToDaemon();
    AD_TRCE("line %c\n", command);
  });
  worker.tell('a');
  EXPECT_EQ(logd->stop().exitCode(), 0);
  worker.tell('b');  // the level is 0
  logd = std::make_unique<Activated>(std::vector<int>{handed.fd()});
  logd->waitForErr(kListening);
  EXPECT_EQ(shmget(ftok(kSocket, 100), 0, 0), id);
  ad_debug_cfg_t* const record = recordOf(kSocket);
  setLevel(record, 2);
  worker.tell('c');
  logd->waitForOut("-> line c\n");
  EXPECT_EQ(worker.err(), "");
  EXPECT_THAT(behindTimes(logd->stop().out), ElementsAre(EndsWith("-> line c")));
  ad_return_ad_debug_cfg_p(record);
}

TEST_F(ad_logdServiceTest, SocketsAreToldApartByTheirPaths) {
  const HandedSocket special(kSpecialSocket);
  const HandedSocket log(kSocket);
  Activated logd({special.fd(), log.fd()}, {"--special", kSpecialBase});
  logd.waitForErr(kListening);
  const Sender sender;
  sender.send(datagram("one\n"));
  logd.waitForOut(" one\n");
  sender.send(datagram("two\n"), kSpecialSocket);
  logd.waitForOut("two\n");
  EXPECT_THAT(behindTimes(logd.stop().out), ElementsAre(" one", "[special] two"));
  EXPECT_TRUE(std::filesystem::is_socket(kSocket));
  EXPECT_TRUE(std::filesystem::is_socket(kSpecialSocket));
}

TEST_F(ad_logdServiceTest, ASocketThatIsNotHandedOverIsMade) {
  const HandedSocket handed(kSocket);
  Activated logd({handed.fd()}, {"--special", kSpecialBase});
  logd.waitForErr(kListening);
  Sender().send(datagram("two\n"), kSpecialSocket);
  logd.waitForOut("two\n");
  EXPECT_EQ(logd.stop().exitCode(), 0);
  EXPECT_TRUE(std::filesystem::is_socket(kSocket));
  EXPECT_FALSE(std::filesystem::exists(kSpecialSocket));
}

TEST_F(ad_logdServiceTest, AnotherWayToThePathIsThePathToo) {
  std::filesystem::create_directory("/tmp/real");
  std::filesystem::create_symlink("/tmp/real", "/tmp/link");
  const HandedSocket handed("/tmp/real/log.0");
  Activated logd({handed.fd()}, {"--base", "/tmp/link/log"});
  logd.waitForErr("ad_logd: listening at /tmp/link/log.0 (shared record, level 0)\n");
}

TEST_F(ad_logdServiceTest, SocketsForAnotherProcessAreNotTaken) {
  const HandedSocket handed("/tmp/others");
  for (const char* pid : {"1", "0", "-1", "x"}) {
    Activated logd({handed.fd()}, {}, pid);
    logd.waitForErr(kListening);
    EXPECT_EQ(logd.stop().exitCode(), 0);
  }
}

TEST_F(ad_logdServiceTest, AWrongSocketIsRefusedAndLeft) {
  struct {
    const char* name;
    std::function<int()> make;
    const char* why;
  } const rows[] = {
      {"stream socket",
       [] {
         static HandedSocket made(kSocket, SOCK_STREAM);
         return made.fd();
       },
       "it is no datagram socket that is bound at a path"},
      {"without a name", [] { return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); },
       "it is no datagram socket that is bound at a path"},
      {"abstract name",
       [] {
         static HandedSocket made("name", SOCK_DGRAM, /*abstract=*/true);
         return made.fd();
       },
       "it is no datagram socket that is bound at a path"},
      {"network socket", [] { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); },
       "it is no datagram socket that is bound at a path"},
      {"no socket", [] { return open("/tmp", O_RDONLY | O_CLOEXEC); },
       "it is no datagram socket that is bound at a path"},
      {"another path",
       [] {
         static HandedSocket made("/tmp/other.0");
         return made.fd();
       },
       "neither --base nor --special asks for its path"},
  };
  for (const auto& row : rows) {
    const HandedSocket good("/tmp/good.0");
    const int fd = row.make();
    Activated logd({good.fd(), fd}, {"--base", "/tmp/good"});
    const ChildResult result = logd.wait();
    EXPECT_EQ(result.exitCode(), 1) << row.name << "; " << result;
    EXPECT_EQ(result.err,
              std::string("ad_logd: cannot use the socket handed over as descriptor 4 (second): ") +
                  row.why + "\n")
        << row.name;
    EXPECT_TRUE(std::filesystem::is_socket("/tmp/good.0"));
    EXPECT_EQ(Sender().trySend("x", "/tmp/good.0"), 0) << "its queue is still open";
    close(fd);
    std::filesystem::remove("/tmp/good.0");
  }
}

TEST_F(ad_logdServiceTest, AnotherSocketAloneIsRefusedWhetherItsFileIsThereOrNot) {
  const HandedSocket handed("/tmp/other.0");
  for (const bool there : {true, false}) {
    if (!there) std::filesystem::remove("/tmp/other.0");
    Activated logd({handed.fd()}, {"--special", kSpecialBase});
    EXPECT_EQ(logd.wait().exitCode(), 1);
    EXPECT_EQ(logd.err(),
              "ad_logd: cannot use the socket handed over as descriptor 3 (first): neither --base "
              "nor --special asks for its path\n");
  }
}

TEST_F(ad_logdServiceTest, ADescriptorThatIsNotOpenIsRefused) {
  const ChildResult result = runProgram(
      {"/bin/sh", "-c", std::string("LISTEN_PID=$$ LISTEN_FDS=1 exec ") + kProgram + " 3<&-"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err,
            "ad_logd: cannot use the socket handed over as descriptor 3 (): Bad file descriptor\n");
}

TEST_F(ad_logdServiceTest, OneSocketTwiceIsRefused) {
  const HandedSocket handed(kSocket);
  Activated logd({handed.fd(), handed.fd()});
  EXPECT_EQ(logd.wait().exitCode(), 1);
  EXPECT_THAT(logd.err(), HasSubstr("descriptor 4 (second): there is another one at its path\n"));
}

TEST_F(ad_logdServiceTest, ASocketWithoutItsFileIsRefused) {
  const HandedSocket handed(kSocket);
  std::filesystem::remove(kSocket);
  Activated logd({handed.fd()});
  EXPECT_EQ(logd.wait().exitCode(), 1);
  EXPECT_EQ(logd.err(),
            "ad_logd: cannot listen at /tmp/ad_errorlog.0: No such file or directory\n");
}

TEST_F(ad_logdServiceTest, ASocketWithAFileInItsPlaceIsRefused) {
  const HandedSocket handed(kSocket);
  std::filesystem::remove(kSocket);
  write(kSocket, "precious");
  Activated logd({handed.fd()});
  EXPECT_EQ(logd.wait().exitCode(), 1);
  EXPECT_EQ(logd.err(),
            "ad_logd: cannot listen at /tmp/ad_errorlog.0: there is a file that is not a socket\n");
  EXPECT_EQ(read(kSocket), "precious");
}

TEST_F(ad_logdServiceTest, TheManagerHearsThatItIsReady) {
  for (const bool abstract : {false, true}) {
    const HandedSocket notify(abstract ? "notify" : "/tmp/notify", SOCK_DGRAM, abstract);
    // The kernel takes the whole length of an address for an abstract name: it is bound with one
    // that ends where the name does.
    sockaddr_un address = {AF_UNIX, ""};
    memcpy(address.sun_path + 1, "exact", 5);
    const int exact = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(
        bind(exact, reinterpret_cast<sockaddr*>(&address), offsetof(sockaddr_un, sun_path) + 6), 0);
    const timeval limit = {20, 0};
    const int fd = abstract ? exact : notify.fd();
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    Child logd({kProgram}, {abstract ? "NOTIFY_SOCKET=@exact" : "NOTIFY_SOCKET=/tmp/notify"});
    char state[64] = "";
    EXPECT_EQ(recv(fd, state, sizeof state - 1, 0), 7);
    EXPECT_STREQ(state, "READY=1");
    Sender().send(datagram("ready indeed\n"));
    logd.waitForOut(" ready indeed\n");
    close(exact);
    std::filesystem::remove("/tmp/notify");
  }
}

TEST_F(ad_logdServiceTest, AManagerThatCannotBeToldChangesNothing) {
  for (const std::string& path :
       Texts{"/tmp/nobody", "relative", "", "/" + std::string(200, 'x')}) {
    Logd logd({}, {"NOTIFY_SOCKET=" + path});
    EXPECT_EQ(logd.stop().exitCode(), 0) << path;
  }
}

TEST_F(ad_logdServiceTest, SystemdsOwnActivationWorks) {
  constexpr char kActivate[] = "/usr/bin/systemd-socket-activate";
  if (access(kActivate, X_OK) != 0) GTEST_SKIP() << "systemd-socket-activate is not installed";
  Child logd({kActivate, "--datagram", "-l", kSocket, kProgram});
  waitUntil([] { return std::filesystem::exists(kSocket); }, "its socket");
  Sender().send(datagram("hello\n"));
  logd.waitForOut(" hello\n");
  EXPECT_THAT(logd.err(), HasSubstr(kListening));
  logd.signal(SIGTERM);
  EXPECT_EQ(logd.wait().exitCode(), 0);
  EXPECT_TRUE(std::filesystem::is_socket(kSocket));
}

// ---- Records of former sockets ----

int idOf(const char* path) {
  return shmget(ftok(path, 100), 0, 0);
}

bool exists(int id) {
  shmid_ds status = {};
  return shmctl(id, IPC_STAT, &status) == 0;
}

class ad_logdRecordsTest : public ad_logdServiceTest {
 protected:
  static void waitForLevel(const ad_debug_cfg_t* record, int32_t level) {
    waitUntil([&] { return __atomic_load_n(&record->ad_debug_level, __ATOMIC_RELAXED) == level; },
              "the level");
  }
};

TEST_F(ad_logdRecordsTest, ARestartCarriesTheSettingsOver) {
  for (const int number : {SIGTERM, SIGKILL}) {
    Logd old;
    const int id = idOf(kSocket);
    ad_debug_cfg_t* const record = recordOf(kSocket);
    setLevel(record, 4);
    record->debug_target_client_ip = htonl(0x0a000007);
    record->debug_target_server_ip = 0;
    record->para[0] = 5;
    record->para[31] = 0xffffffff;
    ad_return_ad_debug_cfg_p(record);
    old.signal(number);
    old.wait();

    Logd logd;
    EXPECT_THAT(logd.err(),
                HasSubstr("ad_logd: /tmp/ad_errorlog.0: settings carried over: level 4, "
                          "client 10.0.0.7, server off\n"));
    EXPECT_THAT(logd.err(),
                HasSubstr("ad_logd: listening at /tmp/ad_errorlog.0 (shared record, level 4)\n"));
    ASSERT_NE(idOf(kSocket), id) << "this file system gave the new socket the same number";
    ad_debug_cfg_t* const next = recordOf(kSocket);
    EXPECT_EQ(next->ad_debug_level, 4);
    EXPECT_EQ(next->debug_target_client_ip, htonl(0x0a000007));
    EXPECT_EQ(next->debug_target_server_ip, 0u);
    EXPECT_EQ(next->para[0], 5u);
    EXPECT_EQ(next->para[30], 0u);
    EXPECT_EQ(next->para[31], 0xffffffffu);
    *next = {};
    ad_return_ad_debug_cfg_p(next);
  }
}

TEST_F(ad_logdRecordsTest, AKilledDaemonsSocketIsEnoughToFindItsRecord) {
  {
    Logd old;
    setLevel(recordOf(kSocket), 3);
    old.signal(SIGKILL);
    old.wait();
  }
  std::filesystem::remove("/tmp/ad_errorlog.0.records");
  EXPECT_THAT(Logd().err(), HasSubstr("(shared record, level 3)"));
}

TEST_F(ad_logdRecordsTest, AChangeReachesTheProcessesOfFormerSockets) {
  auto logd = std::make_unique<Logd>();
  Worker worker([](char command) {
    if (ad_debug_inited() == 0) connectToDaemon();
    AD_TRCE("line %c\n", command);
  });
  worker.tell('a');
  ad_debug_cfg_t* const old = recordOf(kSocket);
  EXPECT_EQ(logd->stop().exitCode(), 0);
  logd = std::make_unique<Logd>();
  logd->waitForErr("ad_logd: /tmp/ad_errorlog.0: former records in use, kept in step: 1\n");
  ad_debug_cfg_t* const record = recordOf(kSocket);
  ASSERT_NE(old, record);
  setLevel(record, 2);
  record->debug_target_client_ip = 7;
  record->debug_target_server_ip = 8;
  waitForLevel(old, 2);
  waitUntil([&] { return old->debug_target_server_ip == 8; }, "the server filter");
  EXPECT_EQ(old->debug_target_client_ip, 7u);
  worker.tell('b');
  logd->waitForOut("-> line b\n");
  EXPECT_EQ(worker.err(), "");
}

TEST_F(ad_logdRecordsTest, AReloadInAFormerProcessReachesAll) {
  auto logd = std::make_unique<Logd>();
  Worker worker([](char) {
    if (ad_debug_inited() == 0) connectToDaemon();
  });
  worker.tell('a');
  EXPECT_EQ(logd->stop().exitCode(), 0);
  logd = std::make_unique<Logd>();
  ad_debug_cfg_t* const record = recordOf(kSocket);
  write("/tmp/ad_errorlog.0.cfg", "debug_level=3\ndebug_client_ip=10.0.0.1\n");
  worker.signal(SIGUSR1);
  waitForLevel(record, 3);
  waitUntil([&] { return record->debug_target_client_ip == htonl(0x0a000001); }, "the client");
}

TEST_F(ad_logdRecordsTest, RecordsOfManySocketsAreKeptInStep) {
  std::vector<ad_debug_cfg_t*> records;
  for (int i = 0; i < 4; ++i) {
    Logd logd;
    records.push_back(recordOf(kSocket));
    if (i % 2 == 0) continue;  // killed, else stopped
    EXPECT_EQ(logd.stop().exitCode(), 0);
  }
  Logd logd;
  logd.waitForErr("former records in use, kept in step: 4\n");
  ad_debug_cfg_t* const record = recordOf(kSocket);
  setLevel(record, 3);
  for (const ad_debug_cfg_t* former : records) waitForLevel(former, 3);
  setLevel(records[1], 1);
  for (const ad_debug_cfg_t* former : records) waitForLevel(former, 1);
  waitForLevel(record, 1);
}

TEST_F(ad_logdRecordsTest, TheParameterWordsAreNotKeptInStep) {
  { Logd().stop(); }
  auto logd = std::make_unique<Logd>();
  ad_debug_cfg_t* const old = recordOf(kSocket);
  EXPECT_EQ(logd->stop().exitCode(), 0);
  logd = std::make_unique<Logd>();
  ad_debug_cfg_t* const record = recordOf(kSocket);
  record->para[3] = 9;
  setLevel(record, 2);
  waitForLevel(old, 2);
  EXPECT_EQ(old->para[3], 0u);
}

TEST_F(ad_logdRecordsTest, AFormerRecordIsRemovedWhenNobodyUsesIt) {
  constexpr char kRemoved[] =
      "ad_logd: /tmp/ad_errorlog.0: removed a former record that nobody uses any more\n";
  int id;
  {
    Logd old;
    id = idOf(kSocket);
    ad_debug_cfg_t* const record = recordOf(kSocket);
    EXPECT_EQ(old.stop().exitCode(), 0);
    EXPECT_TRUE(exists(id));
    Logd logd;
    logd.waitForErr("kept in step: 1\n");
    setLevel(recordOf(kSocket), 2);
    waitForLevel(record, 2);
    EXPECT_TRUE(exists(id));
    EXPECT_THAT(logd.err(), Not(HasSubstr(kRemoved)));
    ad_return_ad_debug_cfg_p(record);
    logd.waitForErr(kRemoved);
    EXPECT_FALSE(exists(id));
    EXPECT_TRUE(exists(idOf(kSocket)));
    id = idOf(kSocket);
    EXPECT_EQ(logd.stop().exitCode(), 0);
  }
  EXPECT_TRUE(exists(id)) << "the last record outlives its daemon";
  EXPECT_THAT(lines(read("/tmp/ad_errorlog.0.records")), SizeIs(2)) << "it alone is listed";
}

TEST_F(ad_logdRecordsTest, TheTwoSocketsRecordsStayApart) {
  const Texts arguments = {"--special", kSpecialBase};
  {
    Logd old(arguments);
    setLevel(recordOf(kSocket), 1);
    setLevel(recordOf(kSpecialSocket), 4);
    EXPECT_EQ(old.stop().exitCode(), 0);
  }
  Logd logd(arguments);
  EXPECT_THAT(logd.err(), HasSubstr("listening at /tmp/ad_errorlog.0 (shared record, level 1) and "
                                    "/tmp/ad_errorlog_sp.0 (shared record, level 4)\n"));
}

std::string listLine(int id) {
  shmid_ds status = {};
  EXPECT_EQ(shmctl(id, IPC_STAT, &status), 0) << strerror(errno);
  char line[100];
  (void)snprintf(line, sizeof line, "%d 0x%08x %lld\n", id,
                 static_cast<unsigned>(status.shm_perm.__key),
                 static_cast<long long>(status.shm_ctime));
  return line;
}

// File systems give the numbers of removed files to new ones: what was the special log's record can
// come to be the other's.
TEST_F(ad_logdRecordsTest, TheRecordOfTheOtherSocketIsNoFormerOne) {
  std::string list = "ad_logd records 1\n";
  for (const key_t key : nextKeys()) list += listLine(shmget(key, 140, IPC_CREAT | 0666));
  write("/tmp/ad_errorlog_sp.0.records", list);
  Logd logd({"--special", kSpecialBase});
  const int id = idOf(kSocket);
  ASSERT_THAT(list, HasSubstr("\n" + listLine(id))) << "the trick with the numbers has failed";
  ad_debug_cfg_t* const record = recordOf(kSocket);
  ad_debug_cfg_t* const special = recordOf(kSpecialSocket);
  setLevel(record, 3);
  ad_return_ad_debug_cfg_p(record);
  logd.waitForErr("sp.0: removed a former record");
  EXPECT_TRUE(exists(id));
  EXPECT_EQ(special->ad_debug_level, 0);
  EXPECT_EQ(recordOf(kSocket)->ad_debug_level, 3);
}

// Lists that name the segment `victim`, and whether a daemon may believe them.
struct List {
  const char* name;
  std::function<void()> make;
  bool believed;
};

constexpr char kList[] = "/tmp/ad_errorlog.0.records";

void writeList(const std::string& text) {
  std::ofstream(kList, std::ios::binary) << text;
}

std::vector<List> listsOf(int victim) {
  const std::string line = "ad_logd records 1\n" + listLine(victim);
  const size_t key = line.find("0x") + 3;
  std::string other_key = line;
  other_key[key] ^= 1;
  std::string other_time = line;
  other_time[line.size() - 2] ^= 1;
  return {{"may be written by all",
           [=] {
             writeList(line);
             chmod(kList, 0666);
           },
           false},
          {"belongs to another user",
           [=] {
             writeList(line);
             ASSERT_EQ(chown(kList, 1000, 0), 0);
           },
           false},
          {"symbolic link",
           [=] {
             writeList(line);
             std::filesystem::rename(kList, "/tmp/elsewhere");
             std::filesystem::create_symlink("/tmp/elsewhere", kList);
           },
           false},
          {"another name of a list",
           [=] {
             writeList(line);
             std::filesystem::remove("/tmp/elsewhere");
             std::filesystem::create_hard_link(kList, "/tmp/elsewhere");
           },
           false},
          {"another form", [=] { writeList("#" + line); }, false},
          {"another key", [=] { writeList(other_key); }, false},
          {"another time", [=] { writeList(other_time); }, false},
          {"line that does not end", [=] { writeList(line.substr(0, line.size() - 1)); }, false},
          {"line that is none", [=] { writeList(line.substr(0, key) + "\n"); }, false},
          {"directory", [] { std::filesystem::create_directory(kList); }, false},
          {"as the daemon writes it", [=] { writeList(line); }, true},
          {"with a segment that is gone before it",
           [=] { writeList(std::string(line).insert(line.find('\n') + 1, "2147483647 0x0 0\n")); },
           true}};
}

TEST_F(ad_logdRecordsTest, SlowAListThatOthersMayHaveWrittenRemovesNothing) {
  // The record of somebody else's socket, which nobody uses at the moment.
  write("/tmp/socket", "");
  const int victim = shmget(ftok("/tmp/socket", 100), 140, IPC_CREAT | 0666);
  for (const List& row : listsOf(victim)) {
    if (!exists(victim)) break;
    row.make();
    {
      // A second former record, found by the socket, whose removal tells that all were looked at.
      const HandedSocket stale(kSocket);
      ASSERT_NE(shmget(ftok(kSocket, 100), 140, IPC_CREAT | 0666), -1);
    }
    Logd logd;
    logd.waitForErr("removed a former record");
    EXPECT_EQ(logd.stop().exitCode(), 0);
    EXPECT_EQ(exists(victim), !row.believed) << row.name;
    std::filesystem::remove_all(kList);
  }
}

// As where its socket has got the number of one that this daemon had.
TEST_F(ad_logdRecordsTest, ARecordThatAnotherDaemonMakesItsOwnIsForgotten) {
  const HandedSocket theirs("/tmp/theirs.0");
  const int id = shmget(ftok("/tmp/theirs.0", 100), 140, IPC_CREAT | 0666);
  const auto status = [id] {
    shmid_ds now = {};
    EXPECT_EQ(shmctl(id, IPC_STAT, &now), 0) << strerror(errno);
    return now;
  };
  auto* const record = static_cast<ad_debug_cfg_t*>(shmat(id, nullptr, 0));
  write("/tmp/ad_errorlog.0.records", "ad_logd records 1\n" + listLine(id));
  Logd logd;
  ad_debug_cfg_t* const ours = recordOf(kSocket);
  setLevel(ours, 2);
  waitForLevel(record, 2);
  const time_t made = status().shm_ctime;
  waitUntil([&] { return time(nullptr) != made; }, "the next second, as the kernel notes them");

  Activated other({theirs.fd()}, {"--base", "/tmp/theirs"});
  other.waitForErr("ad_logd: listening");
  EXPECT_GT(status().shm_ctime, made);
  waitUntil([&] { return status().shm_nattch == 2; }, "that only this test and the other have it");
  setLevel(record, 1);
  setLevel(ours, 3);
  EXPECT_EQ(other.stop().exitCode(), 0);
  EXPECT_EQ(logd.stop().exitCode(), 0);
  EXPECT_EQ(record->ad_debug_level, 1);
  EXPECT_EQ(ours->ad_debug_level, 3);
}

TEST_F(ad_logdRecordsTest, AListThatOthersMayHaveWrittenGivesNoSettings) {
  write("/tmp/socket", "");
  const int victim = shmget(ftok("/tmp/socket", 100), 140, IPC_CREAT | 0666);
  void* const record = shmat(victim, nullptr, 0);
  ASSERT_NE(record, reinterpret_cast<void*>(-1));
  for (const List& row : listsOf(victim)) {
    setLevel(static_cast<ad_debug_cfg_t*>(record), 3);
    row.make();
    Logd logd;
    EXPECT_THAT(logd.err(), HasSubstr(row.believed ? "record, level 3)" : "record, level 0)"))
        << row.name;
    EXPECT_EQ(logd.stop().exitCode(), 0);
    std::filesystem::remove_all(kList);
    shmctl(idOf(kSocket), IPC_RMID, nullptr);
  }
  shmdt(record);
  EXPECT_TRUE(exists(victim)) << "it was in use";
}

TEST_F(ad_logdRecordsTest, ARecordOfAnotherUserIsForgottenAndNotRemoved) {
  write("/tmp/socket", "");
  const int victim = shmget(ftok("/tmp/socket", 100), 140, IPC_CREAT | 0666);
  void* const record = shmat(victim, nullptr, 0);
  ASSERT_NE(record, reinterpret_cast<void*>(-1));
  setLevel(static_cast<ad_debug_cfg_t*>(record), 3);
  shmdt(record);
  const std::string list = "/tmp/ad_errorlog.1000.records";
  const std::string line = listLine(victim);
  write(list, "ad_logd records 1\n" + line);
  ASSERT_EQ(chown(list.c_str(), 1000, 0), 0);
  Child logd([] {
    becomeUser(1000);
    execl(kProgram, kProgram, nullptr);
  });
  logd.waitForErr("listening at /tmp/ad_errorlog.1000 (shared record, level 3)\n");
  waitUntil([&] { return read(list).find(line) == std::string::npos; }, "that it is forgotten");
  EXPECT_TRUE(exists(victim));
  EXPECT_THAT(logd.err(), Not(HasSubstr("removed")));
}

TEST_F(ad_logdRecordsTest, AListThatADiskHasNoRoomForIsToldAndLeftAsItWas) {
  std::filesystem::create_directories("/tmp/disk");
  ASSERT_EQ(mount("tmpfs", "/tmp/disk", "tmpfs", MS_NOSUID | MS_NODEV, "size=64k"), 0)
      << strerror(errno);
  const int fd = open("/tmp/disk/filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string page(4096, '.');
  while (::write(fd, page.data(), page.size()) > 0) continue;
  EXPECT_EQ(errno, ENOSPC);
  close(fd);
  Logd logd({"--base", "/tmp/disk/log"});
  EXPECT_THAT(
      logd.err(),
      HasSubstr("ad_logd: cannot write /tmp/disk/log.0.records: No space left on device\n"));
  EXPECT_FALSE(std::filesystem::exists("/tmp/disk/log.0.records.new"));
}

TEST_F(ad_logdRecordsTest, ASocketOfAnotherUserLeadsToNoRecord) {
  const ChildResult other = runInChild([] {
    becomeUser(1000);
    const HandedSocket stale(kSocket);
    const int id = shmget(ftok(kSocket, 100), 140, IPC_CREAT | 0666);
    setLevel(static_cast<ad_debug_cfg_t*>(shmat(id, nullptr, 0)), 3);
  });
  ASSERT_EQ(other.exitCode(), 0) << other;
  EXPECT_EQ(Logd().err(), "ad_logd: listening at /tmp/ad_errorlog.0 (shared record, level 0)\n");
}

TEST_F(ad_logdRecordsTest, ADaemonThatIsRefusedTouchesNothing) {
  Logd logd;
  setLevel(recordOf(kSocket), 3);
  const std::string list = read("/tmp/ad_errorlog.0.records");
  EXPECT_EQ(runProgram({kProgram}).exitCode(), 1);
  EXPECT_EQ(read("/tmp/ad_errorlog.0.records"), list);
  EXPECT_EQ(recordOf(kSocket)->ad_debug_level, 3);
}

TEST_F(ad_logdRecordsTest, ADaemonWhoseSocketWasReplacedLeavesTheListAlone) {
  Logd first;
  std::filesystem::remove(kSocket);
  Logd second;
  const std::string list = read("/tmp/ad_errorlog.0.records");
  EXPECT_EQ(first.stop().exitCode(), 0);
  EXPECT_EQ(read("/tmp/ad_errorlog.0.records"), list);
}

TEST_F(ad_logdRecordsTest, AListThatCannotBeWrittenIsToldAndStopsNothing) {
  std::filesystem::create_directory("/tmp/ad_errorlog.0.records.new");
  Logd logd;
  EXPECT_THAT(logd.err(),
              HasSubstr("ad_logd: cannot write /tmp/ad_errorlog.0.records: File exists\n"));
  Sender().send(datagram("all the same\n"));
  logd.waitForOut(" all the same\n");
}

TEST_F(ad_logdRecordsTest, ARecordRemovedByHandIsForgotten) {
  {
    Logd old;
    setLevel(recordOf(kSocket), 3);
    shmctl(idOf(kSocket), IPC_RMID, nullptr);
    EXPECT_EQ(old.stop().exitCode(), 0);
  }
  // This test still has it attached: its settings are known.
  Logd logd;
  EXPECT_THAT(logd.err(), HasSubstr("(shared record, level 3)"));
}

}  // namespace
