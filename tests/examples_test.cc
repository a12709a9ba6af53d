// The small programs under examples/, run as a user would.
#include <gmock/gmock.h>

#include <memory>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

class examplesTest : public PrivateWorld {
 protected:
  ChildResult run(const std::string& program, const std::vector<std::string>& environment = {}) {
    return runProgram({VELORIN_BIN "/" + program}, environment);
  }
};

TEST_F(examplesTest, LogLinesWritesErrorsAtLevelOneAndEverythingAtLevelThree) {
  LogListener superuser("/tmp/ad_errorlog.0");
  for (const char* level : {"1", "3"}) {
    const ChildResult child = run("example_log_lines", {std::string("DEBUG_LEVEL=") + level});
    EXPECT_EQ(child.exitCode(), 0) << child;
    EXPECT_EQ(child.err, "");
  }
  const std::string prefix = "log_lines\\([0-9]+\\)";
  const auto flag1 = MatchesRegex(
      prefix + "ERRO:ad_debug.cc:[0-9]+-> ad_debug_syslog_critical_msg_only set to true\n");
  const auto flag2 = MatchesRegex(
      prefix +
      "ERRO:ad_debug.cc:[0-9]+-> non-critical message won't be written to syslog in any case\n");
  const auto erro = MatchesRegex(
      prefix + "ERRO:log_lines.c:[0-9]+-> open /nonexistent/list: No such file or directory\n");
  const auto crtc =
      MatchesRegex(prefix + "CRTC:log_lines.c:[0-9]+-> no list: every client is refused\n");
  const auto trce = MatchesRegex(prefix + "TRCE:log_lines.c:[0-9]+-> starting with level 3\n");
  const auto detl =
      MatchesRegex(prefix + "DETL:log_lines.c:[0-9]+-> the record lies at 0x[0-9a-f]+\n");
  EXPECT_THAT(superuser.waiting(),
              ElementsAre(flag1, flag2, erro, crtc, flag1, flag2, erro, crtc, trce, detl));
}

TEST_F(examplesTest, LogLinesWithoutADaemonWritesToStandardError) {
  removeDaemon();
  const ChildResult child = run("example_log_lines");
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_THAT(
      child.err,
      HasSubstr(
          "WARNING: cannot contact ad_logd, will keep trying. Output redirected to stderr.\n"));
  EXPECT_THAT(child.err, HasSubstr(")ERRO:log_lines.c:"));
}

TEST_F(examplesTest, ReportFailuresLogsWhatItCatches) {
  LogListener superuser("/tmp/ad_errorlog.0");
  write("/tmp/ad_errorlog.0.cfg", "debug_level=2\n");
  const ChildResult child = run("example_report_failures");
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out, "running with the defaults\n");
  const std::string prefix = "example_report_failures\\([0-9]+\\)";
  EXPECT_THAT(
      superuser.waiting(),
      ElementsAre(MatchesRegex(prefix + "TRCE:logger.cc:[0-9]+-> reading the configuration\n"),
                  MatchesRegex(prefix + "ERRO:Logger:[0-9]+-> Caught an exception at "
                                        "\"report_failures.cc\" line [0-9]+: 21 "
                                        "\"/nonexistent/conf: No such file or directory\""),
                  MatchesRegex(prefix + "ERRO:Logger:[0-9]+-> Caught an exception at "
                                        "\"report_failures.cc\" line [0-9]+"),
                  MatchesRegex(prefix + "ERRO:Logger:[0-9]+-> going on with the defaults\n")));
}

}  // namespace
