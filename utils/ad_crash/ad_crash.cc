// ad_crash: lists, shows, decodes and removes what the crash handler leaves.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/command.h"
#include "common/crash_dir.h"
#include "common/file.h"
#include "common/text.h"
#include "decode.h"
#include "process.h"
#include "trace.h"

namespace {

constexpr size_t kMaxTrace = 1 << 20;  // bytes that are read of a trace
constexpr size_t kMaxBuildId = 64;

constexpr char kHelp[] =
    R"(Usage: ad_crash [OPTION]... COMMAND
Works with the markers and traces that the crash handler leaves.

Commands:
  list         print the markers and traces, by program
  show FILE    print a trace, unprintable bytes escaped
  decode FILE  print the functions and source lines of a trace's addresses
  clear NAME   remove the marker and the traces of the program NAME

A FILE without a slash is one in the directory.

Options:
  --dir DIR        the directory (default: /local/local1)
  --program FILE   decode: the program's file
  --build-id HEX   decode: decode the program only if it has this build id
  --help           print this text
  --version        print the version

Exit status: 0 done, 1 failed or not found, 2 wrong usage.
)";

// What the user asked for.
struct Request {
  std::string dir = kCrashDir;
  std::string argument;  // of the command
  Hints hints;           // for decode
};

Fd open_dir_of(const Request& request) {
  Fd dir = open_crash_dir(request.dir);
  if (!dir.is_open()) fail(kFailed, visible(request.dir) + ": " + strerror(errno));
  return dir;
}

std::vector<CrashFile> files_of(const Request& request, const Fd& dir) {
  std::optional<std::vector<CrashFile>> files = crash_files(dir.get());
  if (!files) fail(kFailed, visible(request.dir) + ": " + strerror(errno));
  return *files;
}

// ---- Reading a trace ----

struct TraceFile {
  std::string name;  // the last part of the path
  std::string text;  // at most kMaxTrace
  uint64_t size;
  timespec written;
};

std::optional<TraceFile> read_trace(int dir_fd, const std::string& path, std::string* why) {
  const Fd fd = open_regular(dir_fd, path, Links::kRefuse, why);
  if (!fd.is_open()) return std::nullopt;
  struct stat status;
  std::optional<std::string> text = read_up_to(fd.get(), kMaxTrace);
  // LCOV_EXCL_START: only of a damaged file system
  if (!text || fstat(fd.get(), &status) != 0) {
    *why = strerror(errno);
    return std::nullopt;
  }
  // LCOV_EXCL_STOP
  return TraceFile{std::string(base_name(path)), std::move(*text),
                   static_cast<uint64_t>(status.st_size), status.st_mtim};
}

// The trace that the command names.
TraceFile read_named_trace(const Request& request) {
  const bool in_dir = request.argument.find('/') == std::string::npos;
  const Fd dir = in_dir ? open_dir_of(request) : Fd();
  std::string why;
  std::optional<TraceFile> file = read_trace(in_dir ? dir.get() : AT_FDCWD, request.argument, &why);
  if (!file) fail(kFailed, visible(request.argument) + ": " + why);
  if (file->size > file->text.size())
    complain("only the first " + std::to_string(file->text.size()) + " of " +
             std::to_string(file->size) + " bytes are read");
  return *file;
}

std::string text_of(const std::optional<SignalLine>& signal) {
  if (!signal) return "unknown";
  return std::to_string(signal->number) + " (" + visible(signal->text) + ")";
}

// ---- Commands ----

void print_program(const std::vector<CrashFile>& files, const CrashFile& first) {
  (void)printf("%s: %s\n", visible(first.program).c_str(),
               first.pid
                   ? "not blocked"
                   : "blocked, its next crashes are parked for ever, until its next sig_init");
  for (const CrashFile& file : files) {
    if (file.program == first.program && !file.pid)
      (void)printf("  marker  %s%s\n", time_text(file.changed.tv_sec).c_str(),
                   file.regular ? "" : "  not a regular file");
  }
}

void print_trace(const Fd& dir, const CrashFile& file) {
  (void)printf("  trace %d  %s  ", *file.pid, time_text(file.changed.tv_sec).c_str());
  std::string why = "not a regular file";
  const std::optional<TraceFile> trace =
      file.regular ? read_trace(dir.get(), file.file, &why) : std::nullopt;
  if (!trace) {
    (void)printf("not readable: %s", why.c_str());
  } else {
    (void)printf("%llu bytes  signal %s", static_cast<unsigned long long>(file.size),
                 text_of(parse_trace(trace->text).signal).c_str());
  }
  (void)printf("  %s\n", words_of(owner_of(*file.pid, file.program, file.changed)));
}

ExitCode list(const Request& request) {
  const Fd dir = open_dir_of(request);
  const std::vector<CrashFile> files = files_of(request, dir);
  if (files.empty()) (void)printf("no markers or traces in %s\n", visible(request.dir).c_str());
  const CrashFile* previous = nullptr;
  for (const CrashFile& file : files) {
    if (previous == nullptr || previous->program != file.program) print_program(files, file);
    if (file.pid) print_trace(dir, file);
    previous = &file;
  }
  return kDone;
}

ExitCode show(const Request& request) {
  (void)fputs(visible_lines(read_named_trace(request).text).c_str(), stdout);
  return kDone;
}

Origin origin_of(const TraceFile& file, const Trace& trace) {
  Origin origin;
  origin.written = file.written;
  const std::optional<CrashFile> name = parse_file_name(file.name);
  if (name && name->pid) {
    origin.program = name->program;
    origin.pid = name->pid;
  }
  if (trace.process) origin.pid = trace.process->pid;
  if (origin.pid && !origin.program.empty())
    origin.owner = owner_of(*origin.pid, origin.program, origin.written);
  return origin;
}

