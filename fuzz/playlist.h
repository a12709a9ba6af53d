// What the fuzz targets of both playlist formats share: a slow scanner, one character and one rule
// at a time, and the comparison of ours with it.
#ifndef VELORIN_FUZZ_playlist_
#define VELORIN_FUZZ_playlist_

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "fuzz.h"
#include "velorin/xmlRewrite"

namespace playlist {

struct Language {
  std::vector<std::pair<std::string, std::string>> elements;  // what is matched; the name given
  std::vector<std::string> attributes;
  size_t behind_element;    // skipped, counted from the end of what was matched
  size_t behind_attribute;  // where the value's search begins, counted from the attribute
  std::string complaint;
};
inline const char* const kNameStays = "-";

// All that a parse does that can be seen.
struct Outcome {
  int result = 0;
  std::vector<std::string> events;  // log lines, "PRIORITY TEXT", and links, "TAG|LINK", in order
  std::string written;

  bool operator==(const Outcome& other) const {
    return result == other.result && events == other.events && written == other.written;
  }
};

// The slow scanner. `text` has no zero.
class Reference {
 public:
  Reference(const Language& language, const std::string& text, const std::string& path,
            const std::string& prefix)
      : language_(language), text_(text), path_(path), prefix_(prefix) {}

  Outcome run() {
    while (i_ < text_.size() && !failed_) step();
    if (failed_) {
      outcome_.result = 2;
      return outcome_;
    }
    outcome_.written += text_.substr(last_pos_);
    if (tag_) {
      outcome_.events.push_back("7 " + language_.complaint + " " + path_);
      outcome_.result = 2;
    }
    return outcome_;
  }

 private:
  bool matches(const std::string& word) const {
    return strncasecmp(text_.c_str() + i_, word.c_str(), word.size()) == 0;
  }

  void step() {
    const char c = text_[i_];
    if (c == '<') {
      tag_ = true;
      ++i_;
    } else if (c == '>') {
      tag_ = false;
      media_tag_ = false;
      ++i_;
    } else if (c == ' ' || !tag_) {
      ++i_;
    } else if (!media_tag_) {
      element();
    } else {
      inElement();
    }
  }

  void element() {
    for (const auto& [word, name] : language_.elements) {
      if (!matches(word)) continue;
      media_tag_ = true;
      if (name != kNameStays) last_tag_ = name;
      i_ += word.size() + language_.behind_element;
      if (i_ > text_.size()) i_ = text_.size();
      return;
    }
    tag_ = false;
    ++i_;
  }

  void inElement() {
    for (const std::string& word : language_.attributes) {
      if (matches(word)) return value();
    }
    ++i_;
  }

  void value() {
    const size_t unset = text_.size();
    size_t first = unset;
    for (size_t r = i_ + language_.behind_attribute;; ++r) {
      const char c = r < text_.size() ? text_[r] : '\0';
      if (c == '<' || c == '>' || c == '\0') {
        outcome_.events.push_back("7 " + language_.complaint + path_);
        failed_ = true;
        return;
      }
      const bool quote = c == '"' || c == '\'';
      if (first == unset) {
        if (quote) first = r;
      } else if (quote || c == '?') {
        return link(first, r);
      }
    }
  }

  void link(size_t first, size_t r) {
    outcome_.events.push_back("7 First and R " + std::to_string(first) + "  " + std::to_string(r));
    const std::string url = text_.substr(first + 1, r - first - 1);
    outcome_.written += text_.substr(last_pos_, first + 1 - last_pos_);
    last_pos_ = r;
    outcome_.events.push_back(last_tag_ + "|" + url);
    outcome_.written += prefix_ + url;
    tag_ = false;
    media_tag_ = false;
    i_ = r + 1;
  }

  const Language& language_;
  const std::string& text_;
  const std::string& path_;
  const std::string& prefix_;
  Outcome outcome_;
  size_t i_ = 0;
  size_t last_pos_ = 0;
  bool tag_ = false;
  bool media_tag_ = false;
  bool failed_ = false;
  std::string last_tag_;
};

// Ours, with what it does noted.
class Noting : public xmlRewrite {
 public:
  static inline Outcome outcome;
  std::string prefix;
  int wanted_dummy1 = 0;
  void* wanted_dummy2 = nullptr;

  std::string getHrefValue(char* url, std::string tag, int dummy1, void* dummy2) override {
    REQUIRE(dummy1 == wanted_dummy1 && dummy2 == wanted_dummy2);
    outcome.events.push_back(tag + "|" + url);
    return prefix + url;
  }
  logError_t logError() override { return note; }

 private:
  __attribute__((format(printf, 2, 3))) static void note(int priority, char* format, ...) {
    char text[512];
    va_list ap;
    va_start(ap, format);
    (void)vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    outcome.events.push_back(std::to_string(priority) + " " + text);
  }
};

// A file in memory, whose text changes.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("playlist", MFD_CLOEXEC)) {
    REQUIRE(fd_ >= 0);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }

  void hold(const uint8_t* data, size_t size) {
    REQUIRE(ftruncate(fd_, 0) == 0);
    REQUIRE(pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
  }
  std::string& path() { return path_; }

 private:
  int fd_;
  std::string path_;
};

// Parses `data` with `parse`, which gets an object and a path: a scan, a rewrite that changes
// nothing and one that changes every link, all with one object that has seen all inputs before.
template <class Parse>
void compare(const Language& language, Noting& object, const uint8_t* data, size_t size,
             Parse parse) {
  static MemoryFile file;
  file.hold(data, size);
  std::string text(reinterpret_cast<const char*>(data), size);
  text.resize(strlen(text.c_str()));

  for (const std::string prefix : {"", "http://cache.example/?"}) {
    const Outcome expected = Reference(language, text, file.path(), prefix).run();
    object.prefix = prefix;
    for (const int rewrite : {0, 1}) {
      object.doRewrite = rewrite;
      Noting::outcome = Outcome();
      Noting::outcome.result = parse(object, file.path().data());
      REQUIRE(object.contents_ == text);
      REQUIRE(object.parseFileName_ == file.path());
      REQUIRE(rewrite != 0 || object.newContents_.empty());
      Noting::outcome.written = rewrite != 0 ? object.newContents_ : expected.written;
      REQUIRE(Noting::outcome == expected);
    }
    // Nothing is lost, whatever the text, unless a value stopped the parse.
    const bool stopped =
        expected.result != 0 && expected.events.back() == "7 " + language.complaint + file.path();
    REQUIRE(!prefix.empty() || stopped || object.newContents_ == text);
  }
}

}  // namespace playlist

#endif  // VELORIN_FUZZ_playlist_
