// The Java classes in a real JVM of the library's own width.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/recording_syslog.h"
#include "support/syslog_listener.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Strings = std::vector<std::string>;

constexpr char kLibraries[] = VELORIN_BUILD "/lib";
constexpr const char* kWidth = sizeof(void*) == 4 ? "32" : "64";

class javaTest : public PrivateWorld {
 protected:
#ifdef VELORIN_JAVA_UNPACKED
  void SetUp() override {
    for (const std::string package : {"openjdk-17-jre-headless", "zlib1g"}) {
      if (std::filesystem::exists(VELORIN_JAVA_UNPACKED "/.unpacked/" + package)) continue;
      GTEST_SKIP() << "not run, because the 32-bit Java runtime is missing: no " << package
                   << " of i386 in " << VELORIN_JAVA_UNPACKED
                   << ", where scripts/setup puts it if the package source has it";
    }
  }
  const Strings runtime_ = {"LD_LIBRARY_PATH=" VELORIN_JAVA_UNPACKED "/lib/i386-linux-gnu"};
#else
  const Strings runtime_ = {};
#endif

  // Small and interpreted, so that many start at a time; the JVM itself reports, on standard
  // output, what a native method does wrong.
  Strings command(const std::string& jar, const Strings& arguments, const Strings& properties) {
    Strings argv = {VELORIN_JAVA,
                    "-Xcheck:jni",
                    "-Xint",
                    "-Xmx64m",
                    "-XX:+UseSerialGC",
                    "-XX:-CreateCoredumpOnCrash",
                    "-XX:-UsePerfData",
                    "-XX:ErrorFile=/tmp/hs_err.log"};
    argv.insert(argv.end(), properties.begin(), properties.end());
    argv.insert(argv.end(), {"-jar", std::string(kLibraries) + "/" + jar});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }

  Strings environment() const {
    Strings texts = syslog_.environment();
    texts.insert(texts.end(), runtime_.begin(), runtime_.end());
    return texts;
  }

  const Strings load_ours_ = {std::string("-Djava.library.path=") + kLibraries};

  // Runs JniProbe and fails the test when it does not end well.
  ChildResult probe(const Strings& commands) {
    const ChildResult child =
        runProgram(command("jni-probe.jar", commands, load_ours_), environment());
    EXPECT_EQ(child.exitCode(), 0) << child;
    return child;
  }

  RecordingSyslog syslog_;
};

// What holds for both classes.
class javaClassTest : public javaTest, public testing::WithParamInterface<const char*> {
 protected:
  // Each command's class is the parameter.
  ChildResult probe(Strings commands) {
    for (std::string& command : commands) command = std::string(GetParam()) + " " + command;
    return javaTest::probe(commands);
  }

  LogListener unified_{"/tmp/zam-errorlog.0"};
};
INSTANTIATE_TEST_SUITE_P(, javaClassTest, testing::Values("Logger", "KuSyslogApi"),
                         [](const auto& row) { return std::string(row.param); });

TEST_P(javaClassTest, KuSyslogGoesToTheSyslogServiceAndWithItsLetterToTheUnifiedLog) {
  Strings commands;
  Strings calls = {"ku_syslog_init"};
  for (const char priority : std::string("01234567")) {
    commands.push_back({"ku_syslog ? 12 34 disk is full"});
    commands.back()[10] = priority;
    calls.push_back({"ku_syslog ? 12 0 34 disk is full"});
    calls.back()[10] = priority;
  }
  const ChildResult child = probe(commands);
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.err, "");
  EXPECT_THAT(syslog_.calls(), ElementsAreArray(calls));
  EXPECT_THAT(unified_.waiting(),
              ElementsAre(" [E] disk is full", " [A] disk is full", " [C] disk is full",
                          " [R] disk is full", " [W] disk is full", " [N] disk is full",
                          " [I] disk is full", " [D] disk is full"));
}

TEST_P(javaClassTest, ZamSyslogIsRecordedUnderModule84) {
  probe({"zam_syslog 4 700001 link is down"});
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog 4 84 0 700001 link is down"));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [W] link is down"));
}

TEST_P(javaClassTest, NullStringIsRecordedUnderModule84AndNotSentToTheUnifiedLog) {
  const ChildResult child = probe({"ku_syslog 3 12 34", "zam_syslog 5 35"});
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.err, "");
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 3 84 0 34 (null message)",
                                           "ku_syslog 5 84 0 35 (null message)"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_P(javaClassTest, EmptyStringIsAMessageLikeAnyOther) {
  probe({"ku_syslog 3 12 34 ", "zam_syslog 5 35 "});
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog 3 12 0 34 ", "ku_syslog 5 84 0 35 "));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [R] ", " [N] "));
}

TEST_P(javaClassTest, NumbersArePassedOnAndOddPrioritiesHaveNoLetter) {
  probe({"ku_syslog -1 0 0 a", "ku_syslog 8 -1 -1 b", "ku_syslog -2147483648 2147483647 1 c",
         "ku_syslog 2147483647 -2147483648 -2147483648 d"});
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog -1 0 0 0 a",
                                           "ku_syslog 8 4294967295 0 4294967295 b",
                                           "ku_syslog -2147483648 2147483647 0 1 c",
                                           "ku_syslog 2147483647 2147483648 0 2147483648 d"));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [?] a", " [?] b", " [?] c", " [?] d"));
}

