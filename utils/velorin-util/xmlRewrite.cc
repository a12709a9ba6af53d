// Finds and rewrites the links of playlists. See velorin/xmlRewrite.
#include "velorin/xmlRewrite"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <limits>

#include "String_digits.h"
#include "xmlRewrite_stops.h"

namespace {

constexpr int kError = 3;  // syslog priorities
constexpr int kDebug = 7;
constexpr int kFailed = 2;  // of a parse

constexpr size_t kUsualLink = 255;  // characters that few links exceed

// The texts of log statements are not constant for those who take them.
char kHrefFormat[] = "xmlRewrite::getHrefValue: url = %s tag = %s dummy1 = %x dummy2 = %p";
char kLoadFormat[] = "xmlRewrite::loadFile Error for '%s': %s (errno=%d)";
char kValueFormat[] = "%s%s%s%s";
char kSyntaxFormat[] = "%s%s";
char kEndFormat[] = "%s %s";

// The first eight characters of a text, the first one lowest, as this processor loads them; zeros
// stand behind the text's end.
using Word = uint64_t;

Word wordAt(const char* at, const char* end) {
  const size_t left = static_cast<size_t>(end - at);
  Word word = 0;
  if (left >= sizeof word)
    memcpy(&word, at, sizeof word);
  else
    memcpy(&word, at, left);
  return word;
}

// Whether `c` is `wanted`, a lower-case letter or a space, in any case: letters differ in one bit.
bool isInAnyCase(char c, char wanted) {
  return c == wanted || (wanted != ' ' && (c | ' ') == wanted);
}

// What an element or attribute begins with: lower-case letters, and perhaps a space.
class Name {
 public:
  template <size_t kSize>
  constexpr Name(const char (&text)[kSize]) : text_(text), length_(kSize - 1) {
    for (size_t i = 0; i < length_ && i < sizeof(Word); ++i) {
      word_ |= at(i, text[i]);
      mask_ |= at(i, '\xFF');
      if (text[i] != ' ') case_bits_ |= at(i, ' ');
    }
  }

  constexpr size_t length() const { return length_; }

  // Whether the text at `c`, which ends in a zero, begins so in any case; `word` holds its first
  // characters.
  bool begins(const char* c, Word word) const {
    if (((word | case_bits_) & mask_) != word_) return false;
    size_t i = sizeof(Word);
    while (i < length_ && isInAnyCase(c[i], text_[i])) ++i;
    return i >= length_;
  }

 private:
  static constexpr Word at(size_t place, char c) {
    return Word{static_cast<unsigned char>(c)} << (8 * place);
  }

  const char* text_;
  size_t length_;
  Word word_ = 0;
  Word mask_ = 0;       // of the places that the word has
  Word case_bits_ = 0;  // those of its letters
};

// The name that a link is reported with.
class Tag {
 public:
  constexpr Tag() = default;
  template <size_t kSize>
  constexpr Tag(const char (&text)[kSize]) : length_(kSize - 1) {
    static_assert(kSize - 1 <= sizeof text_, "as long as a string holds itself");
    for (size_t i = 0; i < length_; ++i) text_[i] = text[i];
  }

  constexpr bool empty() const { return length_ == 0; }

  // Flattened, so that the copy has a size known when compiling and calls nothing.
  [[gnu::flatten]] std::string string() const {
    std::string s(text_, sizeof text_);
    s.erase(length_);
    return s;
  }

