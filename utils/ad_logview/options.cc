// The command line. See options.h.
#include "options.h"

#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr char kHelp[] =
    R"(Usage: ad_logview [OPTION]... [FILE]...
Shows the lines of logs that ad_logd wrote, those that meet all that is asked
for. Without a FILE, or for the FILE -, shows standard input.

Which lines:
  -t, --tag TAG[,TAG]...  of one of these tags: ERRO, CRTC, TRCE, DETL
  --level 0..4            of the tags that are written at this debug level
  -p, --process PROCESS   of this process: NAME, PID or NAME(PID); repeated:
                          of one of these processes
  --text TEXT             with this text; repeated: with all of these
  --regex ERE             with a match of this POSIX extended regular
                          expression; repeated: with matches of all of these
  --since TIME            of this time and later
  --until TIME            of this time and earlier
  -n, --lines N           only the last N of them

A TIME is one of the log, "2026-03-05 14:07:31.042317", from its front or its
date left out, with a Z behind it for UTC; or so long ago: 90s, 10m, 1h30m, 2d.

How:
  -f, --follow            wait for more lines of the last FILE, until
                          interrupted; also when it is replaced or cut
  --color[=WHEN]          colour: always, never, or auto (the default): on a
                          terminal unless $NO_COLOR is set
  --help                  print this text
  --version               print the version

Exit status: 0 lines were shown, 1 there are none, 2 trouble or wrong usage.
)";

enum Choice {
  kTag = 't',
  kProcess = 'p',
  kLines = 'n',
  kFollow = 'f',
  kLevel = 256,
  kText,
  kRegex,
  kSince,
  kUntil,
  kColour,
  kShowHelp,
  kVersion
};
constexpr char kShort[] = "t:p:n:f";
constexpr option kLong[] = {
    {"tag", required_argument, nullptr, kTag},
    {"level", required_argument, nullptr, kLevel},
    {"process", required_argument, nullptr, kProcess},
    {"text", required_argument, nullptr, kText},
    {"regex", required_argument, nullptr, kRegex},
    {"since", required_argument, nullptr, kSince},
    {"until", required_argument, nullptr, kUntil},
    {"lines", required_argument, nullptr, kLines},
    {"follow", no_argument, nullptr, kFollow},
    {"color", optional_argument, nullptr, kColour},
    {"help", no_argument, nullptr, kShowHelp},
    {"version", no_argument, nullptr, kVersion},
    {},
};

constexpr uint32_t bitOf(Tag tag) {
  return 1U << static_cast<int>(tag);
}

constexpr uint32_t kErrors = bitOf(Tag::kErro) | bitOf(Tag::kCrtc);
constexpr uint32_t kTrace = kErrors | bitOf(Tag::kTrce);
constexpr uint32_t kDetail = kTrace | bitOf(Tag::kDetl);
constexpr uint32_t kTagsOfLevel[] = {kErrors, kErrors, kTrace, kDetail, kDetail};

uint32_t parseTag(const std::string& name) {
  for (const TagName& known : kTagNames)
    if (strcasecmp(name.c_str(), known.name.data()) == 0) return bitOf(known.tag);
  refuse("a tag is ERRO, CRTC, TRCE or DETL, not '" + escaped(name) + "'");
}

uint32_t parseTags(const std::string& list) {
  uint32_t tags = 0;
  size_t start = 0;
  for (size_t comma; (comma = list.find(',', start)) != std::string::npos; start = comma + 1)
    tags |= parseTag(list.substr(start, comma - start));
  return tags | parseTag(list.substr(start));
}

uint32_t parseLevel(const std::string& text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '4')
    refuse("the level is a number from 0 to 4, not '" + escaped(text) + "'");
  return kTagsOfLevel[text[0] - '0'];
}

ProcessPattern parseProcess(const std::string& text) {
  if (text.empty()) refuse("the process has no name");
  if (const std::optional<uint32_t> pid = parseNumber(text)) return {text, pid, /*either=*/true};
  const size_t open = text.rfind('(');
  if (text.back() == ')' && open != std::string::npos) {
    const std::string_view digits = std::string_view(text).substr(open + 1, text.size() - open - 2);
    if (const std::optional<uint32_t> pid = parseNumber(digits))
      return {text.substr(0, open), pid, /*either=*/false};
  }
  return {text, std::nullopt, /*either=*/false};
}

