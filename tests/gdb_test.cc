// The library's commands for gdb, run by gdb itself.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::HasSubstr;
using testing::Not;

using Arguments = std::vector<std::string>;

constexpr bool kWide = sizeof(void*) == 8;
constexpr char kScript[] = VELORIN_SOURCE "/utils/gdb/velorin-util-gdb.py";
constexpr char kProgram[] = VELORIN_BIN "/gdb_program";
constexpr char kTitles[] = "pages  size  requested  made  free  erase\n";

// The rows that gdb_program's pools have, behind their addresses.
const std::string kSome = "   1   100         10    40    37     no";
const std::string kFull =
    kWide ? "   1     8        504   503     0    yes" : "   1     4       1015  1014     0    yes";
const std::string kSmall =
    kWide ? "  10   3/8       5000  5111  5111     no" : "   5   3/4       5000  5110  5110     no";
// The last one when its free list cannot be counted.
const std::string kUncounted = kWide ? "  10   3/8       5000  5111     ?     no  "
                                     : "   5   3/4       5000  5110     ?     no  ";

// A copy of the library in /tmp comes before the library; its libsyslog lies where it was.
constexpr char kUseCopy[] = "set environment LD_LIBRARY_PATH /tmp:" VELORIN_BUILD "/lib";

const std::string kRegister = "gcSdMgmtROPage";
const std::string kSmallPool = "gcSdMgmtROPage->pools[2].pool_base";

class gdbTest : public PrivateWorld {
 protected:
  // Runs gdb on the arguments; the library's commands are loaded as gdb loads them by itself.
  static ChildResult gdb(const Arguments& arguments) {
    Arguments argv = {
        "gdb",  "-nx",         "-q",   "-batch",
        "-iex", "set width 0", "-iex", "add-auto-load-safe-path " VELORIN_BUILD "/lib"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const ChildResult result = runProgram(argv, {"DEBUGINFOD_URLS="}, 120);
    EXPECT_THAT(result.err, Not(HasSubstr("Traceback"))) << result;
    EXPECT_THAT(result.err, Not(HasSubstr("Python Exception"))) << result;
    return result;
  }

  // The same on gdb_program, which has stopped by itself when the commands come.
  static ChildResult inspect(const std::string& record, const Arguments& commands) {
    Arguments arguments = {"-ex", "run"};
    for (const std::string& command : commands) {
      arguments.push_back("-ex");
      arguments.push_back(command);
    }
    arguments.insert(arguments.end(), {"--args", kProgram, record, "trap"});
    return gdb(arguments);
  }

  static ChildResult poolsAfter(const std::string& damage) {
    return inspect("own", {"set var " + damage, "velorin pools"});
  }

  static void expectPools(const ChildResult& result) {
    EXPECT_THAT(result.out, HasSubstr(kTitles)) << result;
    EXPECT_THAT(result.out, HasSubstr(kSome + "\n")) << result;
    EXPECT_THAT(result.out, HasSubstr(kFull + "\n")) << result;
    EXPECT_THAT(result.out, HasSubstr(kSmall + "\n")) << result;
  }
};

TEST_F(gdbTest, ListsThePoolsOfAProgramThatItStarted) {
  expectPools(inspect("own", {"velorin pools"}));
}

TEST_F(gdbTest, ListsThePoolsOfAProcessThatItAttachedTo) {
  Child program({kProgram, "own", "wait"});
  ASSERT_TRUE(program.waitForOut("ready"));
  expectPools(gdb({"-p", std::to_string(program.pid()), "-ex", "velorin pools"}));
}

// With a sanitizer a core holds its shadow memory, terabytes of it.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(gdbTest, ListsThePoolsOfACoreFile) {
  const ChildResult dump = inspect("own", {"generate-core-file /tmp/pools.core"});
  const ChildResult result =
      gdb({kProgram, "/tmp/pools.core", "-ex", "velorin pools", "-ex", "velorin debug-record"});
  expectPools(result);
  EXPECT_THAT(result.out, HasSubstr("client  192.0.2.7\n")) << dump << result;
}
#endif

