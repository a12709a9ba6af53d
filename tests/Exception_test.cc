// The exception type, SystemError and the program name.
#include "velorin/Exception"

#include <errno.h>
#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <type_traits>

#include "support/failing_new.h"
#include "support/private_world.h"
#include "support/syslog_recorder.h"
#include "velorin/SystemError"
#include "velorin/ad_debug"
#include "velorin/programName"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;

static_assert(!std::is_polymorphic_v<Exception>);
static_assert(std::is_nothrow_move_constructible_v<Exception>);
static_assert(std::is_copy_assignable_v<Exception>);
struct Fields {
  int32_t id;
  std::string details;
};
static_assert(sizeof(Exception) == sizeof(Fields), "two fields and no base");

TEST(ExceptionTest, DefaultIsIdentifierZeroWithoutDetails) {
  const Exception e;
  EXPECT_EQ(e.id(), 0);
  EXPECT_EQ(e.details(), "");
  EXPECT_EQ(e.toString(), "0");
}

TEST(ExceptionTest, DetailsAloneHaveIdentifierZero) {
  const Exception e(std::string("no such file"));
  EXPECT_EQ(e.id(), 0);
  EXPECT_EQ(e.details(), "no such file");
  EXPECT_EQ(e.toString(), "0 \"no such file\"");
}

TEST(ExceptionTest, TextForm) {
  EXPECT_EQ(Exception(3, "no such file").toString(), "3 \"no such file\"");
  EXPECT_EQ(Exception(7, "").toString(), "7");
  EXPECT_EQ(Exception(7, "x").toString(), "7 \"x\"");
  EXPECT_EQ(Exception(-12, "x").toString(), "-12 \"x\"");
  EXPECT_EQ(Exception(std::numeric_limits<int>::min(), "").toString(), "-2147483648");
  EXPECT_EQ(Exception(1, "a \"quoted\" part").toString(), "1 \"a \"quoted\" part\"");
}

TEST(ExceptionTest, DetailsAreAReferenceThatLivesAsLongAsTheException) {
  const Exception e(1, "text");
  EXPECT_EQ(&e.details(), &e.details());
}

TEST(ExceptionTest, CopiesAndAssignmentsTakeBothFields) {
  const Exception e(5, "five");
  Exception copy(e);
  EXPECT_EQ(copy, e);
  copy = Exception(6, "six");
  EXPECT_EQ(copy.toString(), "6 \"six\"");
}

TEST(ExceptionTest, ComparesIdentifierThenDetails) {
  EXPECT_TRUE(Exception(1, "a") == Exception(1, "a"));
  EXPECT_FALSE(Exception(1, "a") == Exception(1, "b"));
  EXPECT_FALSE(Exception(1, "a") == Exception(2, "a"));
  EXPECT_TRUE(Exception(1, "z") < Exception(2, "a"));
  EXPECT_FALSE(Exception(2, "a") < Exception(1, "z"));
  EXPECT_TRUE(Exception(1, "a") < Exception(1, "b"));
  EXPECT_FALSE(Exception(1, "a") < Exception(1, "a"));
}

TEST(ExceptionTest, IsThrownAndCaughtByValue) {
  try {
    throw Exception(9, "thrown");
  } catch (Exception e) {
    EXPECT_EQ(e.toString(), "9 \"thrown\"");
    return;
  }
  FAIL();
}

class ExceptionReportTest : public PrivateWorld {
 protected:
  // A configuration of level `level`, private to this process, that lets errors through to syslog.
  static void configure(int32_t level) {
    ad_read_debug_cfg_direct_read_from_env();
    ad_debug_cfg_p->ad_debug_level = level;
    ad_debug_syslog_critical_msg_only = 0;
  }
};

TEST_F(ExceptionReportTest, CaughtNamesTheHeaderInItsPrefixAndTheCatchBlockInItsMessage) {
  ad_debug_set_process_name("report");
  Exception(7, "x").caught("/src/a.cc", 12);
  EXPECT_THAT(daemon().next().text,
              MatchesRegex("report\\([0-9]+\\)ERRO:Logger:[0-9]+-> "
                           "Caught an exception at \"/src/a.cc\" line 12: 7 \"x\""));
}

TEST_F(ExceptionReportTest, CaughtWithoutDetailsEndsInTheIdentifier) {
  Exception(-4, "").caught("a.cc", -1);
  EXPECT_THAT(daemon().next().text, EndsWith("-> Caught an exception at \"a.cc\" line -1: -4"));
}

TEST_F(ExceptionReportTest, UnknownExceptionHasNeitherColonNorTextForm) {
  Exception_caught("b.cc", 34);
  EXPECT_THAT(daemon().next().text, MatchesRegex("\\([0-9]+\\)ERRO:Logger:[0-9]+-> "
                                                 "Caught an exception at \"b.cc\" line 34"));
}

TEST_F(ExceptionReportTest, NullFileIsShownAsNull) {
  Exception_caught(nullptr, 1);
  EXPECT_THAT(daemon().next().text, EndsWith("Caught an exception at \"(null)\" line 1"));
}