TEST_P(javaClassTest, MessagesAreArgumentsAndNotFormats) {
  probe({"ku_syslog 4 12 34 100% %s %n %99999d"});
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog 4 12 0 34 100% %s %n %99999d"));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [W] 100% %s %n %99999d"));
}

TEST_P(javaClassTest, TextIsModifiedUtf8) {
  // A letter with two bytes, one with three, a null character, a pair of surrogates, a lone one.
  probe({R"(ku_syslog 4 12 34 \u00fc\u20ac[\u0000]\ud83d\ude00 \ud800!)"});
  const std::string text = "\xC3\xBC\xE2\x82\xAC[\xC0\x80]\xED\xA0\xBD\xED\xB8\x80 \xED\xA0\x80!";
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 4 12 0 34 " + text));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [W] " + text));
}

TEST_P(javaClassTest, LongMessagesAreRecordedWholeAndCutAt4086BytesInTheUnifiedLog) {
  const std::string text(5000, 'x');
  probe({"ku_syslog 4 12 34 " + text});
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 4 12 0 34 " + text));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [W] " + text.substr(0, 4081)));
}

TEST_P(javaClassTest, IsDebugEnabledIsTheLowByteOfTheClientsAnswer) {
  const struct {
    int answer;
    const char* printed;
  } rows[] = {{0x100, "false\n"}, {0x102, "true\n"}};
  for (const auto& row : rows) {
    syslog_.clear();
    syslog_.isDebugEnabledReturns(row.answer);
    EXPECT_EQ(probe({"is_debug_enabled"}).out, row.printed) << row.answer;
    EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "is_debug_enabled 84 0"));
  }
}

TEST_P(javaClassTest, SetDebugSwitchesModule84) {
  probe({"set_debug true", "set_debug false"});
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "set_debug 84 0 1", "set_debug 84 0 0"));
}

TEST_P(javaClassTest, FailedInitialisationDropsEverythingSilently) {
  syslog_.initReturns(1);
  syslog_.isDebugEnabledReturns(1);
  const ChildResult child = probe({"ku_syslog 0 12 34 gone", "ku_syslog 0 12 34",
                                   "zam_syslog 0 34 gone", "set_debug true", "is_debug_enabled"});
  EXPECT_EQ(child.out, "false\n");
  EXPECT_EQ(child.err, "");
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_F(javaTest, UnifiedLogUnreachableIsOnePerrorLinePerMessage) {
  const ChildResult child = probe({"Logger ku_syslog 4 12 34 one",
                                   "KuSyslogApi zam_syslog 4 34 two", "Logger zam_syslog 4 34"});
  EXPECT_EQ(child.err,
            "sendto(): No such file or directory\n"
            "sendto(): No such file or directory\n");
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog 4 12 0 34 one", "ku_syslog 4 84 0 34 two",
                          "ku_syslog 4 84 0 34 (null message)"));
}

TEST_F(javaTest, ThreadsOfBothClassesLoseNothing) {
  constexpr int kThreads = 8;
  constexpr int kMessages = 100;
  LogListener unified("/tmp/zam-errorlog.0");
  const ChildResult child = probe({"threads 8 100"});

  Strings records;
  Strings texts;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int message = 0; message < kMessages; ++message) {
      const std::string text = std::to_string(thread) + "." + std::to_string(message);
      records.push_back("ku_syslog 6 84 0 " + std::to_string(thread) + " " + text);
      texts.push_back(" [I] " + text);
    }
  }
  Strings calls = syslog_.calls();
  EXPECT_EQ(calls.front(), "ku_syslog_init");
  calls.erase(std::remove(calls.begin(), calls.end(), "ku_syslog_init"), calls.end());
  std::sort(records.begin(), records.end());
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, records);

  // Nobody reads while they write: what the socket has room for arrives, and each of the others is
  // one line.
  Strings arrived = unified.waiting();
  std::sort(texts.begin(), texts.end());
  std::sort(arrived.begin(), arrived.end());
  EXPECT_TRUE(std::includes(texts.begin(), texts.end(), arrived.begin(), arrived.end()))
      << testing::PrintToString(arrived);
  std::string complaints;
  for (size_t i = arrived.size(); i < texts.size(); ++i)
    complaints += "sendto(): Resource temporarily unavailable\n";
  EXPECT_EQ(child.err, complaints);
  EXPECT_THAT(arrived, testing::Not(IsEmpty()));
}

// ---- Loading the library ----

class javaLoadTest : public javaTest {
 protected:
  // What JniProbe writes to standard error when it ends with an uncaught error.
  std::string errorOfProbe(const std::string& class_name, const Strings& properties) {
    const ChildResult child = runProgram(
        command("jni-probe.jar", {class_name + " is_debug_enabled"}, properties), environment());
    EXPECT_EQ(child.exitCode(), 1) << child;
    EXPECT_EQ(child.out, "");
    return child.err;
  }