TEST_F(gdbTest, NeedsOnlyTheSymbolTableOfTheLibrary) {
  ASSERT_EQ(runProgram({"objcopy", "--strip-debug", VELORIN_BUILD "/lib/libvelorin-util.so.1",
                        "/tmp/libvelorin-util.so.1"})
                .exitCode(),
            0);
  const ChildResult result =
      inspect("own", {"kill", kUseCopy, "run", std::string("source ") + kScript,
                      "info sharedlibrary velorin", "velorin pools"});
  EXPECT_THAT(result.out, HasSubstr("/tmp/libvelorin-util.so.1\n")) << result;
  expectPools(result);
}

TEST_F(gdbTest, SaysThatTheSymbolTableIsMissing) {
  ASSERT_EQ(runProgram({"objcopy", "--strip-all", VELORIN_BUILD "/lib/libvelorin-util.so.1",
                        "/tmp/libvelorin-util.so.1"})
                .exitCode(),
            0);
  const ChildResult result =
      inspect("own", {"kill", kUseCopy, "run", std::string("source ") + kScript, "velorin pools"});
  EXPECT_THAT(result.err, HasSubstr("velorin-util has no symbol gcSdMgmtROPage: its symbol table "
                                    "is stripped; load it with symbol-file or add-symbol-file"))
      << result;
}

TEST_F(gdbTest, SaysThatTheProcessHasNoPools) {
  EXPECT_THAT(inspect("none", {"velorin pools"}).out, HasSubstr("no pools\n"));
}

TEST_F(gdbTest, SaysThatThereIsNoProcess) {
  const ChildResult result = gdb({"-ex", std::string("source ") + kScript, "-ex", "velorin pools"});
  EXPECT_THAT(result.err, HasSubstr("there is no process and no core file\n")) << result;
}

TEST_F(gdbTest, SaysThatTheLibraryIsNotLoaded) {
  const ChildResult result = gdb({"-ex", std::string("source ") + kScript, "-ex", "starti", "-ex",
                                  "velorin pools", "/bin/true"});
  EXPECT_THAT(result.err, HasSubstr("velorin-util is not loaded: start the program first\n"))
      << result;
}

TEST_F(gdbTest, RefusesArguments) {
  EXPECT_THAT(inspect("own", {"velorin pools 1"}).err,
              HasSubstr("this command takes no arguments\n"));
}

TEST_F(gdbTest, SaysThatAFreeListRunsInACircle) {
  const ChildResult result =
      poolsAfter(kSmallPool + "->pfree_elms->next->next->next = " + kSmallPool + "->pfree_elms");
  EXPECT_THAT(result.out, HasSubstr(kSome + "\n")) << result;
  EXPECT_THAT(result.out, HasSubstr(kUncounted + "free list damaged after 3: element 0x"))
      << result;
  EXPECT_THAT(result.out, HasSubstr(": a circle\n")) << result;
}

TEST_F(gdbTest, SaysThatAFreeListLeadsOutOfThePool) {
  const ChildResult result = poolsAfter(kSmallPool + "->pfree_elms->next = (void*)0x10");
  EXPECT_THAT(result.out, HasSubstr(kUncounted + "free list damaged after 1: element 0x"))
      << result;
  EXPECT_THAT(result.out, HasSubstr(" leads to 0x10, which is no element\n")) << result;
}

TEST_F(gdbTest, SaysThatAFreeListLeadsBetweenElements) {
  const ChildResult result = poolsAfter("*(char**)&" + kSmallPool + "->pfree_elms = (char*)" +
                                        kSmallPool + "->elms_base + 1");
  EXPECT_THAT(result.out, HasSubstr(kUncounted + "free list damaged after 0: the head leads to 0x"))
      << result;
}