TEST_F(ExceptionReportTest, CaughtWithoutMemoryStillWritesTheLine) {
  const Exception e(7, "x");
  allocations_fail_from = 16;
  e.caught("a.cc", 12);
  Exception_caught("b.cc", 34);
  allocations_fail_from = 0;
  EXPECT_THAT(daemon().next().text,
              MatchesRegex("\\([0-9]+\\)ERRO:Exception\\.cc:[0-9]+-> "
                           "Caught an exception at \"a.cc\" line 12: 7 \"x\""));
  EXPECT_THAT(daemon().next().text, MatchesRegex("\\([0-9]+\\)ERRO:Exception\\.cc:[0-9]+-> "
                                                 "Caught an exception at \"b.cc\" line 34"));
}

TEST_F(ExceptionReportTest, CaughtAtLevelZeroWritesTheLineButNoSyslogCopy) {
  configure(0);
  Exception(1, "x").caught("a.cc", 1);
  EXPECT_EQ(daemon().waiting().size(), 1u);
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
}

TEST_F(ExceptionReportTest, CaughtAtLevelOneIsCopiedToSyslogUnlessCriticalOnly) {
  configure(1);
  ad_debug_module_id = 77;
  Exception(1, "x").caught("a.cc", 1);
  const auto calls = takeSyslogCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].priority, 7);
  EXPECT_EQ(calls[0].module, 77u);
  EXPECT_EQ(calls[0].zero, 0u);
  EXPECT_EQ(calls[0].message_id, 100000u);
  EXPECT_THAT(calls[0].text, MatchesRegex("\\([0-9]+\\)ERRO:Logger:[0-9]+-> "
                                          "Caught an exception at \"a.cc\" line 1: 1 \"x\""));

  ad_debug_syslog_critical_msg_only = 1;
  Exception(1, "x").caught("a.cc", 1);
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
  EXPECT_EQ(daemon().waiting().size(), 2u);
}

TEST_F(ExceptionReportTest, ReportsAtLevelFourGoToTheSpecialLogToo) {
  LogListener special("/tmp/ad_errorlog_sp");
  configure(4);
  Exception(1, "x").caught("a.cc", 1);
  Exception_caught("a.cc", 2);
  EXPECT_EQ(daemon().waiting().size(), 2u);
  EXPECT_THAT(special.waiting(),
              ElementsAre(EndsWith("Caught an exception at \"a.cc\" line 1: 1 \"x\""),
                          EndsWith("Caught an exception at \"a.cc\" line 2")));
}

TEST_F(ExceptionReportTest, ReportsInSignalHandlersAreNotCopiedToSyslog) {
  configure(1);
  ad_debug_in_sighandler = 1;
  Exception(1, "x").caught("a.cc", 1);
  Exception_caught("a.cc", 1);
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
  EXPECT_EQ(daemon().waiting().size(), 2u);
}

TEST_F(ExceptionReportTest, CaughtObeysTheConnectionFilter) {
  configure(1);
  ad_debug_cfg_p->debug_target_client_ip = 1;
  ad_current_client_ip = 2;
  Exception(1, "x").caught("a.cc", 1);
  Exception_caught("a.cc", 1);
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
}

TEST_F(ExceptionReportTest, LongDetailsAreCutWithTheLine) {
  Exception(1, std::string(10000, 'd')).caught("a.cc", 1);
  EXPECT_EQ(daemon().next().text.size(), 4086u);
}

TEST(SystemErrorTest, IsTheTextOfErrnoAndKeepsIt) {
  errno = ENOENT;
  EXPECT_EQ(SystemError(), "No such file or directory");
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(SystemError(), "Success");
  errno = 12345;
  EXPECT_EQ(SystemError(), "Unknown error 12345");
  EXPECT_EQ(errno, 12345);
}

TEST(programNameTest, NamesAreNullBeforeTheyAreSet) {
  EXPECT_EQ(getFullProgramName(), nullptr);
  EXPECT_EQ(getProgramName(), nullptr);
}

TEST(programNameTest, TheFullNameIsThePointerThatWasGivenAndTheShortOneAPartOfIt) {
  static char name[] = "/usr/sbin/cached";
  setProgramName(name);
  EXPECT_EQ(static_cast<const void*>(getFullProgramName()), name);
  EXPECT_EQ(static_cast<const void*>(getProgramName()), name + 10);
  name[10] = 'k';
  EXPECT_STREQ(getProgramName(), "kached");
}

TEST(programNameTest, ShortNames) {
  struct {
    const char* name;
    const char* short_name;
  } const rows[] = {
      {"cached", "cached"}, {"./cached", "cached"}, {"/a/b/c", "c"}, {"", ""}, {"/a/", ""}};
  for (const auto& row : rows) {
    setProgramName(row.name);
    EXPECT_STREQ(getProgramName(), row.short_name) << row.name;
  }
  setProgramName(nullptr);
  EXPECT_EQ(getFullProgramName(), nullptr);
  EXPECT_EQ(getProgramName(), nullptr);
}

}  // namespace
