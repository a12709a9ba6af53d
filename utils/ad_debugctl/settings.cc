// What in a ".cfg" file has no effect. See settings.h.
#include "settings.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <sstream>

#include "common/text.h"

namespace {

constexpr size_t kRoom = 1024;  // the library's buffer, whose last byte is a zero

enum Key { kLevelKey, kClientKey, kServerKey };
constexpr const char* kKeys[] = {"debug_level", "debug_client_ip", "debug_server_ip"};
constexpr int kHighestLevel = 3;

// Where the value of the key begins that counts, as the library finds it; null: nowhere.
const char* value_of(const char* text, Key key) {
  const std::string mark = std::string(kKeys[key]) + "=";
  const char* const at = strstr(text, mark.c_str());
  return at != nullptr ? at + mark.size() : nullptr;
}

// What the library takes from a text; no value: it changes nothing.
struct Effect {
  std::optional<long> level;
  std::optional<in_addr_t> client;

  bool operator!=(const Effect& other) const {
    return level != other.level || client != other.client;
  }
};

Effect effect_of(const char* text) {
  Effect effect;
  if (const char* const value = value_of(text, kLevelKey))
    effect.level = strtol(value, nullptr, 10);
  if (const char* const value = value_of(text, kClientKey)) {
    const in_addr_t address = inet_addr(value);
    if (address != INADDR_NONE) effect.client = address;
  }
  return effect;
}

// The same of the file, whose text the library reads over the file's name, without ending it.
Effect effect_over_name(const std::string& name, const std::string& text) {
  std::string room = name;
  room.resize(kRoom);
  room.replace(0, text.size(), text);
  room[kRoom - 1] = '\0';
  return effect_of(room.c_str());
}

bool has_number(const char* value) {
  char* end;
  (void)strtol(value, &end, 10);
  return end != value;
}

std::string word_at(const char* value) {
  const size_t len = strcspn(value, "\r\n");
  return visible({value, len});
}

std::optional<Key> key_at_end_of(const std::string& head) {
  for (const Key key : {kLevelKey, kClientKey, kServerKey}) {
    const size_t len = strlen(kKeys[key]);
    if (head.size() >= len && head.compare(head.size() - len, len, kKeys[key]) == 0) return key;
  }
  return std::nullopt;
}

class SettingsCheck {
 public:
  SettingsCheck(const std::string& name, const std::string& text) : name_(name), text_(text) {}

  std::vector<Finding> findings();

 private:
  void add(const std::string& what, const std::string& fix) { findings_.push_back({what, fix}); }
  void check_end();
  void check_level();
  void check_client();
  void check_line(const std::string& line);
  bool check_word(const std::string& word, bool comment);
  void see(Key key);

  const std::string name_;
  std::string text_;  // up to the first zero byte, as the library sees it
  bool seen_[3] = {};
  std::vector<Finding> findings_;
};

std::vector<Finding> SettingsCheck::findings() {
  const std::string file = shell_word(name_);
  if (text_.empty()) {
    add("is empty: it changes nothing, and nobody asks the environment", "rm " + file);
    return findings_;
  }
  if (text_.size() >= kRoom) {
    add("only its first " + std::to_string(kRoom - 1) + " bytes are read", "make it shorter");
    text_.resize(kRoom - 1);
  }
  const size_t zero = text_.find('\0');
  if (zero != std::string::npos) {
    add("what stands behind a zero byte is not read", "remove the zero byte");
    text_.resize(zero);
  }
  check_level();
  check_client();
  std::istringstream lines(text_);
  for (std::string line; std::getline(lines, line);) check_line(line);
  if (zero == std::string::npos) check_end();
  return findings_;
}

void SettingsCheck::check_end() {
  if (text_.size() + 1 >= kRoom || !(effect_over_name(name_, text_) != effect_of(text_.c_str())))
    return;
  add("the end of the file's own name is read behind its text, as part of the last value",
      "echo >> " + shell_word(name_));
}

void SettingsCheck::check_level() {
  const char* const value = value_of(text_.c_str(), kLevelKey);
  if (value == nullptr) return;
  const long level = strtol(value, nullptr, 10);
  if (!has_number(value)) {
    add("debug_level=" + word_at(value) + " counts as 0", "write a number from 0 to 3");
  } else if (level < 0) {
    add("debug_level=" + word_at(value) + " has no effect", "write a number from 0 to 3");
  } else if (level > kHighestLevel) {
    add("debug_level=" + word_at(value) + " counts as 3",
        level == kHighestLevel + 1 ? "ad_debugctl level 4" : "write a number from 0 to 3");
  }
}

void SettingsCheck::check_client() {
  const char* const value = value_of(text_.c_str(), kClientKey);
  if (value == nullptr || inet_addr(value) != INADDR_NONE) return;
  add("debug_client_ip=" + word_at(value) + " has no effect",
      "write an address like 10.0.0.1, or 0.0.0.0 for none, directly behind the =");
}

void SettingsCheck::check_line(const std::string& line) {
  const size_t begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return;
  const bool comment = line[begin] == '#';
  bool assigns = false;
  std::istringstream words(line);
  for (std::string word; words >> word;) assigns = check_word(word, comment) || assigns;
  if (!assigns && !comment) add("'" + visible(line) + "' has no effect", "write it as KEY=VALUE");
}

// Returns: whether the word assigns something.
bool SettingsCheck::check_word(const std::string& word, bool comment) {
  size_t equals = word.find('=');
  if (equals == 0 || equals == std::string::npos) return false;
  const std::optional<Key> first = key_at_end_of(word.substr(0, equals));
  if (!first && !comment) {
    add("'" + visible(word) + "' has no effect",
        "remove it; the keys are debug_level and debug_client_ip");
  }
  if (first && *first != kServerKey && !seen_[*first] &&
      (comment || equals != strlen(kKeys[*first])))
    add("'" + visible(word) + "' is in force, whatever stands before the key", "remove it");
  // A key counts wherever it stands, in the value of another too.
  for (; equals != std::string::npos; equals = word.find('=', equals + 1))
    if (const std::optional<Key> key = key_at_end_of(word.substr(0, equals))) see(*key);
  return true;
}

void SettingsCheck::see(Key key) {
  if (key == kServerKey && !seen_[key]) {
    add("debug_server_ip= has no effect in this file",
        "remove it, and use: ad_debugctl server ADDRESS");
  } else if (key != kServerKey && seen_[key]) {
    add("a second " + std::string(kKeys[key]) + "= has no effect", "remove it");
  }
  seen_[key] = true;
}

}  // namespace

std::vector<Finding> findings_in_settings(const std::string& name, const std::string& text) {
  return SettingsCheck(name, text).findings();
}