// Null when the trace is whole.
const char* why_cut(const Trace& trace) {
  if (trace.faulted_again) return "the handler met a fault while it wrote it";
  if (trace.unguarded) return "the handler could not guard itself against a fault";
  return trace.ends < 2 ? "its end is missing" : nullptr;
}

ExitCode decode_trace(const Request& request) {
  const TraceFile file = read_named_trace(request);
  const Trace trace = parse_trace(file.text);
  const Origin origin = origin_of(file, trace);
  (void)printf("trace: %s, written %s\n", visible(file.name).c_str(),
               time_text(file.written.tv_sec).c_str());
  if (!origin.program.empty())
    (void)printf("program: %s, %s\n", visible(origin.program).c_str(), words_of(origin.owner));
  if (origin.pid) (void)printf("process: %d\n", *origin.pid);
  (void)printf("signal: %s\n", text_of(trace.signal).c_str());
  if (trace.referenced)
    (void)printf("referenced address: %s\n", hex_number(*trace.referenced).c_str());
  if (const char* why = why_cut(trace)) (void)printf("the trace is cut: %s\n", why);
  if (trace.unknown_lines > 0)
    (void)printf("%zu of %zu lines are not a trace's\n", trace.unknown_lines, trace.lines);
  return decode(trace, origin, request.hints) ? kDone : kFailed;
}

// The traces first: from the marker's removal on a crash leaves a new trace, which is to stay.
std::vector<CrashFile> in_order_of_removal(std::vector<CrashFile> files) {
  std::vector<CrashFile> ordered;
  for (const bool trace : {true, false})
    for (const CrashFile& file : files)
      if (file.pid.has_value() == trace) ordered.push_back(file);
  return ordered;
}

ExitCode clear(const Request& request) {
  const Fd dir = open_dir_of(request);
  bool found = false;
  ExitCode code = kDone;
  for (const CrashFile& file : in_order_of_removal(files_of(request, dir))) {
    if (file.program != request.argument) continue;
    found = true;
    // The entry itself: of a link, not what it leads to.
    if (unlinkat(dir.get(), file.file.c_str(), 0) == 0) {
      (void)printf("removed %s\n", visible(file.file).c_str());
    } else {
      complain("cannot remove " + visible(file.file) + ": " + strerror(errno));
      code = kFailed;
    }
  }
  if (found) return code;
  complain("no marker and no trace of '" + visible(request.argument) + "' in " +
           visible(request.dir));
  return kFailed;
}

// ---- The command line ----

void check_file(const std::string& file) {
  if (file.empty()) refuse("the file has no name");
}

void check_program_name(const std::string& name) {
  if (name.empty()) refuse("the program has no name");
  if (name.find('/') != std::string::npos)
    refuse("a program is named without its directory, not '" + visible(name) + "'");
}

struct Command {
  const char* name;
  void (*check)(const std::string& argument);  // null: takes none
  ExitCode (*run)(const Request& request);
};
constexpr Command kCommands[] = {
    {"list", nullptr, list},
    {"show", check_file, show},
    {"decode", check_file, decode_trace},
    {"clear", check_program_name, clear},
};

std::string parse_build_id(const std::string& text) {
  std::string bytes;
  const bool whole = !text.empty() && text.size() % 2 == 0 && text.size() <= 2 * kMaxBuildId;
  if (!whole || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    refuse("a build id is an even number of hexadecimal digits, not '" + visible(text) + "'");
  for (size_t i = 0; i < text.size(); i += 2)
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  return bytes;
}

// Takes the options; what is left of the arguments begins at optind.
Request parse_options(int argc, char** argv) {
  enum { kDir = 1, kProgram, kBuildId, kShowHelp, kVersion };
  constexpr option kOptions[] = {
      {"dir", required_argument, nullptr, kDir},
      {"program", required_argument, nullptr, kProgram},
      {"build-id", required_argument, nullptr, kBuildId},
      {"help", no_argument, nullptr, kShowHelp},
      {"version", no_argument, nullptr, kVersion},
      {},
  };
  Request request;
  for (int found; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (found) {
      case kDir:
        request.dir = optarg;
        break;
      case kProgram:
        check_file(optarg);
        request.hints.program_file = optarg;
        break;
      case kBuildId:
        request.hints.build_id = parse_build_id(optarg);
        break;
      case kShowHelp:
        print_and_exit(kHelp);
      case kVersion:
        print_and_exit("ad_crash " VELORIN_VERSION "\n");
      default:
        exit(kUsage);  // getopt_long has said why
    }
  }
  return request;
}

// So that no file that is opened later takes a standard stream's place.
void open_standard_streams() {
  int fd;
  do fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd < 0) exit(kFailed);
  (void)close(fd);
}

const Command& parse_command(const std::vector<std::string>& words, Request* request) {
  if (words.empty()) refuse("a command is missing");
  for (const Command& command : kCommands) {
    if (words[0] != command.name) continue;
    const size_t wanted = command.check != nullptr ? 2 : 1;
    if (words.size() != wanted)
      refuse("'" + words[0] + "' takes " + (wanted == 2 ? "one argument" : "no argument"));
    if (command.run != decode_trace &&
        (!request->hints.program_file.empty() || request->hints.build_id))
      refuse("--program and --build-id are for 'decode'");
    if (command.check != nullptr) command.check(words[1]);
    if (wanted == 2) request->argument = words[1];
    return command;
  }
  refuse("there is no command '" + visible(words[0]) + "'");
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_streams();
  Request request = parse_options(argc, argv);
  const ExitCode code = parse_command({argv + optind, argv + argc}, &request).run(request);
  finish_output();
  return code;
}
