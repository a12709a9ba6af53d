// The links of a playlist, one on a line behind the element's name; with --prefix, the playlist
// with that text in front of each link. A fault in the playlist ends the list and is told.
//
//   playlist_links [--smil | --asx] [--prefix URL] FILE
//
// Without --smil or --asx the file's name tells: .smil, .smi; .asx, .wax, .wvx.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <velorin/xmlRewrite>

#include <iostream>
#include <string>

namespace {

void logErrors(int priority, char* format, ...) __attribute__((format(printf, 2, 3)));

class Links : public xmlRewrite {
 public:
  std::string prefix;

  std::string getHrefValue(char* url, std::string tag, int /*ip*/, void* /*sign_info*/) override {
    if (doRewrite == 0) std::cout << (tag.empty() ? "-" : tag) << ' ' << url << '\n';
    return prefix + url;
  }

  logError_t logError() override { return logErrors; }
};

// What is said at priority 7 is for developers, except that the playlist is at fault.
void logErrors(int priority, char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  (void)vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (priority <= 3 || strstr(text, "syntax Error") != nullptr) std::cerr << text << '\n';
}

bool endsIn(const std::string& name, const char* ending) {
  const size_t size = strlen(ending);
  return name.size() >= size && strcasecmp(name.c_str() + name.size() - size, ending) == 0;
}

enum class Kind { kUnknown, kSmil, kAsx };

Kind kindOf(const std::string& name) {
  for (const char* ending : {".smil", ".smi"}) {
    if (endsIn(name, ending)) return Kind::kSmil;
  }
  for (const char* ending : {".asx", ".wax", ".wvx"}) {
    if (endsIn(name, ending)) return Kind::kAsx;
  }
  return Kind::kUnknown;
}

int usage() {
  std::cerr << "usage: playlist_links [--smil | --asx] [--prefix URL] FILE\n"
               "Without --smil or --asx, FILE ends in .smil, .smi, .asx, .wax or .wvx.\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Links links;
  Kind kind = Kind::kUnknown;
  int i = 1;
  for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
    const std::string option = argv[i];
    if (option == "--smil") {
      kind = Kind::kSmil;
    } else if (option == "--asx") {
      kind = Kind::kAsx;
    } else if (option == "--prefix" && i + 1 < argc) {
      links.prefix = argv[++i];
      links.doRewrite = 1;
    } else {
      return usage();
    }
  }
  if (i + 1 != argc) return usage();
  char* const file = argv[i];
  if (kind == Kind::kUnknown) kind = kindOf(file);
  if (kind == Kind::kUnknown) return usage();

  const int result = kind == Kind::kSmil
                         ? links.doParseSMIL(file)
                         : links.doParseASX(file, /*clientIp=*/0, /*unsSignInfo=*/nullptr);
  if (result == 0) std::cout << links.newContents_;
  return result;
}