TEST_F(gdbTest, SaysThatAPoolsHeaderIsDamaged) {
  const ChildResult result = poolsAfter(kSmallPool + "->elm_sz = 0");
  EXPECT_THAT(result.out, HasSubstr(kUncounted + "the pool's header is damaged\n")) << result;
}

TEST_F(gdbTest, SaysThatAPoolIsWiped) {
  const std::string header = kWide ? "(*(char(*)[64])" : "(*(char(*)[36])";
  const ChildResult result = poolsAfter(header + kSmallPool + ") = {0}");
  EXPECT_THAT(result.out, HasSubstr(kUncounted + "wiped\n")) << result;
}

TEST_F(gdbTest, SaysThatAPoolIsLocked) {
  const ChildResult result = poolsAfter(kSmallPool + "->lock.__data.__lock = 1");
  EXPECT_THAT(result.out, HasSubstr(kSmall + "  locked: a thread is at its list\n")) << result;
}

TEST_F(gdbTest, SaysThatAPoolCannotBeRead) {
  const ChildResult result = poolsAfter(kSmallPool + " = (void*)0x10");
  EXPECT_THAT(result.out, HasSubstr("?     no  the pool cannot be read\n")) << result;
}

TEST_F(gdbTest, SaysThatAnEntryOfTheRegisterIsDamaged) {
  const ChildResult result = poolsAfter("gcSdMgmtROPage->pools[2].elm_sz = -3");
  EXPECT_THAT(result.out, HasSubstr("no  the register's entry is damaged\n")) << result;
}

TEST_F(gdbTest, SaysThatTheRegisterCountsTooManyPools) {
  const ChildResult result = poolsAfter(kRegister + "->numpools = 100000");
  EXPECT_THAT(result.out, HasSubstr(std::string("the register is damaged: it counts 100000 pools, "
                                                "at most ") +
                                    (kWide ? "169" : "203") + " fit\n"))
      << result;
  expectPools(result);
}

TEST_F(gdbTest, SaysThatTheRegisterCountsLessThanNoPools) {
  const ChildResult result = poolsAfter(kRegister + "->numpools = -1");
  EXPECT_THAT(result.out, HasSubstr("the register is damaged: it counts -1 pools, ")) << result;
  EXPECT_THAT(result.out, HasSubstr("\nno pools\n")) << result;
}

TEST_F(gdbTest, SaysThatTheRegisterCannotBeRead) {
  const ChildResult result = poolsAfter(kRegister + " = (void*)0x10");
  EXPECT_THAT(result.err, HasSubstr("velorin-util's data cannot be read: Cannot access memory"))
      << result;
}

TEST_F(gdbTest, ShowsTheProcesssOwnDebugRecord) {
  const ChildResult result = inspect("own", {"velorin debug-record"});
  EXPECT_THAT(result.out, HasSubstr(", the process's own\n"
                                    "level   2: trace lines too\n"
                                    "client  192.0.2.7\n"
                                    "server  all\n"))
      << result;
}

TEST_F(gdbTest, ShowsTheSharedDebugRecord) {
  LogListener superuser("/tmp/ad_errorlog.0");
  const ChildResult result = inspect("shared", {"velorin debug-record"});
  EXPECT_THAT(result.out, HasSubstr(", shared\n"
                                    "level   2: trace lines too\n"
                                    "client  192.0.2.7\n"))
      << result;
}

TEST_F(gdbTest, SaysThatADebugLevelIsUnknown) {
  const ChildResult result =
      inspect("own", {"set var ad_debug_cfg_p->ad_debug_level = -7", "velorin debug-record"});
  EXPECT_THAT(result.out, HasSubstr("level   -7: unknown\n")) << result;
}

TEST_F(gdbTest, SaysThatThereIsNoDebugRecord) {
  EXPECT_THAT(inspect("none", {"velorin debug-record"}).out,
              HasSubstr("no debug record: the process has neither initialised nor logged yet\n"));
}

}  // namespace
