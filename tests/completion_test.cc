// Completion of the commands in bash: what is offered where, and that it is what --help lists.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

using Texts = std::vector<std::string>;

constexpr const char* kTools[] = {"ad_crash", "ad_debugctl", "ad_logd", "ad_logview"};

// Completes COMP_LINE, broken into words as bash does it, and prints what is offered, one a line.
constexpr char kComplete[] = R"(
  source "$SOURCE/utils/completion/velorin-util.bash" || exit
  line=$COMP_LINE
  [[ -n $UNBROKEN ]] || line=$(sed 's/[=:]\+/ & /g' <<<"$COMP_LINE")
  IFS=' ' read -ra COMP_WORDS <<<"$line"
  [[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_POINT=${#COMP_LINE}
  function=$(complete -p "${COMP_WORDS[0]##*/}" | sed -E 's/.* -F ([^ ]+) .*/\1/')
  "$function" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}"
)";

Texts linesOf(const std::string& text) {
  std::istringstream stream(text);
  Texts lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Texts completionsOf(const std::string& line, const std::string& before = "") {
  const ChildResult result =
      runProgram({"bash", "--norc", "-c", before + kComplete},
                 {"COMP_LINE=" + line, "SOURCE=" VELORIN_SOURCE,
                  "PATH=" VELORIN_BIN ":" + std::string(getenv("PATH")), "LC_ALL=C"});
  EXPECT_EQ(result.err, "") << line;
  return linesOf(result.out);
}

std::string helpOf(const std::string& tool) {
  const ChildResult result = runProgram({std::string(VELORIN_BIN "/") + tool, "--help"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  return result.out;
}

// The options that a help text explains: its words that begin with a dash, in front of what is said
// about them.
Texts optionsIn(const std::string& help) {
  Texts options;
  for (const std::string& line : linesOf(help)) {
    if (line.compare(0, 3, "  -") != 0) continue;
    const size_t end = line.find("  ", 2);
    std::istringstream words(line.substr(0, end));
    for (std::string word; words >> word;)
      if (word[0] == '-') options.push_back(word.substr(0, word.find_first_of(",=[")));
  }
  return options;
}

Texts commandsIn(const std::string& help) {
  Texts commands;
  bool in_commands = false;
  for (const std::string& line : linesOf(help)) {
    if (line == "Commands:") in_commands = true;
    if (line.empty()) in_commands = false;
    if (in_commands && line.compare(0, 2, "  ") == 0 && line[2] != ' ')
      commands.push_back(line.substr(2, line.find(' ', 2) - 2));
  }
  return commands;
}

class completionTest : public PrivateWorld {};

TEST_F(completionTest, EveryToolCompletesExactlyTheOptionsOfItsHelp) {
  for (const std::string tool : kTools) {
    const Texts options = optionsIn(helpOf(tool));
    EXPECT_THAT(options, IsSupersetOf({"--help", "--version"})) << tool;
    EXPECT_THAT(completionsOf(tool + " -"), UnorderedElementsAreArray(options)) << tool;
  }
}

TEST_F(completionTest, ToolsWithCommandsCompleteExactlyThoseOfTheirHelp) {
  for (const std::string tool : {"ad_crash", "ad_debugctl"}) {
    const Texts commands = commandsIn(helpOf(tool));
    EXPECT_FALSE(commands.empty()) << tool;
    EXPECT_THAT(completionsOf(tool + " "), UnorderedElementsAreArray(commands)) << tool;
  }
  EXPECT_THAT(completionsOf("ad_logd "), IsEmpty());
}

TEST_F(completionTest, OptionsAndCommandsThatAreKnownByName) {
  EXPECT_THAT(completionsOf("ad_crash "), UnorderedElementsAre("list", "show", "decode", "clear"));
  EXPECT_THAT(completionsOf("ad_debugctl "),
              IsSupersetOf({"show", "level", "client", "server", "watch"}));
  EXPECT_THAT(completionsOf("ad_logview -"),
              UnorderedElementsAre("-t", "--tag", "--level", "-p", "--process", "--text", "--regex",
                                   "--since", "--until", "-n", "--lines", "-f", "--follow",
                                   "--color", "--help", "--version"));
  EXPECT_THAT(completionsOf("ad_debugctl --js"), ElementsAre("--json"));
  EXPECT_THAT(completionsOf("ad_debugctl le"), ElementsAre("level"));
  EXPECT_THAT(completionsOf("ad_crash --d"), ElementsAre("--dir"));
}

TEST_F(completionTest, ACommandIsLookedForBehindOptionsAndTheirValues) {
  for (const std::string line :
       {"ad_debugctl --json le", "ad_debugctl --base /tmp/x le", "ad_debugctl --base=/tmp/x le",
        "ad_debugctl --base show le", "ad_debugctl --json --base /tmp/x --special y -- le"})
    EXPECT_THAT(completionsOf(line), ElementsAre("level")) << line;
  EXPECT_THAT(completionsOf("ad_debugctl show le"), IsEmpty());
}

TEST_F(completionTest, CommandsArguments) {
  EXPECT_THAT(completionsOf("ad_debugctl level "), ElementsAre("0", "1", "2", "3", "4"));
  EXPECT_THAT(completionsOf("ad_debugctl --json level 3"), ElementsAre("3"));
  EXPECT_THAT(completionsOf("ad_debugctl client o"), ElementsAre("off"));
  EXPECT_THAT(completionsOf("ad_debugctl server "), ElementsAre("off"));
  EXPECT_THAT(completionsOf("ad_debugctl show "), IsEmpty());
  EXPECT_THAT(completionsOf("ad_debugctl level 3 "), IsEmpty());
  EXPECT_THAT(completionsOf("ad_debugctl client 10.0."), IsEmpty());
}

TEST_F(completionTest, OptionsValues) {
  EXPECT_THAT(completionsOf("ad_logview --color="), ElementsAre("always", "auto", "never"));
  EXPECT_THAT(completionsOf("ad_logview --color=a"), ElementsAre("always", "auto"));
  EXPECT_THAT(completionsOf("ad_logview --color=never"), ElementsAre("never"));
  EXPECT_THAT(completionsOf("ad_logview --level "), ElementsAre("0", "1", "2", "3", "4"));
  EXPECT_THAT(completionsOf("ad_logview -f --level=3"), ElementsAre("3"));
  EXPECT_THAT(completionsOf("ad_logview -t "), ElementsAre("ERRO", "CRTC", "TRCE", "DETL"));
  EXPECT_THAT(completionsOf("ad_logview --tag E"), ElementsAre("ERRO"));
  EXPECT_THAT(completionsOf("ad_logview -t ERRO,CRTC,D"), ElementsAre("ERRO,CRTC,DETL"));
  EXPECT_THAT(completionsOf("ad_logview --tag=ERRO,C"), ElementsAre("ERRO,CRTC"));
  EXPECT_THAT(completionsOf("ad_logview --since 14:0"), IsEmpty());
  EXPECT_THAT(completionsOf("ad_logview --text "), IsEmpty());
  EXPECT_THAT(completionsOf("ad_logd --utc x"), IsEmpty());
}

TEST_F(completionTest, WhatBashDoesNotBreakIsReplacedAsOneWord) {
  EXPECT_THAT(completionsOf("ad_logview --color=al", "UNBROKEN=yes;"),
              ElementsAre("--color=always"));
}

TEST_F(completionTest, Files) {
  removeDaemon();
  write("/tmp/ad.log", "");
  write("/tmp/ad.log.1", "");
  write("/tmp/ad 2.log", "");
  write("/tmp/a:b", "");
  ASSERT_EQ(mkdir("/tmp/ads", 0755), 0);
  const Texts all = {"/tmp/ad.log", "/tmp/ad.log.1", "/tmp/ad 2.log", "/tmp/ads"};
  EXPECT_THAT(completionsOf("ad_logview /tmp/ad"), UnorderedElementsAreArray(all));
  EXPECT_THAT(completionsOf("ad_logview -f -n 10 x /tmp/ad"), UnorderedElementsAreArray(all));
  EXPECT_THAT(completionsOf("ad_logview -- /tmp/ad"), UnorderedElementsAreArray(all));
  EXPECT_THAT(completionsOf("ad_logd --output /tmp/ad"), UnorderedElementsAreArray(all));
  EXPECT_THAT(completionsOf("ad_logd --output=/tmp/ad"), UnorderedElementsAreArray(all));
  EXPECT_THAT(completionsOf("ad_debugctl --path /tmp/ad.log."), ElementsAre("/tmp/ad.log.1"));
  EXPECT_THAT(completionsOf("ad_crash --dir /tmp/a"), ElementsAre("/tmp/ads"));
  EXPECT_THAT(completionsOf("ad_crash decode --program /tmp/ads"), ElementsAre("/tmp/ads"));
  EXPECT_THAT(completionsOf("ad_logview /tmp/a:"), ElementsAre("b"))
      << "behind what bash breaks at";
}

TEST_F(completionTest, TracesAndProgramsOfTheCrashDirectory) {
  cover("/local/local1");
  cover("/mnt");
  for (const std::string name :
       {".proxy_crash_trace.12", ".proxy_crash_trace.7", ".excl_sig.proxy.lock",
        ".excl_sig.other.lock", "a.log", ".x_crash_trace.y"})
    write("/local/local1/" + name, "");
  write("/mnt/.elsewhere_crash_trace.1", "");
  const Texts traces = {".proxy_crash_trace.12", ".proxy_crash_trace.7"};
  EXPECT_THAT(completionsOf("ad_crash decode "), UnorderedElementsAreArray(traces));
  EXPECT_THAT(completionsOf("ad_crash show .proxy_crash_trace.1"),
              ElementsAre(".proxy_crash_trace.12"));
  EXPECT_THAT(completionsOf("ad_crash clear "), UnorderedElementsAre("proxy", "other"));
  EXPECT_THAT(completionsOf("ad_crash clear o"), ElementsAre("other"));
  EXPECT_THAT(completionsOf("ad_crash list "), IsEmpty());
  EXPECT_THAT(completionsOf("ad_crash decode /mnt/.e"),
              ElementsAre("/mnt/.elsewhere_crash_trace.1"));
  for (const std::string option : {"--dir /mnt", "--dir=/mnt"})
    EXPECT_THAT(completionsOf("ad_crash " + option + " decode "),
                ElementsAre(".elsewhere_crash_trace.1"))
        << option;
}

TEST_F(completionTest, NamesOfFilesAreNeverRunAsCommands) {
  cover("/local/local1");
  const std::string name = "$(touch ran)`touch ran`";
  write("/local/local1/." + name + "_crash_trace.1", "");
  write("/tmp/" + name, "");
  const std::string there = "cd /tmp;";
  EXPECT_THAT(completionsOf("ad_crash decode ", there), ElementsAre("." + name + "_crash_trace.1"));
  EXPECT_THAT(completionsOf("ad_crash clear ", there), ElementsAre(name));
  EXPECT_THAT(completionsOf("ad_logview /tmp/$", there), ElementsAre("/tmp/" + name));
  EXPECT_NE(access("/tmp/ran", F_OK), 0);
}

TEST_F(completionTest, UsersShellOptionsChangeNothing) {
  cover("/local/local1");
  write("/local/local1/.proxy_crash_trace.12", "");
  for (const std::string set : {"shopt -s failglob nullglob;", "set -f;", "shopt -s nocasematch;",
                                "IFS=_;", "set -o posix;"}) {
    EXPECT_THAT(completionsOf("ad_crash decode ", set), ElementsAre(".proxy_crash_trace.12"))
        << set;
    EXPECT_THAT(completionsOf("ad_crash --d", set), ElementsAre("--dir")) << set;
  }
}

TEST_F(completionTest, AToolThatIsNotThereCompletesNoOptions) {
  EXPECT_THAT(completionsOf("/nowhere/ad_logd --o"), ElementsAre("--output")) << "the one in PATH";
  EXPECT_THAT(completionsOf("ad_logd --o", "ad_logd() { return 1; };"), IsEmpty());
}

}  // namespace
