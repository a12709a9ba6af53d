// ad_crash as a program: what it finds, shows, decodes and removes, and what hostile files make it
// do.
#include <elf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kProgram[] = VELORIN_BIN "/ad_crash";
constexpr char kVictim[] = VELORIN_BIN "/ad_crash_victim";
constexpr char kFixedVictim[] = VELORIN_BIN "/ad_crash_victim_fixed";
constexpr char kExportedVictim[] = VELORIN_BIN "/ad_crash_victim_exported";
constexpr char kDir[] = "/tmp/crashes";
constexpr size_t kMiB = 1 << 20;

const std::string kTime = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}";

// What the handler writes of a crash whose backtrace is `symbols`.
std::string traceOf(const std::string& symbols, const std::string& crash = "0x1000") {
  return "Process 4711 stack(sp=0x7ff0, bp=0x7ff8, ip=" + crash +
         ")\nEnd of stack dump.\nSIGNAL 11 (Segmentation fault)\nReferenced address: 0x10\n"
         "backtrace for crash at: " +
         crash + "\n00: (nil)((nil), 0x1, 0x2, 0x3, ....\nEnd of backtrace\n\n" + symbols +
         "End of backtrace\n\n";
}

// The place in the victim's source that bears the comment "line of NAME".
std::string lineOf(const std::string& name) {
  std::ifstream source(VELORIN_SOURCE "/tests/ad_crash_victim.cc");
  int number = 0;
  for (std::string line; std::getline(source, line);) {
    ++number;
    if (line.find("// line of " + name) != std::string::npos)
      return "tests/ad_crash_victim.cc:" + std::to_string(number);
  }
  ADD_FAILURE() << "no line of " << name;
  return "";
}

// The build id, as the distribution's reader has it.
std::string buildIdOf(const std::string& file) {
  const std::string notes = runProgram({"readelf", "--notes", file}).out;
  const std::string key = "Build ID: ";
  const size_t at = notes.find(key);
  if (at == std::string::npos) return "";
  return notes.substr(at + key.size(), notes.find('\n', at) - at - key.size());
}

std::string baseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool isPlain(const std::string& text) {
  for (const char c : text)
    if (c != '\n' && (c < 0x20 || c > 0x7e)) return false;
  return true;
}

