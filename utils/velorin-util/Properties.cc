// An ordered store of key and value texts. See velorin/Properties.
#include "velorin/Properties"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <string_view>
#include <utility>

namespace velorin {

namespace {

constexpr char kComment = '#';
constexpr std::streamsize kLineRoom = 1024;  // with the zero byte at its end

struct Pair {
  std::string key;
  std::string value;
};

// Kept: without an equals sign the key and the value are the whole line.
Pair pairOf(std::string_view line) {
  // Kept: nothing is trimmed, not even the carriage return of a text from elsewhere.
  const size_t equals = line.find('=');
  Pair pair = {std::string(line.substr(0, equals)), std::string(line.substr(equals + 1))};
  (void)dequote(pair.value);
  return pair;
}

void appendQuoted(const std::string& v, std::string* to) {
  size_t done = 0;
  for (size_t at = v.find('='); at != std::string::npos; at = v.find('=', at + 1)) {
    to->append(v, done, at - done);
    *to += '\\';
    done = at;
  }
  to->append(v, done, v.size() - done);
}

}  // namespace

std::string quote(std::string& v) {
  std::string quoted;
  quoted.reserve(v.size());
  appendQuoted(v, &quoted);
  v = std::move(quoted);
  return v;
}

std::string dequote(std::string& v) {
  size_t end = 0;
  for (size_t at = 0; at < v.size(); ++at) {
    const bool escapes = v[at] == '\\' && at + 1 < v.size() && v[at + 1] == '=';
    if (!escapes) v[end++] = v[at];
  }
  v.resize(end);
  return v;
}

int Properties::load(std::string fname) {
  std::ifstream is(fname);
  if (!is) return -errno;
  load(is);
  return 0;
}

Properties* Properties::load(std::istream& is) {
  char line[kLineRoom];
  // Kept: a line that does not fit fails the stream and so ends the load.
  while (is && is.getline(line, kLineRoom)) {
    if (*line == '\0' || *line == kComment || *line == '=') continue;
    Pair pair = pairOf(line);
    // Files that were saved are in order.
    // Kept: what is there already stays; loading never removes a key.
    properties.insert_or_assign(properties.end(), std::move(pair.key), std::move(pair.value));
  }
  return this;
}

int Properties::save(std::string fname) {
  std::ofstream os(fname);
  if (!os) return -errno;
  // Kept: 0 whatever became of the writing.
  save(os);
  return 0;
}

Properties* Properties::save(std::ostream& os) {
  std::string line;  // one for all, so that it seldom grows
  for (const auto& [key, value] : properties) {
    // Kept: keys are written as they are; not every one reads back as the same.
    line = key;
    line += '=';
    appendQuoted(value, &line);
    line += os.widen('\n');
    os << line << std::flush;
  }
  return this;
}

Properties* Properties::remove(std::string key) {
  properties.erase(key);
  return this;
}

std::set<std::string> Properties::getKeys() {
  std::set<std::string> keys;
  for (const auto& pair : properties) keys.insert(keys.end(), pair.first);
  return keys;
}

std::string Properties::get(std::string key) {
  const auto found = properties.find(key);
  return found != properties.end() ? found->second : nil;
}

Properties* Properties::set(std::string key, std::string value) {
  properties.insert_or_assign(std::move(key), std::move(value));
  return this;
}

bool Properties::contains(std::string key) {
  return properties.find(key) != properties.end();
}

}  // namespace velorin
