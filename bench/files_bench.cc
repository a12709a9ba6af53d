// The file functions against the bare calls that they consist of, and against what programs use
// instead. All files lie in memory, so that the code counts and not the disk.
#include <confuse.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glib.h>
#include <ini.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench.h"
#include "velorin/FileUtilities"
#include "velorin/Properties"
#include "velorin/elc"
#include "velorin/unixFile"

namespace {

std::string elc_file;  // is opened instead of what lies in the reader's fixed folder

}  // namespace

// The reader's and the peer's calls both come here.
extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
  static const auto real =
      reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
  constexpr std::string_view kFolder = "/local/local1/elc/";
  const bool elc = strncmp(path, kFolder.data(), kFolder.size()) == 0;
  return real(elc ? elc_file.c_str() : path, mode);
}

namespace {

constexpr bench::Limit kNeverBehind = {1.0, 1.0};
constexpr bench::Limit kBareCall = {1.05, 1.05};

// A folder in memory, gone in the end.
class Folder {
 public:
  Folder() {
    char name[] = "/dev/shm/files_bench.XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp in /dev/shm");
    name_ = name;
  }
  ~Folder() { std::filesystem::remove_all(name_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string at(const std::string& name) const { return name_ + "/" + name; }

  std::string file(const std::string& name, const std::string& contents) const {
    std::ofstream(at(name)) << contents;
    return at(name);
  }

 private:
  std::string name_;
};

// ---- Pairs ----

using Pairs = std::map<std::string, std::string>;

// Settings as services have them: `count` keys in order, values of 8 to 40 characters.
Pairs settings(size_t count) {
  Pairs pairs;
  for (size_t i = 0; i < count; ++i) {
    char key[32];
    (void)snprintf(key, sizeof key, "service.setting%05zu", i);
    pairs[key] = std::string(8 + i * 7 % 33, static_cast<char>('a' + i % 26));
  }
  return pairs;
}

std::string linesOf(const Pairs& pairs) {
  std::string lines;
  for (const auto& [key, value] : pairs) lines += key + "=" + value + "\n";
  return lines;
}

std::string contentsOf(const std::string& name) {
  const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  std::string contents;
  char piece[16384];
  ssize_t count;
  while ((count = read(fd, piece, sizeof piece)) > 0)
    contents.append(piece, static_cast<size_t>(count));
  (void)close(fd);
  return contents;
}

// What any reader has to do: read the file, and put its pairs into a map.
Pairs readAndMap(const std::string& name) {
  const std::string contents = contentsOf(name);
  Pairs pairs;
  size_t at = 0;
  while (at < contents.size()) {
    const size_t end = contents.find('\n', at);
    const size_t equals = contents.find('=', at);
    pairs.emplace(contents.substr(at, equals - at), contents.substr(equals + 1, end - equals - 1));
    at = end + 1;
  }
  return pairs;
}

Pairs loadPairs(const std::string& name) {
  velorin::Properties store;
  (void)store.load(name);
  Pairs pairs;
  for (const std::string& key : store.getKeys()) pairs[key] = store.get(key);
  return pairs;
}

Pairs pairsOfInih(const std::string& name) {
  Pairs pairs;
  const auto take = [](void* to, const char*, const char* key, const char* value) {
    static_cast<Pairs*>(to)->emplace(key, value);
    return 1;
  };
  (void)ini_parse(name.c_str(), take, &pairs);
  return pairs;
}

boost::property_tree::ptree treeOf(const std::string& name) {
  boost::property_tree::ptree tree;
  boost::property_tree::read_ini(name, tree);
  return tree;
}

// A group in front, as this format has to have one.
GKeyFile* keyFileOf(const std::string& name) {
  GKeyFile* const file = g_key_file_new();
  (void)g_key_file_load_from_file(file, name.c_str(), G_KEY_FILE_NONE, nullptr);
  return file;
}

void contestsOfLoad(bench::Contests& contests, const Folder& folder, size_t count,
                    bench::Limit limit) {
  const Pairs pairs = settings(count);
  const std::string inputs = "load/" + std::to_string(count) + " pairs";
  const std::string plain = folder.file("pairs" + std::to_string(count), linesOf(pairs));
  const std::string grouped =
      folder.file("grouped" + std::to_string(count), "[all]\n" + linesOf(pairs));
  const auto ours = [&] {
    velorin::Properties store;
    (void)store.load(plain);
    bench::keep(store);
  };
  const auto agrees = [&] { return loadPairs(plain) == pairs; };
  contests.run({inputs, "read plus map", limit, count,
                [&] { return agrees() && readAndMap(plain) == pairs; }, ours,
                [&] { bench::keep(readAndMap(plain)); }});
  contests.run({inputs,
                "inih plus map",
                {},
                count,
                [&] { return agrees() && pairsOfInih(plain) == pairs; },
                ours,
                [&] { bench::keep(pairsOfInih(plain)); }});
  contests.run({inputs, "GKeyFile", kNeverBehind, count,
                [&] {
                  GKeyFile* const file = keyFileOf(grouped);
                  bool same = agrees();
                  for (const auto& [key, value] : pairs) {
                    gchar* const text = g_key_file_get_string(file, "all", key.c_str(), nullptr);
                    same = same && text != nullptr && value == text;
                    g_free(text);
                  }
                  g_key_file_free(file);
                  return same;
                },
                ours, [&] { g_key_file_free(keyFileOf(grouped)); }});
  contests.run({inputs, "property_tree", kNeverBehind, count,
                [&] {
                  const auto tree = treeOf(grouped).get_child("all");
                  Pairs read;
                  for (const auto& [key, child] : tree) read[key] = child.data();
                  return agrees() && read == pairs;
                },
                ours, [&] { bench::keep(treeOf(grouped)); }});
}

void contestsOfSave(bench::Contests& contests, const Folder& folder, size_t count,
                    bench::Limit limit) {
  const Pairs pairs = settings(count);
  const std::string inputs = "save/" + std::to_string(count) + " pairs";
  const std::string name = folder.at("saved");
  const std::string other = folder.at("other");
  std::vector<std::string> lines;
  velorin::Properties store;
  GKeyFile* const file = g_key_file_new();
  boost::property_tree::ptree tree;
  // One after the other, so that each has its nodes side by side.
  for (const auto& [key, value] : pairs) lines.push_back(key + "=" + value + "\n");
  for (const auto& [key, value] : pairs) store.set(key, value);
  for (const auto& [key, value] : pairs) {
    g_key_file_set_string(file, "all", key.c_str(), value.c_str());
    tree.put(boost::property_tree::path(key, '\0'), value);
  }
  const auto ours = [&] { (void)store.save(name); };
  const auto writeLines = [&] {
    const int fd = open(other.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    for (const std::string& line : lines) {
      if (write(fd, line.data(), line.size()) < 0) abort();
    }
    (void)close(fd);
  };
  const auto agreesAfter = [&](const auto& peer) {
    ours();
    peer();
    return contentsOf(name) == linesOf(pairs) &&
           contentsOf(other).find(lines[0]) != std::string::npos;
  };
  contests.run({inputs, "write a line", limit, count,
                [&] { return agreesAfter(writeLines) && contentsOf(other) == linesOf(pairs); },
                ours, writeLines});
  const auto stream = [&] {
    std::ofstream os(other);
    for (const auto& [key, value] : pairs) os << key << '=' << value << std::endl;
  };
  contests.run(
      {inputs, "ofstream, flushed", {}, count, [&] { return agreesAfter(stream); }, ours, stream});
  const auto keyFile = [&] { (void)g_key_file_save_to_file(file, other.c_str(), nullptr); };
  contests.run({inputs,
                "GKeyFile, one write",
                {},
                count,
                [&] { return agreesAfter(keyFile); },
                ours,
                keyFile});
  const auto treeFile = [&] { boost::property_tree::write_ini(other, tree); };
  contests.run(
      {inputs, "property_tree", {}, count, [&] { return agreesAfter(treeFile); }, ours, treeFile});
  g_key_file_free(file);
}

// ---- Typed settings ----

constexpr unsigned kSettings = 20;  // 5 of each type

struct Names {
  std::vector<std::string> texts;
  Names() {
    for (unsigned i = 0; i < kSettings; ++i) texts.push_back("setting_" + std::to_string(i));
  }
};
const Names names;

std::string elcLines() {
  std::string lines;
  for (unsigned i = 0; i < kSettings; ++i) {
    const char* const values[] = {"yes", "-8008", "\"some words in quotes\"", "0x1F90"};
    lines += names.texts[i] + " " + values[i % 4] + "\n";
  }
  return lines;
}

void fill(elc_entry* table) {
  for (unsigned i = 0; i < kSettings; ++i) {
    table[i] = {};
    table[i].type = static_cast<elc_type>(i % 4);
    table[i].name = names.texts[i].c_str();
  }
}

// Owns: the texts, freed by clear.
const char* readElc(elc_entry* table) {
  fill(table);
  return _elc_init("bench", table, kSettings);
}

void clear(elc_entry* table) {
  for (unsigned i = 0; i < kSettings; ++i) {
    if (table[i].type == ELC_STR) free(table[i].value.STR_type);
  }
}

size_t readLines() {
  FILE* const file = fopen("/local/local1/elc/bench.elc", "re");
  char line[128];
  size_t count = 0;
  while (fgets(line, sizeof line, file) != nullptr) ++count;
  (void)fclose(file);
  return count;
}

std::string confuseLines() {
  std::string lines;
  for (unsigned i = 0; i < kSettings; ++i) {
    const char* const values[] = {"yes", "-8008", "\"some words in quotes\"", "0x1F90"};
    lines += names.texts[i] + " = " + values[i % 4] + "\n";
  }
  return lines;
}

long readConfuse(const std::string& name, std::vector<cfg_opt_t>& options) {
  cfg_t* const cfg = cfg_init(options.data(), CFGF_NONE);
  if (cfg_parse(cfg, name.c_str()) != CFG_SUCCESS) abort();
  const long last = cfg_getint(cfg, names.texts[kSettings - 1].c_str());
  (void)cfg_free(cfg);
  return last;
}

void contestsOfElc(bench::Contests& contests, const Folder& folder) {
  elc_file = folder.file("bench.elc", elcLines());
  const std::string confuse_file = folder.file("bench.conf", confuseLines());
  std::vector<cfg_opt_t> options;
  for (unsigned i = 0; i < kSettings; ++i) {
    const char* const name = names.texts[i].c_str();
    switch (i % 4) {
      case ELC_BOOL:
        options.push_back(CFG_BOOL(name, cfg_false, CFGF_NONE));
        break;
      case ELC_STR:
        options.push_back(CFG_STR(name, nullptr, CFGF_NONE));
        break;
      default:
        options.push_back(CFG_INT(name, 0, CFGF_NONE));
    }
  }
  options.push_back(CFG_END());

  const auto ours = [] {
    elc_entry table[kSettings];
    bench::keep(readElc(table));
    clear(table);
  };
  const auto agrees = [] {
    elc_entry table[kSettings];
    const bool read = readElc(table) == nullptr;
    const bool same = read && table[0].value.BOOL_type && table[1].value.INT_type == -8008 &&
                      strcmp(table[18].value.STR_type, "some words in quotes") == 0 &&
                      table[19].value.UINT_type == 8080;
    clear(table);
    return same;
  };
  const std::string inputs = "_elc_init/" + std::to_string(kSettings) + " settings";
  contests.run({inputs,
                "fopen, fgets",
                {1.3, 1.45},
                1,
                [&] { return agrees() && readLines() == kSettings; },
                ours,
                [] { bench::keep(readLines()); }});
  contests.run({inputs, "confuse", kNeverBehind, 1,
                [&] { return agrees() && readConfuse(confuse_file, options) == 8080; }, ours,
                [&] { bench::keep(readConfuse(confuse_file, options)); }});
}

// ---- Queries and small files ----

constexpr size_t kCalls = 64;  // in a timed call

template <class Function>
auto repeated(Function function) {
  return [function] {
    for (size_t i = 0; i < kCalls; ++i) bench::keep(function());
  };
}

template <class Ours, class Peer>
void contest(bench::Contests& contests, const char* name, const char* peer_name, bench::Limit limit,
             Ours ours, Peer peer) {
  contests.run({name, peer_name, limit, kCalls, [&] { return ours() == peer(); }, repeated(ours),
                repeated(peer)});
}

void contestsOfQueries(bench::Contests& contests, const Folder& folder) {
  const std::string name = folder.file("file", std::string(12345, 'x'));
  const auto regular = [&] { return isRegularFile(name); };
  const auto size = [&] { return sizeOfFile(name); };
  const auto touch = [&] {
    touchFile(name);
    return 0;
  };
  contest(contests, "isRegularFile", "stat", kBareCall, regular, [&] {
    struct stat status;
    return stat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  });
  contest(contests, "isRegularFile", "std::filesystem", kNeverBehind, regular, [&] {
    std::error_code error;
    return std::filesystem::is_regular_file(name, error);
  });
  contest(contests, "sizeOfFile", "stat", kBareCall, size, [&] {
    struct stat status;
    return stat(name.c_str(), &status) == 0 ? static_cast<long>(status.st_size) : -1;
  });
  contest(contests, "sizeOfFile", "std::filesystem", kNeverBehind, size, [&] {
    std::error_code error;
    return static_cast<long>(std::filesystem::file_size(name, error));
  });
  contest(contests, "touchFile", "utime", kBareCall, touch,
          [&] { return utime(name.c_str(), nullptr); });
}

void contestsOfReaders(bench::Contests& contests, const Folder& folder) {
  const std::string name = folder.file("number", "1234567\n");
  const auto ours = [&] { return readIntegerFromFile(name, 0); };
  contest(contests, "readIntegerFromFile", "open, read, close", {1.6, 1.7}, ours, [&] {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    char text[32];
    const ssize_t count = read(fd, text, sizeof text - 1);
    (void)close(fd);
    text[count < 0 ? 0 : count] = '\0';
    return strtol(text, nullptr, 10);
  });
  contest(contests, "readIntegerFromFile", "ifstream", kNeverBehind, ours, [&] {
    std::ifstream stream(name);
    long value = 0;
    stream >> value;
    char c;
    while (stream.get(c) && isspace(static_cast<unsigned char>(c))) continue;
    return value;
  });
  const std::string word = folder.file("word", "  personality and more\n");
  contest(
      contests, "readStringFromFile", "ifstream", kNeverBehind,
      [&] { return readStringFromFile(word, "default"); },
      [&] {
        std::ifstream stream(word);
        std::string value = "default";
        stream >> value;
        return value;
      });
}

void contestsOfDirectories(bench::Contests& contests, const Folder& folder) {
  const std::string top = folder.at("one");
  const std::vector<std::string> levels = {top, top + "/two", top + "/two/three",
                                           top + "/two/three/four"};
  const auto remove = [&] {
    for (auto level = levels.rbegin(); level != levels.rend(); ++level) (void)rmdir(level->c_str());
  };
  const auto ours = [&] { makeDirectoryPath(levels.back()); };
  const auto mkdirs = [&] {
    for (const std::string& level : levels) {
      if (mkdir(level.c_str(), 0777) != 0) abort();
    }
  };
  const auto create = [&] { (void)std::filesystem::create_directories(levels.back()); };
  const auto makes = [&](const auto& side) {
    remove();
    side();
    const bool made = isDirectory(levels.back());
    remove();
    return made;
  };
  const std::string inputs = "makeDirectoryPath/4 new";
  contests.run({inputs,
                "4 mkdir",
                {1.8, 1.8},
                1,
                [&] { return makes(ours) && makes(mkdirs); },
                ours,
                mkdirs,
                remove});
  contests.run({inputs, "create_directories", kNeverBehind, 1,
                [&] { return makes(ours) && makes(create); }, ours, create, remove});
}

}  // namespace

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  const Folder folder;
  contestsOfLoad(contests, folder, 100, {3.5, 2.8});
  contestsOfLoad(contests, folder, 10000, {2.3, 2.1});
  contestsOfSave(contests, folder, 100, {1.15, 1.3});
  contestsOfSave(contests, folder, 10000, {});  // the map's nodes no longer fit the cache
  contestsOfElc(contests, folder);
  contestsOfQueries(contests, folder);
  contestsOfReaders(contests, folder);
  contestsOfDirectories(contests, folder);
  return contests.finish();
}