void setTime(const std::string& path, time_t time) {
  const timespec times[2] = {{time, 0}, {time, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

class ad_crashTest : public PrivateWorld {
 protected:
  ad_crashTest() {
    std::filesystem::create_directory(kDir);
    std::filesystem::create_directory("/tmp/bin");
  }

  static std::string in(const std::string& file) { return std::string(kDir) + "/" + file; }

  static ChildResult crash(std::vector<std::string> arguments,
                           const std::vector<std::string>& environment = {}) {
    const std::vector<std::string> head = {kProgram, "--dir", kDir};
    arguments.insert(arguments.begin(), head.begin(), head.end());
    return runProgram(arguments, environment);
  }

  static std::string traceName(const std::string& victim, pid_t pid) {
    return "." + baseName(victim) + "_crash_trace." + std::to_string(pid);
  }

  // Lets the program crash; its trace's name.
  static std::string crashOf(const std::string& victim) {
    Child child({victim, kDir});
    EXPECT_EQ(child.wait().exitCode(), 0);
    return traceName(victim, child.pid());
  }

  static std::string copyOf(const std::string& program, const std::string& name) {
    const std::string to = "/tmp/bin/" + name;
    std::filesystem::copy_file(program, to, std::filesystem::copy_options::overwrite_existing);
    return to;
  }

  static bool exists(const std::string& file) {
    struct stat status;
    return lstat(in(file).c_str(), &status) == 0;
  }
};

// ---- list ----

TEST_F(ad_crashTest, ListOfAnEmptyDirectorySaysSo) {
  const ChildResult result = crash({"list"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, "no markers or traces in /tmp/crashes\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_crashTest, ListOfAMissingDirectoryFails) {
  const ChildResult result = runProgram({kProgram, "--dir", "/tmp/no\nne", "list"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ad_crash: /tmp/no\\nne: No such file or directory\n");
}

TEST_F(ad_crashTest, ListTellsTimeSizeAndSignalOfEachTraceAndWhatAMarkerBlocks) {
  write(in(".excl_sig.proxy.lock"), "");
  write(in(".proxy_crash_trace.4000000"), traceOf(""));
  write(in(".proxy_crash_trace.300000"), "Process");
  write(in(".alone_crash_trace.4000000"), traceOf(""));
  write(in(".excl_sig.marked.lock"), "");
  for (const auto& file : std::filesystem::directory_iterator(kDir))
    setTime(file.path().string(), 1000000000);
  const ChildResult result = runProgram({"env", "TZ=UTC", kProgram, "--dir", kDir, "list"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  const std::string blocked =
      "blocked, its next crashes are parked for ever, until its next sig_init\n";
  const std::string time = "2001-09-09 01:46:40";
  const std::string size = std::to_string(traceOf("").size());
  EXPECT_EQ(result.out,
            "alone: not blocked\n"
            "  trace 4000000  " +
                time + "  " + size +
                " bytes  signal 11 (Segmentation fault)  process gone\n"
                "marked: " +
                blocked + "  marker  " + time +
                "\n"
                "proxy: " +
                blocked + "  marker  " + time +
                "\n"
                "  trace 300000  " +
                time +
                "  7 bytes  signal unknown  process gone\n"
                "  trace 4000000  " +
                time + "  " + size + " bytes  signal 11 (Segmentation fault)  process gone\n");
}

TEST_F(ad_crashTest, ListTellsAProcessThatStillRunsFromOneWithTheSamePid) {
  Child victim({kVictim, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  EXPECT_THAT(crash({"list"}).out,
              EndsWith("  process still runs: it waits for a debugger or is parked\n"));
  // Of another program, as far as the name tells.
  const std::string trace = in(traceName(kVictim, victim.pid()));
  std::filesystem::rename(trace, in(traceName("other", victim.pid())));
  EXPECT_THAT(crash({"list"}).out, EndsWith("  process gone, its pid is another's now\n"));
  // Of the same program, but older than the process.
  std::filesystem::rename(in(traceName("other", victim.pid())), trace);
  setTime(trace, 1000000000);
  EXPECT_THAT(crash({"list"}).out, EndsWith("  process gone, its pid is another's now\n"));
}

TEST_F(ad_crashTest, ListKnowsAProcessOfAnotherProgramHoweverShortItsName) {
  const std::string program = copyOf(kVictim, "v");
  Child victim({program, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  std::filesystem::rename(in(traceName(program, victim.pid())),
                          in(traceName("other", victim.pid())));
  EXPECT_THAT(crash({"list"}).out, EndsWith("  process gone, its pid is another's now\n"));
}

TEST_F(ad_crashTest, ListKnowsAProcessWhoseProgramFileWasRemoved) {
  const std::string program = copyOf(kVictim, "removed");
  Child victim({program, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  std::filesystem::remove(program);
  EXPECT_THAT(crash({"list"}).out, HasSubstr("  process still runs"));
}

TEST_F(ad_crashTest, FileNamesAreReadStrictly) {
  const struct {
    const char* file;
    const char* program;  // null: neither a marker nor a trace
  } rows[] = {
      {".a_crash_trace.1", "a"},
      {".a_crash_trace.2147483647", "a"},
      {".a_crash_trace.2147483648", nullptr},
      {".a_crash_trace.99999999999999999999999", nullptr},
      {".a_crash_trace.0", nullptr},
      {".a_crash_trace.01", nullptr},
      {".a_crash_trace.-1", nullptr},
      {".a_crash_trace.+1", nullptr},
      {".a_crash_trace. 1", nullptr},
      {".a_crash_trace.1 ", nullptr},
      {".a_crash_trace.", nullptr},
      {".a_crash_trace", nullptr},
      {"._crash_trace.1", nullptr},
      {"a_crash_trace.1", nullptr},
      {"xa_crash_trace.1", nullptr},
      {".a_crash_trace.1.bak", nullptr},
      {".a_crash_trace.1_crash_trace.2", "a_crash_trace.1"},
      {"..a_crash_trace.2", ".a"},
      {".a b_crash_trace.2", "a b"},
      {".excl_sig.a.lock_crash_trace.2", "excl_sig.a.lock"},
      {".excl_sig.a.lock", "a"},
      {".excl_sig.a.lock.lock", "a.lock"},
      {".excl_sig..lock", nullptr},
      {".excl_sig.lock", nullptr},
      {".excl_sig.a.lock2", nullptr},
      {".excl_sig.a", nullptr},
      {"excl_sig.a.lock", nullptr},
      {".excl_sig._crash_trace.3.lock", "_crash_trace.3"},
  };
  for (const auto& row : rows) {
    write(in(row.file), "");
    const std::string out = crash({"list"}).out;
    if (row.program == nullptr) {
      EXPECT_EQ(out, "no markers or traces in /tmp/crashes\n") << row.file;
    } else {
      EXPECT_THAT(out, StartsWith(std::string(row.program) + ": ")) << row.file;
    }
    std::filesystem::remove(in(row.file));
  }
}

TEST_F(ad_crashTest, ListEscapesProgramNamesAndSignalTexts) {
  write(in(".\x1b[31m\xff\n_crash_trace.300000"), "SIGNAL 11 (\x1b]0;x\x07\\)\n");
  const ChildResult result = crash({"list"});
  EXPECT_THAT(result.out, StartsWith("\\x1b[31m\\xff\\n: not blocked\n"));
  EXPECT_THAT(result.out, HasSubstr("  signal 11 (\\x1b]0;x\\x07\\\\)  "));
  EXPECT_TRUE(isPlain(result.out));
}

TEST_F(ad_crashTest, ListDoesNotOpenWhatIsNoRegularFile) {
  write("/tmp/secret", traceOf(""));
  std::filesystem::create_symlink("/tmp/secret", in(".link_crash_trace.1"));
  ASSERT_EQ(mkfifo(in(".fifo_crash_trace.1").c_str(), 0644), 0);
  std::filesystem::create_directory(in(".folder_crash_trace.1"));
  std::filesystem::create_symlink("/tmp/none", in(".excl_sig.link.lock"));
  const ChildResult result = crash({"list"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out, Not(HasSubstr("Segmentation")));
  EXPECT_THAT(result.out, MatchesRegex("fifo: not blocked\n  trace 1  " + kTime +
                                       "  not readable: not a regular file  [^\n]*\n"
                                       "folder: not blocked\n  trace 1  " +
                                       kTime +
                                       "  not readable: not a regular file  [^\n]*\n"
                                       "link: blocked[^\n]*\n  marker  " +
                                       kTime + "  not a regular file\n  trace 1  " + kTime +
                                       "  not readable: not a regular file  [^\n]*\n"));
}

TEST_F(ad_crashTest, DirectoryIsTheCrashHandlersUnlessNamed) {
  cover("/local/local1");
  write("/local/local1/.excl_sig.proxy.lock", "");
  const ChildResult result = runProgram({kProgram, "list"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out, StartsWith("proxy: blocked"));
}

// ---- show ----

TEST_F(ad_crashTest, ShowPrintsATraceToTheByte) {
  write(in(".a_crash_trace.1"), traceOf("/bin/a(+0x10)[0x1010]\n"));
  const ChildResult result = crash({"show", ".a_crash_trace.1"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, traceOf("/bin/a(+0x10)[0x1010]\n"));
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_crashTest, ShowEscapesWhatIsNotPrintable) {
  const struct {
    const char* name;
    std::string text;
    std::string shown;
  } rows[] = {
      {"empty", "", ""},
      {"no newline at the end", "abc", "abc\n"},
      {"empty lines stay", "\n\n", "\n\n"},
      {"terminal control", "\x1b[2J\x07", "\\x1b[2J\\x07\n"},
      {"zero bytes", std::string("a\0b\0\n", 5), "a\\x00b\\x00\n"},
      {"backslash", "\\x1b\n", "\\\\x1b\n"},
      {"tab and carriage return", "a\tb\r\n", "a\\tb\\x0d\n"},
      {"delete and what lies above", "\x7f\x80\xff~\n", "\\x7f\\x80\\xff~\n"},
      {"UTF-8", "\xc3\xa4\n", "\\xc3\\xa4\n"},
  };
  for (const auto& row : rows) {
    write(in("trace"), row.text);
    const ChildResult result = crash({"show", "trace"});
    EXPECT_EQ(result.exitCode(), 0) << row.name;
    EXPECT_EQ(result.out, row.shown) << row.name;
    EXPECT_EQ(result.err, "") << row.name;
  }
}

TEST_F(ad_crashTest, ShowReadsOneMebibyteAndSaysWhenThatIsNotAll) {
  write(in("trace"), std::string(kMiB, 'x'));
  ChildResult result = crash({"show", "trace"});
  EXPECT_EQ(result.out.size(), kMiB + 1);
  EXPECT_EQ(result.err, "");
  write(in("trace"), std::string(kMiB, 'x') + "y");
  result = crash({"show", "trace"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, std::string(kMiB, 'x') + "\n");
  EXPECT_EQ(result.err, "ad_crash: only the first 1048576 of 1048577 bytes are read\n");
}

TEST_F(ad_crashTest, FileWithASlashIsAPathOfItsOwn) {
  write("/tmp/copy", "copied\n");
  write(in("copy"), "in the directory\n");
  EXPECT_EQ(crash({"show", "copy"}).out, "in the directory\n");
  EXPECT_EQ(crash({"show", "/tmp/copy"}).out, "copied\n");
  EXPECT_EQ(runProgram({"sh", "-c", std::string("cd /tmp && ") + kProgram + " show ./copy"}).out,
            "copied\n");
}

TEST_F(ad_crashTest, OnlyRegularFilesAreShownAndDecoded) {
  write("/tmp/secret", "secret\n");
  std::filesystem::create_symlink("/tmp/secret", in("link"));
  std::filesystem::create_symlink("/tmp/none", in("dangling"));
  std::filesystem::create_directory(in("folder"));
  ASSERT_EQ(mkfifo(in("fifo").c_str(), 0644), 0);
  const struct {
    const char* file;
    const char* why;
  } rows[] = {
      {"link", "is a symbolic link"},        {"dangling", "is a symbolic link"},
      {"folder", "is a directory"},          {"fifo", "is a FIFO"},
      {"none", "No such file or directory"}, {"..", "is a directory"},
      {"/dev/zero", "is a device"},          {"/tmp/crashes/link", "is a symbolic link"},
      {"/tmp/secret/x", "Not a directory"},
  };
  for (const auto& row : rows) {
    for (const char* command : {"show", "decode"}) {
      const ChildResult result = crash({command, row.file});
      EXPECT_EQ(result.exitCode(), 1) << row.file;
      EXPECT_EQ(result.out, "") << row.file;
      EXPECT_EQ(result.err, std::string("ad_crash: ") + row.file + ": " + row.why + "\n");
    }
  }
}

// ---- decode ----

TEST_F(ad_crashTest, DecodeNamesFunctionsAndLinesOfARealCrash) {
  for (const char* victim : {kVictim, kFixedVictim, kExportedVictim}) {
    SCOPED_TRACE(victim);
    const ChildResult result = crash({"decode", crashOf(victim)});
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.err, "");
    const std::string crashed = "victim::crash(int volatile*) at [^\n]*" + lineOf("crash") + "\n";
    const std::string inlined = "victim::inlined(int volatile*) at [^\n]*" + lineOf("inlined") +
                                "\n    inlined into victim::middle(int, int volatile*) at [^\n]*" +
                                lineOf("middle") + "\n";
    const std::string recursion =
        "victim::middle(int, int volatile*) at [^\n]*" + lineOf("recursion") + "\n";
    const std::string outer = "victim::outer(int volatile*) at [^\n]*" + lineOf("outer") + "\n";
    const auto quoted = [](std::string text) {  // for a POSIX expression
      for (size_t i = 0; (i = text.find_first_of("()*", i)) != std::string::npos; i += 2) {
        if (text[i] == '*' && i > 0 && text[i - 1] == ']') continue;
        text.insert(i, "\\");
      }
      return text;
    };
    const std::string address = "  0x[0-9a-f]+  ";
    EXPECT_THAT(result.out, MatchesRegex(".*\ncrash:\n" + address + quoted(crashed) + ".*"));
    // The innermost frame has no frame pointer of its own everywhere.
    EXPECT_THAT(result.out,
                MatchesRegex(".*\nframes:\n.*  0[12]" + address.substr(1) + quoted(recursion) +
                             "  0[23]" + address.substr(1) + quoted(outer) + ".*backtrace:\n.*"));
    EXPECT_THAT(result.out,
                MatchesRegex(".*\nbacktrace:\n" + address + "[^\n]*handle[^\n]*\n" + address +
                             "[^\n]*\n" + address + quoted(crashed) + address + quoted(inlined) +
                             address + quoted(recursion) + address + quoted(outer) + address +
                             "main at [^\n]*tests/ad_crash_victim.cc:[0-9]+\n.*"));
  }
}

TEST_F(ad_crashTest, DecodePrintsWhatTheTraceSays) {
  write(in(".a_crash_trace.4000000"), traceOf("[0x1234]\nplanted\n"));
  const ChildResult result = crash({"decode", ".a_crash_trace.4000000"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out,
              MatchesRegex("trace: .a_crash_trace.4000000, written " + kTime +
                           "\nprogram: a, process gone\nprocess: 4711\n"
                           "signal: 11 .Segmentation fault.\nreferenced address: 0x10\n"
                           "1 of 12 lines are not a trace's\n"
                           "crash:\n  0x1000  [?]{2} .in no object whose load address is known.\n"
                           "backtrace:\n  0x1234  [?]{2} .in no object whose load address is "
                           "known.\n"));
}

TEST_F(ad_crashTest, DecodeSaysThatATraceIsCut) {
  const std::string head = "backtrace for crash at: 0x1000\n";
  const std::string end = "End of backtrace\n\n";
  const std::string cut = "the trace is cut: ";
  const struct {
    std::string text;
    std::string said;  // empty: nothing
  } rows[] = {
      {head + end + end, ""},
      {head + end, cut + "its end is missing\n"},
      {head, cut + "its end is missing\n"},
      {head + "Cannot sigsetjmp, goto trace_done\n" + end,
       cut + "the handler met a fault while it wrote it\n"},
      {"Cannot set SIGSEGV signal handler\n" + head + end,
       cut + "the handler could not guard itself against a fault\n"},
  };
  for (const auto& row : rows) {
    write(in("trace"), row.text);
    const std::string out = crash({"decode", "trace"}).out;
    EXPECT_THAT(out, Not(HasSubstr("are not a trace's"))) << row.text;
    if (row.said.empty()) {
      EXPECT_THAT(out, Not(HasSubstr(cut))) << row.text;
    } else {
      EXPECT_THAT(out, HasSubstr(row.said)) << row.text;
    }
  }
}

TEST_F(ad_crashTest, DecodePrintsTheBuildIdThatOthersRead) {
  for (const char* victim : {kVictim, kFixedVictim}) {
    const std::string id = buildIdOf(victim);
    ASSERT_EQ(id.size(), 40u);
    EXPECT_THAT(crash({"decode", crashOf(victim)}).out, HasSubstr("  build id: " + id + "\n"));
  }
}

TEST_F(ad_crashTest, DecodeSaysWhyAnAddressHasNoPlace) {
  write("/tmp/text", "not a program\n");
  write("/tmp/empty", "");
  std::filesystem::create_directory("/tmp/folder");
  ASSERT_EQ(mkfifo("/tmp/fifo", 0644), 0);
  const std::string stripped = copyOf(kVictim, "stripped");
  ASSERT_EQ(runProgram({"strip", stripped}).exitCode(), 0);
  const std::string without_lines = copyOf(kVictim, "without_lines");
  ASSERT_EQ(runProgram({"strip", "-g", without_lines}).exitCode(), 0);
  const std::string victim = kVictim;
  const struct {
    std::string line;
    std::string shown;
  } rows[] = {
      {"/tmp/none(+0x10)[0x1010]", "?? (/tmp/none: No such file or directory)"},
      {"/tmp/none(_ZN1a1bEv+0x10)[0x1010]", "a::b() at ?? (/tmp/none: No such file or directory)"},
      {"/tmp/text(+0x10)[0x1010]", "?? (/tmp/text: is not an ELF file)"},
      {"/tmp/empty(+0x10)[0x1010]", "?? (/tmp/empty: is not an ELF file)"},
      {"/tmp/folder(+0x10)[0x1010]", "?? (/tmp/folder: is a directory)"},
      {"/tmp/fifo(+0x10)[0x1010]", "?? (/tmp/fifo: is a FIFO)"},
      {"/dev/zero(+0x10)[0x1010]", "?? (/dev/zero: is a device)"},
      {"linux-gate.so.1(__kernel_vsyscall+0x9)[0xf7f00009]",
       "__kernel_vsyscall at ?? (it is the kernel's own, there is no file)"},
      {"here(+0x10)[0x1010]", "?? (the trace does not tell its directory)"},
      {"[0x1010]", "?? (in no object whose load address is known)"},
      {victim + "(no_such_symbol+0x10)[0x1010]",
       "no_such_symbol at ?? (no symbol line tells where it was loaded)"},
      {victim + "(+0x11)[0x1010]",
       "?? (the trace's symbol lines do not fit this file: it is another build)"},
      {victim + "(+0xfffff010)[0xfffff00000001010]",
       "?? (the trace's symbol lines do not fit this file: it is another build)"},
      {std::string(kFixedVictim) + "[0x10]",
       "?? (the trace's symbol lines do not fit this file: it is another build)"},
  };
  for (const auto& row : rows) {
    write(in("trace"), traceOf(row.line + "\n"));
    const ChildResult result = crash({"decode", "trace"});
    EXPECT_EQ(result.exitCode(), 0) << row.line;
    EXPECT_THAT(result.out, EndsWith("  " + row.shown + "\n")) << row.line;
  }

  for (const auto& [program, reason] :
       {std::pair{stripped, "no debug information, the exported name before it)\n"},
        std::pair{without_lines, "victim::crash(int volatile*) at ?? (no debug information)\n"}}) {
    const ChildResult result = crash({"decode", crashOf(program)});
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.out, HasSubstr(reason));
  }
}

TEST_F(ad_crashTest, AddressesOutsideTheCodeAreNotDecoded) {
  const std::string trace = crashOf(kFixedVictim);
  std::string text = read(in(trace));
  const std::string whole = "End of backtrace\n\n";
  text.insert(text.find(whole) + whole.size(),
              std::string(kFixedVictim) + "(no_such_symbol+0x1)[0x10]\n");
  const size_t frame = text.find("01: ") + strlen("01: ");
  text.replace(frame, text.find('(', frame) - frame, "0x7");
  write(in("trace"), text);
  const ChildResult result = crash({"decode", "trace"});
  EXPECT_THAT(result.out, HasSubstr("  0x10  no_such_symbol at ?? (outside the object's code)\n"));
  EXPECT_THAT(result.out, HasSubstr("  01 0x7  ?? (in no object whose load address is known)\n"));
  EXPECT_THAT(result.out, HasSubstr(lineOf("crash") + "\n")) << "the others are";
}

TEST_F(ad_crashTest, DecodeUsesSeparateDebugFiles) {
  const std::string program = copyOf(kVictim, "separate");
  const std::string debug = "/tmp/bin/separate.debug";
  ASSERT_EQ(runProgram({"objcopy", "--only-keep-debug", program, debug}).exitCode(), 0);
  ASSERT_EQ(runProgram({"strip", program}).exitCode(), 0);
  ASSERT_EQ(runProgram({"objcopy", "--add-gnu-debuglink=" + debug, program}).exitCode(), 0);
  const std::string trace = crashOf(program);
  EXPECT_THAT(crash({"decode", trace}).out, HasSubstr(lineOf("crash") + "\n"));
  std::filesystem::remove(debug);
  EXPECT_THAT(crash({"decode", trace}).out, Not(HasSubstr(lineOf("crash") + "\n")));
}

TEST_F(ad_crashTest, BuildIdAskedForAllowsOrRefusesTheProgram) {
  const std::string trace = crashOf(kVictim);
  std::string id = buildIdOf(kVictim);
  ChildResult result = crash({"--build-id", id, "decode", trace});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out, AllOf(HasSubstr("  has the build id that was asked for\n"),
                                HasSubstr(lineOf("crash") + "\n")));
  for (char& digit : id) digit = static_cast<char>(toupper(digit));
  EXPECT_EQ(crash({"--build-id", id, "decode", trace}).exitCode(), 0);

  const std::string reason = "build id differs from the one asked for, 00ff";
  result = crash({"--build-id", "00ff", "decode", trace});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err, std::string("ad_crash: ") + kVictim + ": " + reason + "\n");
  EXPECT_THAT(result.out,
              AllOf(HasSubstr("?? (" + reason + ")\n"), HasSubstr("  not decoded: " + reason),
                    Not(HasSubstr("ad_crash_victim.cc"))));
  EXPECT_THAT(result.out, HasSubstr("crash:\n  0x")) << "the address is still that object's";
}

TEST_F(ad_crashTest, BuildIdThatCannotBeCheckedIsAFailure) {
  std::filesystem::rename(in(crashOf(kVictim)), in("trace"));
  const ChildResult result = crash({"--build-id", buildIdOf(kVictim), "decode", "trace"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err,
            "ad_crash: --build-id was not checked: the program's file is not known; name it with "
            "--program\n");
  EXPECT_EQ(
      crash({"--build-id", buildIdOf(kVictim), "--program", kVictim, "decode", "trace"}).exitCode(),
      0);
}

TEST_F(ad_crashTest, BinaryThatIsNewerThanTheTraceIsWarnedOf) {
  const std::string program = copyOf(kVictim, "victim");
  const std::string trace = crashOf(program);
  const auto objectsOf = [&] {
    const ChildResult result = crash({"decode", trace});
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_THAT(result.out, HasSubstr(lineOf("crash") + "\n")) << "decoded all the same";
    return result.out.substr(0, result.out.find("\nobject: /lib"));
  };
  EXPECT_THAT(objectsOf(), HasSubstr("\n  not changed since the trace was written"));
  setTime(in(trace), 1000000000);
  EXPECT_THAT(objectsOf(), MatchesRegex(".*\n  warning: written " + kTime +
                                        ", after the trace: it may be another build than the one "
                                        "that crashed.*"));
  setTime(program, 900000000);
  EXPECT_THAT(objectsOf(), HasSubstr("\n  warning: put there or changed "));
}

TEST_F(ad_crashTest, RunningProcessTellsWhetherTheFileIsStillTheOneThatCrashed) {
  const std::string program = copyOf(kVictim, "victim");
  Child victim({program, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  const std::string trace = traceName(program, victim.pid());
  const std::string what = "the file that process " + std::to_string(victim.pid()) + " has loaded";
  ChildResult result = crash({"decode", trace});
  EXPECT_EQ(result.exitCode(), 0) << result;
  const size_t library = result.out.find("\nobject: /lib");
  EXPECT_THAT(result.out.substr(0, library), HasSubstr("\n  same build id as " + what));
  // Only the superuser of the whole machine may open what others have mapped.
  EXPECT_THAT(result.out.substr(library),
              AnyOf(HasSubstr("\n  same build id as " + what), HasSubstr("\n  is " + what),
                    HasSubstr("\n  not compared with " + what + ": ")));

  std::filesystem::remove(program);
  copyOf(kExportedVictim, "victim");
  result = crash({"decode", trace});
  const std::string reason = "build id differs from that of " + what;
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err, "ad_crash: " + program + ": " + reason + "\n");
  EXPECT_THAT(result.out,
              AllOf(HasSubstr("?? (" + reason + ")\n"), Not(HasSubstr(lineOf("crash")))));
}

TEST_F(ad_crashTest, FileThatTheRunningProcessHasNotMappedIsNotCompared) {
  Child victim({kVictim, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  const std::string trace = traceName(kVictim, victim.pid());
  const std::string other = copyOf(kExportedVictim, "other");
  std::string text = traceOf(other + "(+0x1200)[0x5200]\n", "0x5200");
  const std::string pid = std::to_string(victim.pid());
  write(in(trace), text.replace(text.find("4711"), 4, pid));
  EXPECT_THAT(crash({"decode", trace}).out,
              HasSubstr("not compared with the file that process " + pid +
                        " has loaded: it has mapped no file of this name\n"));
}

TEST_F(ad_crashTest, ProcessOfAnotherUserIsOfAProgramThatCannotBeSeen) {
  Child victim({kVictim, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  ASSERT_EQ(chmod(in(traceName(kVictim, victim.pid())).c_str(), 0644), 0);
  const ChildResult result = runInChild([] {
    becomeUser(1000);
    execl(kProgram, kProgram, "--dir", kDir, "list", nullptr);
    _exit(127);
  });
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out,
              HasSubstr("  a process with this pid runs, of which program cannot be seen\n"));
}

TEST_F(ad_crashTest, WithoutABuildIdTheRunningProcessTellsWhetherItsFileIsStillThatOne) {
  const std::string program = copyOf(kVictim, "victim");
  const std::string copy = "/tmp/bin/copy";
  ASSERT_EQ(runProgram({"objcopy", "--remove-section=.note.gnu.build-id", program}).exitCode(), 0);
  std::filesystem::copy_file(program, copy);
  Child victim({program, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  const std::string trace = traceName(program, victim.pid());
  const std::string what = "the file that process " + std::to_string(victim.pid()) + " has loaded";
  EXPECT_THAT(crash({"decode", trace}).out, HasSubstr("\n  is " + what));

  std::filesystem::create_directory("/tmp/bin/old");
  std::filesystem::rename(program, "/tmp/bin/old/victim");
  std::filesystem::copy_file(copy, program);
  EXPECT_THAT(crash({"decode", trace}).out,
              HasSubstr("\n  not compared with " + what + ": no build id\n"));

  std::filesystem::remove("/tmp/bin/old/victim");
  EXPECT_THAT(crash({"decode", trace}).out, HasSubstr("\n  warning: has replaced " + what));
}

TEST_F(ad_crashTest, FileWithoutABuildIdIsNotComparedByThatOfTheRunningProcess) {
  const std::string program = copyOf(kVictim, "victim");
  const std::string other = copyOf(kVictim, "other");
  ASSERT_EQ(runProgram({"objcopy", "--remove-section=.note.gnu.build-id", other}).exitCode(), 0);
  Child victim({program, kDir, "wait"});
  ASSERT_TRUE(victim.waitForOut("written\n"));
  std::filesystem::rename(other, program);
  EXPECT_THAT(crash({"decode", traceName(program, victim.pid())}).out,
              HasSubstr("\n  warning: has replaced the file that process " +
                        std::to_string(victim.pid()) + " has loaded\n"));
}

TEST_F(ad_crashTest, ProgramCalledThroughALinkIsKnownByTheNameBehindIt) {
  std::filesystem::create_symlink(kVictim, "/tmp/bin/called");
  Child child({"/tmp/bin/called", kDir});
  ASSERT_EQ(child.wait().exitCode(), 0);
  EXPECT_THAT(crash({"decode", traceName(kVictim, child.pid())}).out,
              HasSubstr("\nobject: /tmp/bin/called (the program)\n"));
}

TEST_F(ad_crashTest, ProgramCalledByABareNameIsFoundWhileItRunsAndNamedAfterwards) {
  const std::string program = copyOf(kVictim, "victim");
  std::string trace;
  {
    Child victim({"env", "PATH=/tmp/bin", "victim", kDir, "wait"});
    ASSERT_TRUE(victim.waitForOut("written\n"));
    trace = traceName(program, victim.pid());
    const ChildResult result = crash({"decode", trace});
    EXPECT_THAT(result.out, AllOf(HasSubstr("object: victim (the program)\n  file: " + program),
                                  HasSubstr(lineOf("crash") + "\n")));
  }
  const ChildResult gone = crash({"decode", trace});
  EXPECT_EQ(gone.exitCode(), 0) << gone;
  EXPECT_THAT(gone.out, AllOf(HasSubstr("?? (the trace does not tell its directory; name the file "
                                        "with --program)\n"),
                              Not(HasSubstr(lineOf("crash") + "\n"))));
  EXPECT_THAT(crash({"--program", program, "decode", trace}).out,
              HasSubstr(lineOf("crash") + "\n"));
}

TEST_F(ad_crashTest, FixedProgramIsDecodedWithoutAnySymbolLine) {
  const std::string trace = crashOf(kFixedVictim);
  const std::string text = read(in(trace));
  write(in(trace), text.substr(0, text.find("End of backtrace\n")));
  EXPECT_THAT(crash({"decode", trace}).out, Not(HasSubstr(lineOf("crash") + "\n")));
  EXPECT_THAT(crash({"--program", kFixedVictim, "decode", trace}).out,
              HasSubstr(lineOf("crash") + "\n"));
}

TEST_F(ad_crashTest, NamesOfFilesAreNeverOptionsOrFilesOfOptions) {
  write("/tmp/bin/options", "--version\n");
  for (const std::string name :
       {"-e", "--help", "@options", "a b", "x;touch y", "$(id)", "new\nline"}) {
    const std::string program = copyOf(kVictim, name);
    const std::string text = read(in(crashOf(kVictim)));
    std::string renamed = text;
    for (size_t at; (at = renamed.find(kVictim)) != std::string::npos;)
      renamed.replace(at, strlen(kVictim), program);
    write(in("trace"), renamed);
    const std::string out = crash({"decode", "trace"}).out;
    if (name == "new\nline") {
      EXPECT_THAT(out, HasSubstr("lines are not a trace's\n"));
    } else {
      EXPECT_THAT(out, HasSubstr(lineOf("crash") + "\n")) << name;
    }
    const ChildResult named = runInChild([&] {
      if (chdir("/tmp/bin") != 0) _exit(126);
      execl(kProgram, kProgram, "--dir", kDir, "--program", name.c_str(), "decode", "trace",
            nullptr);
      _exit(127);
    });
    EXPECT_EQ(named.exitCode(), 0) << named;
  }
}

TEST_F(ad_crashTest, MissingProgramsOfTheDistributionAreSaid) {
  const std::string trace = crashOf(kVictim);
  const ChildResult result = crash({"decode", trace}, {"PATH=/tmp/none"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  const std::string missing = "addr2line cannot be run; is binutils installed?";
  EXPECT_THAT(result.err, StartsWith(std::string("ad_crash: ") + kVictim + ": " + missing + "\n"));
  EXPECT_THAT(result.out, HasSubstr("?? (" + missing + ")\n"));

  std::filesystem::create_symlink("/usr/bin/addr2line", "/tmp/bin/addr2line");
  const ChildResult mangled = crash({"decode", trace}, {"PATH=/tmp/bin"});
  EXPECT_EQ(mangled.exitCode(), 1);
  EXPECT_EQ(mangled.err,
            "ad_crash: c++filt cannot be run; is binutils installed?; C++ names stay as the linker "
            "has them\n");
  EXPECT_THAT(mangled.out, HasSubstr("_ZN6victim5crashEPVi at "));
}

TEST_F(ad_crashTest, ProgramsOfTheDistributionThatFailAreSaid) {
  const std::string trace = crashOf(kVictim);
  const struct {
    const char* script;
    const char* why;
  } rows[] = {
      {"#!/bin/sh\nexit 1\n", "addr2line failed"},
      {"#!/bin/sh\nkill -9 $$\n", "addr2line failed"},
      {"#!/bin/sh\necho hello\n", "addr2line's answer is not understood"},
      {"#!/bin/sh\necho 0x1g\n", "addr2line's answer is not understood"},
      {"#!/bin/sh\necho 0x1\n", "addr2line's answer is not understood"},
      {"#!/bin/sh\nexec /usr/bin/yes\n", "addr2line took too long or wrote too much"},
  };
  for (const auto& row : rows) {
    write("/tmp/bin/addr2line", row.script);
    ASSERT_EQ(chmod("/tmp/bin/addr2line", 0755), 0);
    const ChildResult result = crash({"decode", trace}, {"PATH=/tmp/bin:/usr/bin:/bin"});
    EXPECT_EQ(result.exitCode(), 1) << row.why;
    EXPECT_THAT(result.err,
                StartsWith(std::string("ad_crash: ") + kVictim + ": " + row.why + "\n"));
    EXPECT_THAT(result.out, HasSubstr(std::string("?? (") + row.why + ")\n"));
  }
}

TEST_F(ad_crashTest, NamesThatCannotBeDemangledStayAndThatIsSaid) {
  const std::string trace = crashOf(kVictim);
  const struct {
    const char* script;
    const char* why;
  } rows[] = {
      {"#!/bin/sh\nexit 1\n", "c++filt failed"},
      {"#!/bin/sh\necho hello\n", "c++filt's answer is not understood"},
  };
  for (const auto& row : rows) {
    write("/tmp/bin/c++filt", row.script);
    ASSERT_EQ(chmod("/tmp/bin/c++filt", 0755), 0);
    const ChildResult result = crash({"decode", trace}, {"PATH=/tmp/bin:/usr/bin:/bin"});
    EXPECT_EQ(result.exitCode(), 1) << row.why;
    EXPECT_EQ(result.err,
              std::string("ad_crash: ") + row.why + "; C++ names stay as the linker has them\n");
    EXPECT_THAT(result.out, HasSubstr("_ZN6victim5crashEPVi at "));
  }
}

TEST_F(ad_crashTest, TraceWithoutAddressesIsAFailure) {
  write(in("trace"), "");
  const ChildResult result = crash({"decode", "trace"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err, "ad_crash: the trace holds no address\n");
}

TEST_F(ad_crashTest, ClosedStandardStreamsAreNotTakenByFiles) {
  const std::string trace = crashOf(kVictim);
  const ChildResult result = runProgram(
      {"sh", "-c", std::string(kProgram) + " --dir " + kDir + " decode " + trace + " <&- 2>&-"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(result.out, HasSubstr(lineOf("crash") + "\n"));
}

// ---- Hostile files ----

TEST_F(ad_crashTest, HostileTracesNeitherStopItNorReachTheTerminal) {
  const std::string victim = kVictim;
  std::string many;
  for (int i = 0; i < 20000; ++i) many += victim + std::to_string(i) + "(+0x10)[0x1010]\n";
  std::string frames;
  for (int i = 0; i < 20000; ++i)
    frames += std::to_string(i + 10) + ": 0x401234(0x1, 0x2, 0x3, 0x4, ....\n";
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"zero bytes", std::string(4096, '\0')},
      {"line without end", std::string(2 * kMiB, 'A')},
      {"brackets without end", std::string(kMiB, '[') + "0x1]"},
      {"parentheses without end", std::string(kMiB / 2, '(') + "+0x1)[0x1]\n"},
      {"newlines", std::string(kMiB, '\n')},
      {"more objects than a trace has", many},
      {"many frames", frames + victim + "(+0x1234)[0x401234]\n"},
      {"numbers that are too long",
       "SIGNAL 99999999999999999999 (x)\nProcess 2147483648 stack(sp=0x0, bp=0x0, ip=0x0)\n"
       "backtrace for crash at: 0x11111111111111111\n"},
      {"largest numbers", "backtrace for crash at: 0xffffffffffffffff\n" + victim +
                              "(+0xffffffffffffffff)[0xffffffffffffffff]\n" + victim +
                              "(-0xffffffffffffffff)[0x0]\n"},
      {"smallest numbers", "backtrace for crash at: (nil)\n" + victim + "(+0x0)[0x0]\n[0x0]\n"},
      {"terminal control in a path", "/tmp/\x1b[2J\x07(+0x1)[0x1]\n"},
      {"zero byte in a path", std::string("/tmp/a\0b(+0x1)[0x1]\n", 20)},
      {"terminal control in a symbol", victim + "(\x1b[2J+0x1)[0x1]\n"},
      {"path that is too long", "/" + std::string(70000, 'p') + "(+0x1)[0x1]\n"},
      {"pid of the first process", "Process 1 stack(sp=0x0, bp=0x0, ip=0x0)\n[0x1]\n"},
      {"this process's memory", "/proc/self/mem(+0x1)[0x1]\n/proc/self/exe(+0x1)[0x1]\n"},
      {"what waits for a writer", "/proc/kmsg(+0x1)[0x1]\n/dev/tty(+0x1)[0x1]\n"},
  };
  for (const auto& row : rows) {
    write(in(".hostile_crash_trace.1"), row.text);
    for (const std::vector<std::string>& command : {std::vector<std::string>{"list"},
                                                    {"show", ".hostile_crash_trace.1"},
                                                    {"decode", ".hostile_crash_trace.1"}}) {
      const ChildResult result = crash(command);
      EXPECT_THAT(result.exitCode(), AnyOf(0, 1)) << row.name << " " << command[0] << result.err;
      EXPECT_TRUE(isPlain(result.out)) << row.name;
      EXPECT_TRUE(isPlain(result.err)) << row.name;
    }
  }
}

TEST_F(ad_crashTest, DamagedElfFilesAreNamedAndNotDecoded) {
  const std::string good = read(kVictim);
  const bool wide = good[4] == 2;  // ELFCLASS64
  const size_t segments_at = wide ? 32 : 28;
  const size_t segment_size_at = wide ? 54 : 42;
  const size_t sections_at = wide ? 40 : 32;
  const auto with = [&](size_t at, const std::string& bytes) {
    return std::string(good).replace(at, bytes.size(), bytes);
  };
  const std::string ones(wide ? 8 : 4, '\xff');
  const struct {
    const char* name;
    std::string file;
    const char* why;
  } rows[] = {
      {"only its mark", good.substr(0, 4), "is not an ELF file"},
      {"half a header", good.substr(0, 20), "is a damaged ELF file: it ends in its header"},
      {"big endian", with(5, "\2"), "is an ELF file, but not of a little-endian machine"},
      {"unknown width", with(4, "\3"), "is an ELF file of unknown width"},
      {"object file", with(16, "\1"), "is an ELF file, but neither a program nor a shared object"},
      {"ends behind its header", good.substr(0, 64),
       "is a damaged ELF file: its program headers cannot be read"},
      {"segments behind the end", with(segments_at, ones),
       "is a damaged ELF file: its program headers cannot be read"},
      {"segments of another size", with(segment_size_at, "\1"),
       "is a damaged ELF file: its program headers cannot be read"},
      {"sections behind the end", with(sections_at, ones), nullptr},
  };
  for (const auto& row : rows) {
    write("/tmp/bin/damaged", row.file);
    write(in("trace"), traceOf("/tmp/bin/damaged(+0x1200)[0x5200]\n"));
    const ChildResult result = crash({"decode", "trace"});
    EXPECT_TRUE(isPlain(result.out)) << row.name;
    if (row.why == nullptr) {
      EXPECT_THAT(result.out, Not(HasSubstr("damaged ELF"))) << row.name;
      continue;
    }
    EXPECT_EQ(result.exitCode(), 0) << row.name;
    EXPECT_THAT(result.out, EndsWith(std::string("?? (/tmp/bin/damaged: ") + row.why + ")\n"))
        << row.name;
  }
}

// A program file of this program's width that holds what a case puts into it.
struct ElfFile {
  std::vector<ElfW(Phdr)> segments;
  std::vector<ElfW(Shdr)> sections;
  std::string data;  // behind the header
  uint16_t names_section = SHN_UNDEF;
  uint16_t kind = ET_EXEC;
  std::function<void(ElfW(Ehdr)*)> change = [](ElfW(Ehdr)*) {};  // of the finished header

  // Returns: where the bytes lie in the file.
  size_t put(const std::string& bytes) {
    data += bytes;
    return sizeof(ElfW(Ehdr)) + data.size() - bytes.size();
  }

  static std::string note(const std::string& owner, const std::string& contents) {
    const ElfW(Nhdr) head = {static_cast<uint32_t>(owner.size() + 1),
                             static_cast<uint32_t>(contents.size()), NT_GNU_BUILD_ID};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    for (const std::string& part : {owner + '\0', contents}) {
      bytes += part;
      bytes.resize((bytes.size() + 3) / 4 * 4);
    }
    return bytes;
  }

  void addNotes(const std::string& notes) {
    ElfW(Phdr) segment = {};
    segment.p_type = PT_NOTE;
    segment.p_offset = put(notes);
    segment.p_filesz = static_cast<decltype(segment.p_filesz)>(notes.size());
    segments.push_back(segment);
  }

  void addSection(uint32_t type, size_t offset, size_t size, uint32_t link = 0, uint32_t name = 0) {
    ElfW(Shdr) section = {};
    section.sh_type = type;
    section.sh_offset = offset;
    section.sh_size = size;
    section.sh_link = link;
    section.sh_name = name;
    sections.push_back(section);
  }

  std::string bytes() const {
    ElfW(Ehdr) header = {};
    memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_type = kind;
    header.e_phentsize = sizeof segments[0];
    header.e_phnum = static_cast<uint16_t>(segments.size());
    header.e_phoff = sizeof header + data.size();
    header.e_shentsize = sizeof sections[0];
    header.e_shnum = static_cast<uint16_t>(sections.size());
    header.e_shoff = header.e_phoff + segments.size() * sizeof segments[0];
    header.e_shstrndx = names_section;
    change(&header);
    std::string all(reinterpret_cast<const char*>(&header), sizeof header);
    all += data;
    all.append(reinterpret_cast<const char*>(segments.data()),
               segments.size() * sizeof segments[0]);
    all.append(reinterpret_cast<const char*>(sections.data()),
               sections.size() * sizeof sections[0]);
    return all;
  }
};

class ad_crashElfTest : public ad_crashTest {
 protected:
  // What the decoding of an address in the file says; `place` is what the trace has in parentheses.
  static std::string decoded(const ElfFile& file, const std::string& place = "+0x1200") {
    write("/tmp/bin/made", file.bytes());
    write(in("trace"), traceOf("/tmp/bin/made(" + place + ")[0x1200]\n", "0x1200"));
    return crash({"decode", "trace"}).out;
  }

  static ElfW(Phdr) code(size_t address) {
    ElfW(Phdr) segment = {};
    segment.p_type = PT_LOAD;
    segment.p_flags = PF_X;
    segment.p_vaddr = address;
    segment.p_memsz = 0x1000;
    return segment;
  }
};

TEST_F(ad_crashElfTest, BuildIdIsTheFirstNoteOfItsOwnerTypeAndSize) {
  ElfFile file;
  file.addNotes(ElfFile::note("Go", "\x11") + ElfFile::note("GNU", "") +
                ElfFile::note("GNU", std::string(65, '\x22')) + ElfFile::note("GNU", "\xab\xcd") +
                ElfFile::note("GNU", "\x33"));
  EXPECT_THAT(decoded(file), HasSubstr("\n  build id: abcd\n"));
}

TEST_F(ad_crashElfTest, NotesOfAnotherTypeAndNotesThatEndBehindTheirPartAreNoBuildId) {
  const std::string id = ElfFile::note("GNU", "\xab\xcd");
  const auto with = [&](size_t at, char byte) { return std::string(id).replace(at, 1, 1, byte); };
  for (const std::string& notes : {with(8, NT_GNU_BUILD_ID + 1), with(1, 1), with(5, 1)}) {
    ElfFile file;
    file.addNotes(notes);
    EXPECT_THAT(decoded(file), HasSubstr("\n  build id: none\n"));
  }
}

TEST_F(ad_crashElfTest, FilesOfTheOtherWidthAreReadToo) {
  constexpr bool kWide = sizeof(void*) == 8;
  using Header = std::conditional_t<kWide, Elf32_Ehdr, Elf64_Ehdr>;
  using Segment = std::conditional_t<kWide, Elf32_Phdr, Elf64_Phdr>;
  Header header = {};
  memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = kWide ? ELFCLASS32 : ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_type = ET_EXEC;
  header.e_phoff = sizeof header;
  header.e_phentsize = sizeof(Segment);
  header.e_phnum = 1;
  Segment segment = {};
  segment.p_type = PT_LOAD;
  segment.p_flags = PF_X;
  segment.p_memsz = 0x1000;
  // The second one goes on behind the last address.
  for (const bool fits : {true, false}) {
    segment.p_vaddr = fits ? 0x1000 : static_cast<decltype(segment.p_vaddr)>(-0x100);
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes.append(reinterpret_cast<const char*>(&segment), sizeof segment);
    write("/tmp/bin/made", bytes);
    write(in("trace"), traceOf("/tmp/bin/made(+0x1200)[0x1200]\n", "0x1200"));
    const std::string out = crash({"decode", "trace"}).out;
    EXPECT_EQ(out.find("is a damaged ELF file: its segments are too large or too many") ==
                  std::string::npos,
              fits)
        << out;
  }
}

TEST_F(ad_crashElfTest, NotesThatAreTooManyTooLargeOrBehindTheEndAreNotSearched) {
  const std::string id = ElfFile::note("GNU", "\xab\xcd");
  ElfFile many;
  for (int i = 0; i < 64; ++i) many.addNotes(ElfFile::note("none", ""));
  many.addNotes(id);
  EXPECT_THAT(decoded(many), Not(HasSubstr("abcd")));

  ElfFile large;
  large.addNotes(id + std::string(65536, '\0'));
  EXPECT_THAT(decoded(large), Not(HasSubstr("abcd")));

  ElfFile behind;
  behind.addNotes(id);
  behind.segments[0].p_filesz = 60000;
  EXPECT_THAT(decoded(behind), Not(HasSubstr("abcd")));
  behind.addNotes(id);
  EXPECT_THAT(decoded(behind), HasSubstr("\n  build id: abcd\n"));
}

TEST_F(ad_crashElfTest, MoreSegmentsThanAnyProgramHasAreDamage) {
  ElfFile file;
  for (size_t i = 1; i <= 256; ++i) file.segments.push_back(code(0x1000 * i));
  EXPECT_THAT(decoded(file), Not(HasSubstr("damaged")));
  file.segments.push_back(code(0x200000));
  EXPECT_THAT(decoded(file),
              HasSubstr("is a damaged ELF file: its segments are too large or too many)\n"));
}

TEST_F(ad_crashElfTest, SectionsThatLeadOutOfTheFileAreTakenForNone) {
  ElfFile file;
  file.segments.push_back(code(0x1000));
  file.addSection(SHT_NULL, 0, 0);
  file.addSection(SHT_SYMTAB, 0, 0, /*link=*/7);         // of names that no section holds
  file.addSection(SHT_DYNSYM, 60000, 24, /*link=*/3);    // behind the end
  file.addSection(SHT_STRTAB, file.put("main"), 60000);  // up to behind the end
  file.names_section = 3;
  EXPECT_THAT(decoded(file, "main+0x10"), AllOf(HasSubstr("made"), Not(HasSubstr("damaged"))));
  file.sections[2].sh_offset = file.put(std::string(48, '\0'));
  EXPECT_THAT(decoded(file, "main+0x10"), AllOf(HasSubstr("made"), Not(HasSubstr("damaged"))));
}

TEST_F(ad_crashElfTest, HeadersThatDoNotDescribeTheSectionsMakeThemNone) {
  ElfFile file;
  file.segments.push_back(code(0x1000));
  file.segments.push_back(code(0x3000));
  file.segments[1].p_memsz = 0;
  const size_t notes = file.put(ElfFile::note("GNU", "\xab\xcd"));
  file.addSection(SHT_NULL, 0, 1 << 30);
  file.addSection(SHT_NOTE, notes, 20);
  EXPECT_THAT(decoded(file), HasSubstr("\n  build id: abcd\n"));
  file.names_section = 7;
  EXPECT_THAT(decoded(file), HasSubstr("\n  build id: abcd\n")) << "only the names are missing";
  const std::function<void(ElfW(Ehdr)*)> changes[] = {
      [](ElfW(Ehdr) * header) { header->e_shoff = 0; },
      [](ElfW(Ehdr) * header) { header->e_shentsize = 1; },
      [](ElfW(Ehdr) * header) { header->e_shnum = 60000; },
      // The count stands in the first section, and is larger than any table.
      [](ElfW(Ehdr) * header) { header->e_shnum = 0; },
  };
  for (const auto& change : changes) {
    file.change = change;
    EXPECT_THAT(decoded(file), AllOf(HasSubstr("\n  build id: none\n"), Not(HasSubstr("damaged"))));
  }
}

TEST_F(ad_crashElfTest, SymbolThatStandsThereTwiceAllowsSeveralLoadAddresses) {
  ElfFile file;
  file.kind = ET_DYN;
  file.segments = {code(0), code(0x1000)};
  ElfW(Sym) symbols[2] = {};
  for (ElfW(Sym) & symbol : symbols) {
    symbol.st_name = 1;
    symbol.st_shndx = SHN_ABS;
  }
  symbols[0].st_value = 0x1f0;
  symbols[1].st_value = 0x11f0;
  file.addSection(SHT_NULL, 0, 0);
  const size_t at = file.put({reinterpret_cast<const char*>(symbols), sizeof symbols});
  file.addSection(SHT_SYMTAB, at, sizeof symbols, /*link=*/2);
  file.addSection(SHT_STRTAB, file.put(std::string("\0main", 6)), 6);
  EXPECT_THAT(decoded(file, "main+0x10"),
              EndsWith("?? (the trace's symbol lines allow several load addresses)\n"));
  // Of which another line allows one.
  write(in("trace"), traceOf("/tmp/bin/made(+0x200)[0x1200]\n/tmp/bin/made(main+0x10)[0x1200]\n"));
  EXPECT_THAT(crash({"decode", "trace"}).out, HasSubstr("\n  load base: 0x1000\n"));
}

TEST_F(ad_crashElfTest, NamesSectionOfALargeNumberStandsInTheFirstSection) {
  ElfFile file;
  file.segments.push_back(code(0x1000));
  const std::string names = std::string("\0.debug_line", 12) + '\0';
  file.addSection(SHT_NULL, 0, 0, /*link=*/2);
  file.addSection(SHT_PROGBITS, 0, 0, 0, /*name=*/1);
  file.addSection(SHT_STRTAB, file.put(names), names.size());
  // The distribution's program does not take such a file.
  write("/tmp/bin/addr2line",
        "#!/bin/sh\nwhile read -r a; do echo $a; echo '?\?'; echo '?\?:0'; done\n");
  ASSERT_EQ(chmod("/tmp/bin/addr2line", 0755), 0);
  const std::vector<std::string> path = {"PATH=/tmp/bin:/usr/bin:/bin"};
  (void)decoded(file);
  const std::string without = crash({"decode", "trace"}, path).out;
  file.names_section = SHN_XINDEX;
  (void)decoded(file);
  EXPECT_THAT(without, EndsWith("?? (no debug information, the exported name before it)\n"));
  EXPECT_THAT(crash({"decode", "trace"}, path).out,
              EndsWith("?? (no source line for this address)\n"));
}

// ---- clear ----

TEST_F(ad_crashTest, ClearRemovesTheMarkerAndTheTracesOfOneProgram) {
  const std::vector<std::string> own = {".a_crash_trace.12", ".a_crash_trace.345",
                                        ".excl_sig.a.lock"};
  const std::vector<std::string> others = {".a_crash_trace.1_crash_trace.2",
                                           ".aa_crash_trace.12",
                                           ".a_crash_trace.x",
                                           ".excl_sig.aa.lock",
                                           ".excl_sig.a.lock.lock",
                                           ".excl_sig.a_crash_trace.1.lock",
                                           ".a",
                                           "a",
                                           ".A_crash_trace.12"};
  for (const auto& files : {own, others})
    for (const std::string& file : files) write(in(file), "x");
  const ChildResult result = crash({"clear", "a"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out,
            "removed .a_crash_trace.12\nremoved .a_crash_trace.345\nremoved .excl_sig.a.lock\n");
  EXPECT_EQ(result.err, "");
  for (const std::string& file : own) EXPECT_FALSE(exists(file)) << file;
  for (const std::string& file : others) EXPECT_TRUE(exists(file)) << file;

  EXPECT_EQ(crash({"clear", "a_crash_trace.1"}).out,
            "removed .a_crash_trace.1_crash_trace.2\nremoved .excl_sig.a_crash_trace.1.lock\n");
}

TEST_F(ad_crashTest, ClearTakesTheNameAsItIs) {
  for (const char* file : {".a_crash_trace.1", ".b_crash_trace.1", ".*_crash_trace.1"})
    write(in(file), "");
  EXPECT_EQ(crash({"clear", "*"}).out, "removed .*_crash_trace.1\n");
  EXPECT_EQ(crash({"clear", "[ab]"}).exitCode(), 1);
  EXPECT_TRUE(exists(".a_crash_trace.1"));
  write(in(".-x\n_crash_trace.1"), "");
  EXPECT_EQ(crash({"clear", "--", "-x\n"}).out, "removed .-x\\n_crash_trace.1\n");
}

TEST_F(ad_crashTest, ClearRemovesALinkAndNotWhatItLeadsTo) {
  write("/tmp/precious", "x");
  std::filesystem::create_symlink("/tmp/precious", in(".a_crash_trace.1"));
  std::filesystem::create_symlink("/tmp/precious", in(".excl_sig.a.lock"));
  EXPECT_EQ(crash({"clear", "a"}).exitCode(), 0);
  EXPECT_FALSE(exists(".a_crash_trace.1"));
  EXPECT_FALSE(exists(".excl_sig.a.lock"));
  EXPECT_EQ(read("/tmp/precious"), "x");
}

TEST_F(ad_crashTest, ClearSaysWhatItCouldNotRemoveAndRemovesTheRest) {
  std::filesystem::create_directory(in(".a_crash_trace.1"));
  write(in(".excl_sig.a.lock"), "");
  const ChildResult result = crash({"clear", "a"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.out, "removed .excl_sig.a.lock\n");
  EXPECT_EQ(result.err, "ad_crash: cannot remove .a_crash_trace.1: Is a directory\n");
}

TEST_F(ad_crashTest, ClearFailsWhenThereIsNothing) {
  const ChildResult result = crash({"clear", "a\x1b"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ad_crash: no marker and no trace of 'a\\x1b' in /tmp/crashes\n");
}

// ---- Usage ----

TEST_F(ad_crashTest, WrongUsageIsOneMessageAndRemovesNothing) {
  write(in(".excl_sig.a.lock"), "");
  const std::string help = "; see ad_crash --help\n";
  const std::string id = "ad_crash: a build id is an even number of hexadecimal digits, not ";
  const struct {
    std::vector<std::string> arguments;
    std::string message;
  } rows[] = {
      {{}, "ad_crash: a command is missing" + help},
      {{"List"}, "ad_crash: there is no command 'List'" + help},
      {{""}, "ad_crash: there is no command ''" + help},
      {{"\x1b"}, "ad_crash: there is no command '\\x1b'" + help},
      {{"list", "a"}, "ad_crash: 'list' takes no argument" + help},
      {{"show"}, "ad_crash: 'show' takes one argument" + help},
      {{"show", "a", "b"}, "ad_crash: 'show' takes one argument" + help},
      {{"show", ""}, "ad_crash: the file has no name" + help},
      {{"decode"}, "ad_crash: 'decode' takes one argument" + help},
      {{"clear"}, "ad_crash: 'clear' takes one argument" + help},
      {{"clear", "a", "a"}, "ad_crash: 'clear' takes one argument" + help},
      {{"clear", ""}, "ad_crash: the program has no name" + help},
      {{"clear", "/bin/a"},
       "ad_crash: a program is named without its directory, not '/bin/a'" + help},
      {{"clear", "../a"}, "ad_crash: a program is named without its directory, not '../a'" + help},
      {{"--build-id", "", "decode", "x"}, id + "''" + help},
      {{"--build-id", "abc", "decode", "x"}, id + "'abc'" + help},
      {{"--build-id", "0x", "decode", "x"}, id + "'0x'" + help},
      {{"--build-id", " 1", "decode", "x"}, id + "' 1'" + help},
      {{"--build-id", std::string(130, 'a'), "decode", "x"},
       id + "'" + std::string(130, 'a') + "'" + help},
      {{"--build-id", "ab", "clear", "a"},
       "ad_crash: --program and --build-id are for 'decode'" + help},
      {{"--program", "/bin/a", "list"},
       "ad_crash: --program and --build-id are for 'decode'" + help},
      {{"--program", "", "decode", "x"}, "ad_crash: the file has no name" + help},
      {{"--wrong", "list"}, std::string(kProgram) + ": unrecognized option '--wrong'\n"},
      {{"list", "--dir"}, std::string(kProgram) + ": option '--dir' requires an argument\n"},
  };
  for (const auto& row : rows) {
    const ChildResult result = crash(row.arguments);
    EXPECT_EQ(result.exitCode(), 2) << row.message;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, row.message);
  }
  EXPECT_TRUE(exists(".excl_sig.a.lock"));
}

TEST_F(ad_crashTest, HelpNamesEveryCommandAndOption) {
  const ChildResult result = runProgram({kProgram, "--help"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("Usage: ad_crash "));
  for (const char* word : {"list", "show FILE", "decode FILE", "clear NAME", "--dir DIR",
                           "--program FILE", "--build-id HEX", "--help", "--version"})
    EXPECT_THAT(result.out, HasSubstr(std::string("\n  ") + word + " "));
}

TEST_F(ad_crashTest, VersionIsPrinted) {
  const ChildResult result = runProgram({kProgram, "--version"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.out, MatchesRegex("ad_crash [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_crashTest, OutputThatCannotBeWrittenIsAFailure) {
  write(in("trace"), traceOf(""));
  write(in(".excl_sig.a.lock"), "");
  for (const char* command :
       {"list", "show trace", "decode trace", "clear a", "--help", "--version"}) {
    const ChildResult result = runProgram(
        {"sh", "-c", std::string(kProgram) + " --dir " + kDir + " " + command + " > /dev/full"});
    EXPECT_EQ(result.exitCode(), 1) << command;
    EXPECT_EQ(result.err, "ad_crash: standard output: No space left on device\n") << command;
  }
}

}  // namespace
