// Properties files: any bytes are loaded as their description has it, line by line; and what was
// loaded, saved and loaded again, is the same wherever the format can hold it.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>

#include "fuzz.h"
#include "velorin/Properties"

namespace {

using Pairs = std::map<std::string, std::string>;

class Store : public velorin::Properties {
 public:
  Pairs& pairs() { return properties; }
};

constexpr size_t kLongest = 1023;  // characters of a line

std::string replaced(std::string text, const std::string& from, const std::string& to,
                     size_t go_on) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += go_on)
    text.replace(at, from.size(), to);
  return text;
}

Pairs described(const std::string& text) {
  Pairs pairs;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    if (end - at > kLongest) break;
    const std::string line = text.substr(at, end - at).c_str();  // up to its first zero byte
    at = end + 1;
    const size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == 0) continue;
    const std::string value = equals == std::string::npos ? line : line.substr(equals + 1);
    pairs[line.substr(0, equals)] = replaced(value, "\\=", "=", 0);
  }
  return pairs;
}

std::string saved(Store* store) {
  std::ostringstream os;
  store->save(os);
  return os.str();
}

Pairs loaded(const std::string& text) {
  std::istringstream is(text);
  Store store;
  store.load(is);
  return store.pairs();
}

// Whether a line gives the pair back.
bool fits(const std::string& key, const std::string& value) {
  const std::string quoted = replaced(value, "=", "\\=", 2);
  const auto oneLine = [](const std::string& text) {
    return text.find('\n') == std::string::npos && text.find('\0') == std::string::npos;
  };
  return !key.empty() && key[0] != '#' && key.find('=') == std::string::npos && oneLine(key) &&
         oneLine(value) && key.size() + 1 + quoted.size() <= kLongest;
}

// A store of arbitrary pairs: what stands between the bytes 1, by twos.
void checkArbitrary(const std::string& bytes) {
  Store store;
  Pairs fitting;
  size_t at = 0;
  while (at < bytes.size()) {
    const size_t middle = std::min(bytes.find('\1', at), bytes.size());
    const size_t begin = std::min(middle + 1, bytes.size());
    const size_t end = std::min(bytes.find('\1', begin), bytes.size());
    const std::string key = bytes.substr(at, middle - at);
    const std::string value = bytes.substr(begin, end - begin);
    if (fits(key, value)) {
      store.set(key, value);
      fitting[key] = value;
    }
    std::string text = value;
    REQUIRE(velorin::quote(text) == text);
    REQUIRE(text == replaced(value, "=", "\\=", 2));
    REQUIRE(velorin::dequote(text) == text);
    REQUIRE(text == value);
    at = end + 1;
  }
  REQUIRE(loaded(saved(&store)) == fitting);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Store store;
  std::istringstream is(bytes);
  store.load(is);
  REQUIRE(store.pairs() == described(bytes));

  // Saved values may be longer than they were, by their backslashes, and keys without an equals
  // sign are too.
  Pairs fitting;
  for (const auto& [key, value] : store.pairs()) {
    if (fits(key, value)) fitting[key] = value;
  }
  Store again;
  again.pairs() = fitting;
  REQUIRE(loaded(saved(&again)) == fitting);

  checkArbitrary(bytes);
  return 0;
}