  static std::string intoThisJvm() { return std::string(" into this ") + kWidth + "-bit JVM: "; }
};

TEST_F(javaLoadTest, PropertyNamesTheFile) {
  const ChildResult child = runProgram(
      command("jni-probe.jar", {"Logger is_debug_enabled", "KuSyslogApi is_debug_enabled"},
              {"-Djava.library.path=/nowhere",
               std::string("-Dvelorin.util.library=") + kLibraries + "/libvelorin-util.so"}),
      environment());
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out, "false\nfalse\n");
}

TEST_F(javaLoadTest, MissingLibraryIsReportedWithTheFoldersAndTheWidth) {
  for (const char* class_name : {"Logger", "KuSyslogApi"})
    EXPECT_THAT(errorOfProbe(class_name, {"-Djava.library.path=/nowhere:/tmp"}),
                HasSubstr("java.lang.UnsatisfiedLinkError: cannot load libvelorin-util.so in "
                          "java.library.path=/nowhere:/tmp" +
                          intoThisJvm()));
}

TEST_F(javaLoadTest, MissingFileIsReportedWithItsPathAndTheWidth) {
  for (const char* class_name : {"Logger", "KuSyslogApi"})
    EXPECT_THAT(
        errorOfProbe(class_name, {"-Dvelorin.util.library=/tmp/libours.so"}),
        HasSubstr("java.lang.UnsatisfiedLinkError: cannot load /tmp/libours.so" + intoThisJvm()));
}

TEST_F(javaLoadTest, FileThatIsNoLibraryIsReportedWithItsPathAndTheWidth) {
  write("/tmp/libvelorin-util.so", std::string(4096, 'x'));
  EXPECT_THAT(errorOfProbe("Logger", {"-Djava.library.path=/tmp"}),
              AllOf(HasSubstr("java.lang.UnsatisfiedLinkError: cannot load libvelorin-util.so in "
                              "java.library.path=/tmp" +
                              intoThisJvm()),
                    HasSubstr("/tmp/libvelorin-util.so: invalid ELF header")));
}

TEST_F(javaLoadTest, LibraryOfTheOtherWidthIsReportedWithItsPathAndTheWidth) {
  constexpr size_t kClass = 4;  // the width's place in an ELF file's first bytes
  std::string library = read(std::string(kLibraries) + "/libvelorin-util.so");
  library[kClass] = library[kClass] == '\1' ? '\2' : '\1';
  write("/tmp/other.so", library);
  EXPECT_THAT(
      errorOfProbe("Logger", {"-Dvelorin.util.library=/tmp/other.so"}),
      AllOf(HasSubstr("java.lang.UnsatisfiedLinkError: cannot load /tmp/other.so" + intoThisJvm()),
            HasSubstr("wrong ELF class")));
}

// ---- With the real syslog client ----

#ifdef VELORIN_OWN_LIBSYSLOG
class javaSyslogTest : public javaTest {
 protected:
  javaSyslogTest() {
    cover("/dev");
    dev_log_ = std::make_unique<SyslogListener>();
  }
  ~javaSyslogTest() override {
    dev_log_.reset();
    (void)umount2("/dev", MNT_DETACH);
  }

  std::unique_ptr<SyslogListener> dev_log_;
};

TEST_F(javaSyslogTest, MessagesReachTheSyslogServerAndTheDebugSwitchKeepsItsState) {
  const ChildResult child = runProgram(
      command("jni-probe.jar",
              {"Logger ku_syslog 4 12 34 through all of it", "Logger zam_syslog 9 35 odd",
               "Logger is_debug_enabled", "KuSyslogApi set_debug true", "Logger is_debug_enabled",
               "Logger set_debug false", "KuSyslogApi is_debug_enabled"},
              load_ours_),
      runtime_);
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out, "false\ntrue\nfalse\n");
  const std::vector<SyslogRecord> records = dev_log_->waiting();
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].ident, "java");
  EXPECT_EQ(records[0].priority, 4);
  EXPECT_EQ(records[0].text, "[module 12 id 34] through all of it");
  EXPECT_EQ(records[1].text, "[module 84 id 35 priority 9] odd");
}

TEST_F(javaSyslogTest, ExampleLogsOneMessageOfEachKind) {
  LogListener unified("/tmp/zam-errorlog.0");
  const ChildResult child =
      runProgram(command("log-from-java.jar", {"--list", "/etc/list"}, load_ours_), runtime_);
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out, "debug output is off\n");
  EXPECT_EQ(child.err, "");
  Strings records;
  for (const SyslogRecord& record : dev_log_->waiting())
    records.push_back(std::to_string(record.priority) + " " + record.text);
  EXPECT_THAT(records, ElementsAre("5 [module 84 id 512001] started",
                                   "3 [module 12 id 512002] no list: every client is refused",
                                   "7 [module 84 id 512001] arguments: --list /etc/list"));
  EXPECT_THAT(unified.waiting(),
              ElementsAre(" [N] started", " [R] no list: every client is refused",
                          " [D] arguments: --list /etc/list"));
}
#endif

}  // namespace
