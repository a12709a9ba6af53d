// What programs of users see of the library: C and C++ callers, the shared and the static library,
// one set of globals for a program and the library.
#include <elf.h>
#include <gmock/gmock.h>

#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/log_listener.h"
#include "support/private_world.h"

namespace {

using testing::ElementsAre;

constexpr char kBase[] = "/tmp/daemon";  // that programs log to; their user is 0 in a private world
constexpr char kSpecialBase[] = "/tmp/special";

std::string program(const std::string& name) {
  return VELORIN_BIN "/" + name;
}

// Puts `name` in the place of the numbers in `text` that stand between `before` and `after`.
std::string replaceNumbers(std::string text, const std::string& before, const std::string& after,
                           const std::string& name) {
  for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
    const size_t first = at + before.size();
    const size_t end = text.find_first_not_of("0123456789", first);
    if (end == std::string::npos || end == first) continue;
    if (text.compare(end, after.size(), after) == 0) text.replace(first, end - first, name);
  }
  return text;
}

// `text` with letters for what differs from run to run: P for the process, L for the line.
std::string withoutNumbers(const std::string& text) {
  return replaceNumbers(replaceNumbers(text, "(", ")", "P"), ":", "->", "L");
}

std::vector<std::string> lines(LogListener& listener) {
  std::vector<std::string> texts = listener.waiting();
  for (std::string& text : texts) text = withoutNumbers(text);
  return texts;
}

// The type of an ELF file: ET_EXEC at a fixed address, ET_DYN position-independent.
int elfType(const std::string& contents) {
  Elf32_Half type = ET_NONE;
  if (contents.size() >= EI_NIDENT + sizeof type)
    memcpy(&type, contents.data() + EI_NIDENT, sizeof type);
  return type;
}

std::string buildName(const testing::TestParamInfo<const char*>& info) {
  return info.param + 1;  // without the underscore
}

class abiTest : public PrivateWorld, public testing::WithParamInterface<const char*> {
 protected:
  // Runs the build of program `name` that the parameter chooses.
  static ChildResult run(const std::string& name, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {program(name + GetParam())};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv);
  }

  LogListener own_daemon_{std::string(kBase) + ".0"};
  LogListener special_daemon_{std::string(kSpecialBase) + ".0"};
};

class abiCallerTest : public abiTest {};

TEST_P(abiCallerTest, CProgramConfigures) {
  const ChildResult result = run("abi_c_caller", {"configuration", kBase, kSpecialBase});
  EXPECT_EQ(result.exitCode(), 3) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(
      lines(own_daemon_),
      ElementsAre("c_caller(P)ERRO:ad_debug.cc:L-> ad_debug_syslog_critical_msg_only set to true\n",
                  "c_caller(P)ERRO:ad_debug.cc:L-> non-critical message won't be written to syslog "
                  "in any case\n",
                  "c_caller(P)CRTC:c_caller.c:L-> fatal\n"));
  EXPECT_EQ(result.out, "syslog 2 4711 0 512001 fatal\n");
}

TEST_P(abiCallerTest, CProgramWritesEachStatement) {
  const ChildResult result = run("abi_c_caller", {"statements", kBase, kSpecialBase});
  EXPECT_EQ(result.exitCode(), 3) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(lines(own_daemon_), ElementsAre("c_caller(P)ERRO:c_caller.c:L-> error\n",
                                              "c_caller(P)CRTC:c_caller.c:L-> critical\n",
                                              "c_caller(P)TRCE:c_caller.c:L-> trace\n",
                                              "c_caller(P)DETL:c_caller.c:L-> detail\n",
                                              "c_caller(P)TRCE:elsewhere.c:L-> by hand 1\n",
                                              "as it is 1\n",  //
                                              "a list 1\n",    //
                                              "c_caller(P)CRTC:c_caller.c:L-> fatal\n"));
  EXPECT_EQ(withoutNumbers(result.out),
            "syslog 7 4711 0 100000 (P)ERRO:c_caller.c:L-> error\n"
            "syslog 7 4711 0 100000 (P)CRTC:c_caller.c:L-> critical\n"
            "syslog 2 4711 0 512001 fatal\n");
}