Regex parseRegex(const std::string& text) {
  auto* const compiled = new regex_t;
  const int result = regcomp(compiled, text.c_str(), REG_EXTENDED);
  if (result == 0) return Regex(compiled);
  char why[256];
  (void)regerror(result, compiled, why, sizeof why);
  delete compiled;
  refuse("'" + escaped(text) + "' is no regular expression: " + why);
}

TimeBound parseTime(const std::string& text, BoundOf which, timespec now) {
  if (const std::optional<TimeBound> bound = parseTimeBound(text, which, now)) return *bound;
  refuse("a time has the form 2026-03-05 14:07:31, 14:07, 90s or 1h30m, not '" + escaped(text) +
         "'");
}

size_t parseCount(const std::string& text) {
  if (const std::optional<uint32_t> count = parseNumber(text)) return *count;
  refuse("a number of lines is wanted, not '" + escaped(text) + "'");
}

// What the terminal takes bytes for, as the environment says it.
Charset charsetOfTerminal() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = getenv(name);
    if (value == nullptr || *value == '\0') continue;
    const bool utf8 = strcasestr(value, "UTF-8") != nullptr || strcasestr(value, "UTF8") != nullptr;
    return utf8 ? Charset::kUtf8 : Charset::kAscii;
  }
  return Charset::kAscii;
}

bool wantsColour(const char* when, bool terminal) {
  if (strcmp(when, "always") == 0) return true;
  if (strcmp(when, "never") == 0) return false;
  if (strcmp(when, "auto") != 0)
    refuse(std::string("colour is wanted always, never or auto, not '") + escaped(when) + "'");
  const char* const no_color = getenv("NO_COLOR");
  const char* const term = getenv("TERM");
  const bool refused = no_color != nullptr && *no_color != '\0';
  return terminal && !refused && term != nullptr && strcmp(term, "dumb") != 0;
}

void checkFollow(const Options& options) {
  if (!options.follow) return;
  if (options.files.back() == kStandardInput)
    refuse("--follow needs a file: standard input is read to its end in any case");
  if (options.criteria.times.until) refuse("--follow and --until exclude each other");
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  timespec now;
  (void)clock_gettime(CLOCK_REALTIME, &now);
  Options options;
  Criteria& criteria = options.criteria;
  uint32_t level_tags = kDetail;
  bool has_level = false;
  const char* colour = "auto";
  for (int found; (found = getopt_long(argc, argv, kShort, kLong, nullptr)) != -1;) {
    switch (found) {
      case kTag:
        criteria.tags |= parseTags(optarg);
        break;
      case kLevel:
        level_tags = parseLevel(optarg);
        has_level = true;
        break;
      case kProcess:
        criteria.processes.push_back(parseProcess(optarg));
        break;
      case kText:
        criteria.texts.emplace_back(optarg);
        break;
      case kRegex:
        criteria.regexes.push_back(parseRegex(optarg));
        break;
      case kSince:
        criteria.times.since = parseTime(optarg, BoundOf::kSince, now);
        break;
      case kUntil:
        criteria.times.until = parseTime(optarg, BoundOf::kUntil, now);
        break;
      case kLines:
        options.last = parseCount(optarg);
        break;
      case kFollow:
        options.follow = true;
        break;
      case kColour:
        colour = optarg != nullptr ? optarg : "always";
        break;
      case kShowHelp:
        print_and_exit(kHelp);
      case kVersion:
        print_and_exit("ad_logview " VELORIN_VERSION "\n");
      default:
        exit(kUsage);  // getopt_long has said why
    }
  }
  if (has_level && criteria.tags != 0) refuse("--tag and --level exclude each other");
  if (has_level) criteria.tags = level_tags;
  options.files.assign(argv + optind, argv + argc);
  if (options.files.empty()) options.files.emplace_back(kStandardInput);
  checkFollow(options);
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  options.colour = wantsColour(colour, terminal);
  if (terminal) options.charset = charsetOfTerminal();
  return options;
}