 private:
  char text_[15] = {};  // what a string has room for itself
  uint8_t length_ = 0;
};

struct Element {
  Name name;
  Tag tag;  // what its links are reported with; empty: as the element before
};

// Kept: links of an image are reported with the name of the element before it.
// Kept: a name ends in a space alone, not in a line end or a bracket.
constexpr Element kSmilElements[] = {
    {"video ", "video"},         {"audio ", "audio"}, {"textstream ", "textstream"},
    {"animation ", "animation"}, {"ref ", "ref"},     {"image ", ""},
    {"text ", "text"},           {"img ", "img"},     {"a ", "a"},
    {"anchor ", "anchor"},       {"area ", "area"}};
constexpr Name kSmilAttributes[] = {"src", "href"};

constexpr Element kAsxElements[] = {{"ref", "ref"}, {"entryref", "entryref"}, {"logo", "logo"}};
constexpr Name kAsxAttributes[] = {"href"};

template <class T>
struct List {
  template <size_t kSize>
  constexpr List(const T (&items)[kSize]) : first(items), size(kSize) {}

  constexpr const T* begin() const { return first; }
  constexpr const T* end() const { return first + size; }

  const T* first;
  size_t size;
};

struct Format {
  List<Element> elements;
  Stops<10> element_letters;  // the first of these
  bool skips_one;             // the character behind an element's name
  List<Name> attributes;
  const char* (*first_hint)(const char*, const char*);  // of these, or the end of an element
  size_t value_offset;  // where the value's search begins, from the attribute's start
  const char* complaint;
};

constexpr Format kSmil = {kSmilElements,       Stops("vVaAtTrRiI"),        false,
                          kSmilAttributes,     firstHintOfAttribute<true>, 3,
                          "SMIL syntax Error "};
constexpr Format kAsx = {kAsxElements,       Stops("rReElLrReE"),         true,
                         kAsxAttributes,     firstHintOfAttribute<false>, 4,
                         "ASX syntax Error "};

constexpr Stops kValueStops("\"'?<>");

bool isQuote(char c) {
  return c == '"' || c == '\'';
}

const Element* elementAt(const char* at, const char* end, const Format& format) {
  if (!format.element_letters.has(*at)) return nullptr;
  const Word word = wordAt(at, end);
  for (const Element& element : format.elements) {
    if (element.name.begins(at, word)) return &element;
  }
  return nullptr;
}

// Kept: wherever it stands, inside of words and values too.
bool isAttributeAt(const char* at, const char* end, const Format& format) {
  const Word word = wordAt(at, end);
  for (const Name& attribute : format.attributes) {
    if (attribute.begins(at, word)) return true;
  }
  return false;
}

// What Str(n, 10, 1) gives, without a string: two numbers are written for each link. Most differ
// from the one before in their last four digits alone.
class Decimal {
 public:
  const char* of(size_t n) {
    if (n >= kUnit && n - unit_ < kUnit)
      velorin::internal::writeBlock<10, kRest>(text_ + length_ - kRest,
                                               static_cast<uint32_t>(n - unit_));
    else
      writeAll(n);
    return text_;
  }

 private:
  static constexpr size_t kRest = 4;
  static constexpr size_t kUnit = 10000;

  void writeAll(velorin::internal::Magnitude<size_t> n) {
    using namespace velorin::internal;
    length_ = lengthOf(n, 10);
    if (n < kUnit)
      writeLeading<10, kRest>(text_, static_cast<uint32_t>(n), length_);
    else
      writeDigits(text_, n, length_, FixedRadix<10>());
    text_[length_] = '\0';
    unit_ = n - n % kUnit;
  }

  size_t unit_ = 0;  // the number that `text_` has, without its last four digits
  size_t length_ = 0;
  // Zeros may be written behind the digits.
  char text_[std::numeric_limits<size_t>::digits10 + 1 + velorin::internal::kBlock];
};

// One scan of a playlist that has been loaded.
class Scan {
 public:
  Scan(xmlRewrite* playlist, const Format& format, int dummy1, void* dummy2)
      : playlist_(*playlist),
        text_(playlist->contents_),
        format_(format),
        dummy1_(dummy1),
        dummy2_(dummy2) {}