TEST_P(abiCallerTest, CProgramWritesAllCopies) {
  const ChildResult result = run("abi_c_caller", {"copies", kBase, kSpecialBase});
  EXPECT_EQ(result.exitCode(), 3) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(lines(own_daemon_),
              ElementsAre("c_caller(P)ERRO:c_caller.c:L-> error 1\n",
                          "c_caller(P)CRTC:c_caller.c:L-> critical text\n",
                          "c_caller(P)TRCE:c_caller.c:L-> trace 140\n",
                          "c_caller(P)DETL:c_caller.c:L-> detail 5%\n",
                          "c_caller(P)ERRO:c_caller.c:L-> the filter's connection\n",
                          "c_caller(P)TRCE:c_caller.c:L-> to both\n",
                          "c_caller(P)CRTC:c_caller.c:L-> fatal\n"));
  EXPECT_THAT(lines(special_daemon_), ElementsAre("special 1\n", "(P)TRCE:c_caller.c:L-> to both\n",
                                                  "(P)CRTC:c_caller.c:L-> fatal\n"));
  EXPECT_EQ(withoutNumbers(result.out),
            "syslog 7 4711 0 100000 (P)ERRO:c_caller.c:L-> error 1\n"
            "syslog 7 4711 0 100000 (P)CRTC:c_caller.c:L-> critical text\n"
            "syslog 7 4711 0 100000 (P)ERRO:c_caller.c:L-> the filter's connection\n"
            "syslog 2 4711 0 512001 fatal\n");
}

TEST_P(abiCallerTest, CxxProgramUsesBothStyles) {
  const ChildResult result = run("abi_cxx_caller", {kBase});
  EXPECT_EQ(result.exitCode(), 3) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(lines(own_daemon_),
              ElementsAre("cxx_caller(P)ERRO:cxx_caller.cc:L-> error\n",
                          "cxx_caller(P)CRTC:cxx_caller.cc:L-> critical\n",
                          "cxx_caller(P)TRCE:cxx_caller.cc:L-> trace\n",
                          "cxx_caller(P)DETL:cxx_caller.cc:L-> detail 0xFF -1 -101\n",
                          "cxx_caller(P)CRTC:cxx_caller.cc:L-> fatal\n"));
}

INSTANTIATE_TEST_SUITE_P(LinkedWith, abiCallerTest, testing::Values("_shared", "_static"),
                         buildName);

// A family's C program, by its name, that counts what does not hold.
class abiFamilyTest : public PrivateWorld, public testing::WithParamInterface<std::string> {};

TEST_P(abiFamilyTest, CProgramFindsAllAsDeclared) {
  const ChildResult result = runProgram({program("abi_c_" + GetParam())});
  EXPECT_EQ(result.exitCode(), 0) << result;
}

std::string familyBuildName(const testing::TestParamInfo<std::string>& built) {
  return built.param;
}

std::vector<std::string> familyPrograms() {
  std::istringstream names(VELORIN_C_FAMILIES);
  return {std::istream_iterator<std::string>(names), {}};
}

INSTANTIATE_TEST_SUITE_P(Built, abiFamilyTest, testing::ValuesIn(familyPrograms()),
                         familyBuildName);

class abiGlobalsTest : public abiTest {};

TEST_P(abiGlobalsTest, ProgramIsOfTheKindThatItsNameSays) {
  const int type = GetParam() == std::string("_pie") ? ET_DYN : ET_EXEC;
  EXPECT_EQ(elfType(read(program("abi_globals") + GetParam())), type);
  EXPECT_EQ(elfType(read(program("abi_interposing") + GetParam())), type);
}

TEST_P(abiGlobalsTest, ProgramAndLibraryAssignTheSameGlobals) {
  const ChildResult result = run("abi_globals", {kBase});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(
      lines(daemon()),
      ElementsAre("globals(P)CRTC:globals.c:L-> name and module\n",
                  "globals(P)CRTC:globals.c:L-> syslog switched off\n",
                  "globals(P)CRTC:globals.c:L-> in a signal handler\n",
                  "globals(P)ERRO:globals.c:L-> critical lines only\n",
                  "globals(P)ERRO:globals.c:L-> error lines too\n",
                  "globals(P)ERRO:ad_debug.cc:L-> ad_debug_syslog_critical_msg_only set to true\n",
                  "globals(P)ERRO:ad_debug.cc:L-> non-critical message won't be written to syslog "
                  "in any case\n"));
  EXPECT_EQ(withoutNumbers(result.out),
            "syslog 7 4711 0 100000 (P)CRTC:globals.c:L-> name and module\n"
            "syslog 7 4711 0 100000 (P)ERRO:globals.c:L-> error lines too\n");
}

TEST_P(abiGlobalsTest, LibraryUsesWhatTheProgramDefinesItself) {
  const ChildResult result = run("abi_interposing", {kBase});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(lines(own_daemon_),
              ElementsAre("interposing(P)CRTC:interposing.c:L-> the program's name and module\n"));
  EXPECT_EQ(withoutNumbers(result.out),
            "syslog 7 4711 0 100000 (P)CRTC:interposing.c:L-> the program's name and module\n");
}

INSTANTIATE_TEST_SUITE_P(BuiltAs, abiGlobalsTest, testing::Values("_pie", "_no_pie"), buildName);

}  // namespace