  // Returns: what the parse returns.
  int run() {
    if (rewrites()) reserve();
    size_t at = 0;
    while ((at = nextBracket(at)) != std::string::npos) {
      const Found found = scanElement(&at);
      if (found == kEnd) break;
      if (found == kAttribute && !takeLink(&at)) return kFailed;
    }
    if (rewrites()) playlist_.newContents_.append(text_, copied_);
    if (at == std::string::npos) return 0;
    playlist_.logError()(kDebug, kEndFormat, format_.complaint, playlist_.parseFileName_.c_str());
    return kFailed;
  }

 private:
  enum Found { kAttribute, kNothing, kEnd };

  // For links that get longer, within what a text can hold.
  void reserve() {
    std::string& to = playlist_.newContents_;
    to.reserve(std::min(text_.size() + text_.size() / 8, to.max_size()));
  }

  // As text_.find does, without a call more for each element.
  size_t nextBracket(size_t at) const {
    if (at >= text_.size()) return std::string::npos;
    const void* const found = memchr(text_.data() + at, '<', text_.size() - at);
    if (found == nullptr) return std::string::npos;
    return static_cast<size_t>(static_cast<const char*>(found) - text_.data());
  }

  bool rewrites() const { return playlist_.doRewrite != 0; }

  // Looks for an attribute with a link in the element that begins at `*at`; moves on to it, to the
  // end of what need not be looked at otherwise, or to the end of the text.
  Found scanElement(size_t* at) {
    const char* c = text_.c_str() + *at;
    const Found found = scanFrom(&c);
    *at = static_cast<size_t>(c - text_.c_str());
    return found;
  }

  Found scanFrom(const char** position) {
    const char*& c = *position;
    const char* const end = text_.c_str() + text_.size();
    while (*c == '<' || *c == ' ') ++c;
    if (*c == '\0') return kEnd;
    const Element* const element = elementAt(c, end, format_);
    if (element == nullptr) {
      ++c;
      return kNothing;
    }
    if (!element->tag.empty()) tag_ = element->tag;
    // No SMIL name holds an attribute: the search need not wait for where the name ends.
    if (format_.skips_one) {
      c += element->name.length();
      // Kept: whatever stands behind an ASX name is skipped, a closing bracket too.
      if (*c != '\0') ++c;
    }
    for (;; ++c) {
      c = format_.first_hint(c, end);
      if (*c == '\0') return kEnd;
      // Kept: a bracket that opens is nothing in here.
      if (*c == '>') return kNothing;
      if (isAttributeAt(c, end, format_)) return kAttribute;
    }
  }

  // Takes the link of the attribute at `*at` and moves on behind it. Returns: whether it has one.
  bool takeLink(size_t* at) {
    const char* const text = text_.c_str();
    const char* const end = text + text_.size();
    // One character at a time: the quote is near, and predicted branches let what follows begin
    // before its place is known.
    const char* first = kValueStops.first(text + *at + format_.value_offset);
    while (*first == '?') first = kValueStops.first(first + 1);
    if (!isQuote(*first)) return complain();
    const char* const r = kValueStops.first(first + 1, end);
    // Kept: any quote closes any other; a question mark ends the link, but not one before the
    // quotes.
    if (!isQuote(*r) && *r != '?') return complain();
    replace(static_cast<size_t>(first - text), static_cast<size_t>(r - text));
    // Kept: one link an element; the rest of it is text.
    *at = copied_ + 1;
    return true;
  }

  // The link stands between `first` and `r`.
  void replace(size_t first, size_t r) {
    playlist_.logError()(kDebug, kValueFormat, "First and R ", first_.of(first), "  ", r_.of(r));
    if (rewrites()) playlist_.newContents_.append(text_, copied_, first + 1 - copied_);
    copied_ = r;
    const std::string replacement =
        playlist_.getHrefValue(copyOf(first + 1, r), tag_.string(), dummy1_, dummy2_);
    if (rewrites()) playlist_.newContents_.append(replacement);
  }

  // The text from `begin` up to `end`, for the application.
  char* copyOf(size_t begin, size_t end) {
    const size_t length = end - begin;
    if (link_.size() < length) link_.resize(std::max(length, kUsualLink));
    memcpy(link_.data(), text_.data() + begin, length);
    link_[length] = '\0';
    return link_.data();
  }

  bool complain() {
    playlist_.logError()(kDebug, kSyntaxFormat, format_.complaint,
                         playlist_.parseFileName_.c_str());
    return false;
  }

  xmlRewrite& playlist_;
  const std::string& text_;
  const Format& format_;
  const int dummy1_;
  void* const dummy2_;
  size_t copied_ = 0;  // what stands before is in newContents_
  Tag tag_;            // of the last media element
  Decimal first_, r_;  // of the last link
  std::string link_;   // room for what the application gets
};

int parse(xmlRewrite* playlist, const char* file, const Format& format, int dummy1, void* dummy2) {
  playlist->parseFileName_ = file != nullptr ? file : "";
  // Kept: the rewritten text of the file before stays when this one cannot be loaded.
  if (!playlist->loadFile()) return kFailed;
  playlist->newContents_.clear();
  return Scan(playlist, format, dummy1, dummy2).run();
}

bool logLoadError(xmlRewrite* playlist, int err) {
  playlist->logError()(kError, kLoadFormat, playlist->parseFileName_.c_str(), strerror(err), err);
  return false;
}

// Makes room for a file of `size` bytes. Returns: whether there was enough memory.
bool grow(std::string* text, off_t size) {
  // A file can be larger than what 32 bits count.
  if (static_cast<uintmax_t>(size) > text->max_size()) return false;
  try {
    if (text->size() < static_cast<size_t>(size)) text->resize(static_cast<size_t>(size));
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

// Reads `size` bytes; `*got` counts them. Returns: 0, or the errno of a read that failed.
int readAll(int fd, char* to, size_t size, size_t* got) {
  while (*got < size) {
    const ssize_t count = read(fd, to + *got, size - *got);
    if (count < 0 && errno != EINTR) return errno;
    // Kept: an end of the file that comes too early is read again.
    if (count > 0) *got += static_cast<size_t>(count);
  }
  return 0;
}

}  // namespace

void ourLogError(int /*priority*/, char* format, ...) {
  va_list ap;
  va_start(ap, format);
  // Kept: on standard output, whatever the priority, and without an end of line.
  (void)vprintf(format, ap);
  va_end(ap);
  (void)fflush(stdout);
}

xmlRewrite::~xmlRewrite() = default;

std::string xmlRewrite::getHrefValue(char* url, std::string tag, int dummy1, void* dummy2) {
  logError()(kDebug, kHrefFormat, url, tag.c_str(), static_cast<unsigned>(dummy1), dummy2);
  return url;
}

logError_t xmlRewrite::logError() {
  return ourLogError;
}

bool xmlRewrite::loadFile() {
  struct stat status;
  if (stat(parseFileName_.c_str(), &status) != 0) return logLoadError(this, errno);
  const int fd = open(parseFileName_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return logLoadError(this, errno);
  const size_t before = contents_.size();
  if (!grow(&contents_, status.st_size)) {
    (void)close(fd);
    return logLoadError(this, ENOMEM);
  }
  const auto size = static_cast<size_t>(status.st_size);
  size_t got = 0;
  const int err = readAll(fd, contents_.data(), size, &got);
  if (err != 0) {
    // Kept: the file stays open and its room allocated, as they always have. The room is not lost:
    // it is the string's. A part of the file has taken the place of the playlist before.
    contents_.resize(got == 0 ? before : 0);
    return logLoadError(this, err);
  }
  // Kept: the text ends at its first zero byte, and so does what is rewritten.
  contents_.resize(strnlen(contents_.c_str(), size));
  (void)close(fd);
  return true;
}

int xmlRewrite::doParseSMIL(char* fileName) {
  return parse(this, fileName, kSmil, 0, nullptr);
}

int xmlRewrite::doParseASX(char* fileName, int clientIp, void* unsSignInfo) {
  return parse(this, fileName, kAsx, clientIp, unsSignInfo);
}
