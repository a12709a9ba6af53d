// Scanning and rewriting SMIL playlists: against reading the file and looking for a byte in it, and
// against collecting the same links with pugixml, expat and libxml2's SAX parser.
#include <expat.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pugixml.hpp>
#include <string>
#include <vector>

#include "bench.h"
#include "velorin/xmlRewrite"

namespace {

struct Size {
  size_t bytes;
  unsigned paragraphs;  // of text that belong to five links
  const char* name;
  bench::Limit scan, rewrite;
};
constexpr Size kSizes[] = {
    {16 << 10, 1, "16 KiB", {3.1, 4.1}, {3.2, 4.3}},
    {1 << 20, 1, "1 MiB", {5, 3.1}, {}},
    {1 << 20, 50, "1 MiB, wordy", {5, 3.1}, {}},
};
constexpr bench::Limit kTwiceAsFast = {0.5, 0.5};

// What has links in the playlists below.
constexpr const char* kMedia[] = {"video", "audio", "img", "text", "a"};

// A film in chapters: pictures, subtitles and a commentary beside each other, links to more.
std::string playlistOf(size_t size, unsigned paragraphs) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<smil xmlns=\"http://www.w3.org/2001/SMIL20/Language\">\n"
      "  <head>\n"
      "    <meta name=\"title\" content=\"Harbours of the north\"/>\n"
      "    <layout>\n"
      "      <root-layout width=\"720\" height=\"576\" backgroundColor=\"#203040\"/>\n"
      "      <region id=\"picture\" left=\"0\" top=\"0\" width=\"720\" height=\"480\"/>\n"
      "      <region id=\"words\" left=\"0\" top=\"480\" width=\"720\" height=\"96\"/>\n"
      "    </layout>\n"
      "  </head>\n"
      "  <body>\n";
  const std::string paragraph =
      "      <p>This chapter was filmed in the spring, from a boat, over eleven days of calm sea. "
      "Its\n"
      "      notes, its map and the names of all who appear in it are on the page that the "
      "picture\n"
      "      leads to; the music is played by the harbour's own band.</p>\n";
  std::string words;
  for (unsigned i = 0; i < paragraphs; ++i) words += paragraph;
  const std::string end = "  </body>\n</smil>\n";
  for (unsigned i = 0;; ++i) {
    const std::string n = std::to_string(i);
    const std::string chapter =
        "    <seq id=\"chapter" + n +
        "\">\n"
        "      <par>\n"
        "        <video region=\"picture\" src=\"rtsp://media.example/harbours/" +
        n +
        "/film.rm?start=0:00:12.5\" clipBegin=\"0s\" clipEnd=\"95s\" fill=\"freeze\"/>\n"
        "        <audio src=\"http://media.example/harbours/" +
        n +
        "/commentary.mp3\" begin=\"2s\" dur=\"90s\" systemLanguage=\"en\"/>\n"
        "        <text region=\"words\" dur=\"95s\" src=\"subtitles/" +
        n +
        "/en.txt\"/>\n"
        "      </par>\n"
        "      <!-- The still stays while the next chapter is fetched. -->\n"
        "      <img region=\"picture\" dur=\"4s\" fill=\"transition\" src=\"stills/" +
        n + ".png\"/>\n" + words +
        "      <a href=\"http://www.example/harbours/notes.html?chapter=" + n +
        "\" show=\"new\"><area shape=\"rect\" coords=\"0,0,50%,50%\"/></a>\n"
        "    </seq>\n";
    if (text.size() + chapter.size() + end.size() > size) break;
    text += chapter;
  }
  text.append(size - text.size() - end.size(), '\n');
  return text + end;
}

// A file that goes with this object.
struct Playlist {
  char path[32] = "/tmp/playlist_benchXXXXXX";
  std::string text;

  explicit Playlist(const Size& size) : text(playlistOf(size.bytes, size.paragraphs)) {
    const int fd = mkstemp(path);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        close(fd) != 0) {
      perror(path);
      exit(1);
    }
  }
  ~Playlist() { (void)unlink(path); }
  Playlist(const Playlist&) = delete;
  Playlist& operator=(const Playlist&) = delete;
};

// The links seen, to compare, or only their count and length, which every side notes when timed.
struct Links {
  bool collects = false;
  std::vector<std::string> all;  // "TAG LINK"
  size_t count = 0;
  size_t length = 0;

  void take(const char* tag, const char* url, size_t size) {
    ++count;
    length += size;
    if (collects) all.push_back(std::string(tag) + " " + std::string(url, size));
  }
  // As a playlist is scanned: the query stays where it is.
  void takeWithQuery(const char* tag, const char* url) { take(tag, url, strcspn(url, "?")); }
};

bool isMedia(const char* tag) {
  for (const char* media : kMedia) {
    if (strcasecmp(tag, media) == 0) return true;
  }
  return false;
}

bool isLink(const char* attribute) {
  return strcasecmp(attribute, "src") == 0 || strcasecmp(attribute, "href") == 0;
}

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "playlist_bench: %s failed\n", what);
  exit(1);
}

// ---- Ours ----

void logNothing(int /*priority*/, char* /*format*/, ...) {}

class Ours : public xmlRewrite {
 public:
  Links links;

  std::string getHrefValue(char* url, std::string tag, int /*dummy1*/, void* /*dummy2*/) override {
    const size_t size = strlen(url);
    links.take(tag.c_str(), url, size);
    return std::string(url, size);
  }
  logError_t logError() override { return logNothing; }
};

// Makes the calls that a scan owes an application for `links`, without a scan.
class Calls {
 public:
  explicit Calls(const std::vector<std::string>& links) {
    for (const std::string& link : links) {
      const size_t space = link.find(' ');
      links_.push_back({link.substr(0, space), link.substr(space + 1)});
      if (room_.size() < link.size()) room_.resize(link.size());
    }
  }

  void make(xmlRewrite* application) {
    char format[] = "%s%s%s%s";
    for (const Link& link : links_) {
      application->logError()(7, format, "First and R ", "1", "  ", "2");
      memcpy(room_.data(), link.url.c_str(), link.url.size() + 1);
      bench::keep(application->getHrefValue(room_.data(), link.tag, 0, nullptr));
    }
  }

 private:
  struct Link {
    std::string tag, url;
  };
  std::vector<Link> links_;
  std::string room_;  // a link is handed over as a copy
};

// ---- The yardstick ----

// Reads the file as a scanner must, into room that is there, and looks for a byte that is not.
const void* readAndSearch(const char* path, std::vector<char>* room) {
  struct stat status;
  if (stat(path, &status) != 0) fail("stat");
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail("open");
  const size_t size = static_cast<size_t>(status.st_size);
  if (room->size() < size) room->resize(size);
  if (read(fd, room->data(), size) != status.st_size) fail("read");
  (void)close(fd);
  return memchr(room->data(), '\0', size);
}

// ---- Peers ----

void withPugixml(const char* path, Links* links) {
  struct Walker : pugi::xml_tree_walker {
    Links* links = nullptr;
    bool for_each(pugi::xml_node& node) override {
      if (!isMedia(node.name())) return true;
      for (const pugi::xml_attribute& attribute : node.attributes()) {
        if (!isLink(attribute.name())) continue;
        links->takeWithQuery(node.name(), attribute.value());
        break;
      }
      return true;
    }
  } walker;
  walker.links = links;
  pugi::xml_document document;
  // The least that it can be asked for: no text, which has no links.
  if (!document.load_file(path, pugi::parse_minimal)) fail("pugixml");
  (void)document.traverse(walker);
}

template <class Character>  // of expat, and of libxml2
void takeElement(Links* links, const Character* name, const Character* const* attributes) {
  const char* const tag = reinterpret_cast<const char*>(name);
  if (attributes == nullptr || !isMedia(tag)) return;
  for (; attributes[0] != nullptr; attributes += 2) {
    if (!isLink(reinterpret_cast<const char*>(attributes[0]))) continue;
    links->takeWithQuery(tag, reinterpret_cast<const char*>(attributes[1]));
    return;
  }
}

void withExpat(const char* path, Links* links) {
  static const XML_Parser parser = XML_ParserCreate(nullptr);
  (void)XML_ParserReset(parser, nullptr);
  XML_SetUserData(parser, links);
  XML_SetStartElementHandler(parser, [](void* to, const XML_Char* name, const XML_Char** values) {
    takeElement(static_cast<Links*>(to), name, values);
  });
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0) fail("open");
  const int size = static_cast<int>(status.st_size);
  void* const room = XML_GetBuffer(parser, size);
  if (room == nullptr || read(fd, room, static_cast<size_t>(size)) != size) fail("read");
  (void)close(fd);
  if (XML_ParseBuffer(parser, size, /*isFinal=*/1) != XML_STATUS_OK) fail("expat");
}

void withLibxml2(const char* path, Links* links) {
  xmlSAXHandler handler = {};  // version 1: names and attributes as they stand in the text
  handler.startElement = [](void* to, const xmlChar* name, const xmlChar** values) {
    takeElement<xmlChar>(static_cast<Links*>(to), name, values);
  };
  if (xmlSAXUserParseFile(&handler, links, path) != 0) fail("libxml2");
}

// ---- Contests ----

using Peer = void (*)(const char* path, Links* links);

bool sameLinks(Ours* ours, Playlist* playlist, Peer peer) {
  Links theirs;
  theirs.collects = true;
  peer(playlist->path, &theirs);
  ours->links = Links();
  ours->links.collects = true;
  const bool parsed = ours->doParseSMIL(playlist->path) == 0;
  const bool same = parsed && !theirs.all.empty() && ours->links.all == theirs.all;
  ours->links = Links();
  return same;
}

void run(bench::Contests* contests, const Size& size) {
  Playlist playlist(size);
  Ours scanning;
  Ours rewriting;
  rewriting.doRewrite = 1;
  std::vector<char> room;
  const auto scan = [&] { bench::keep(scanning.doParseSMIL(playlist.path)); };
  const auto rewrite = [&] { bench::keep(rewriting.doParseSMIL(playlist.path)); };
  const auto yardstick = [&] { bench::keep(readAndSearch(playlist.path, &room)); };
  const std::string name = std::string("/") + size.name;

  contests->run({"scan" + name, "read+memchr", size.scan, 1,
                 [&] {
                   return scanning.doParseSMIL(playlist.path) == 0 && scanning.links.count > 0 &&
                          readAndSearch(playlist.path, &room) == nullptr &&
                          memcmp(room.data(), scanning.contents_.data(), size.bytes) == 0;
                 },
                 scan, yardstick});
  contests->run({"rewrite" + name, "read+memchr", size.rewrite, 1,
                 [&] {
                   return rewriting.doParseSMIL(playlist.path) == 0 &&
                          rewriting.newContents_ == playlist.text;
                 },
                 rewrite, yardstick});

  // How much of the scan is not the scanner's, and how near to the limit that comes alone.
  Ours collecting;
  collecting.links.collects = true;
  if (collecting.doParseSMIL(playlist.path) != 0) fail("the scan");
  Calls calls(collecting.links.all);
  contests->run({"its calls alone" + name,
                 "read+memchr",
                 {},
                 1,
                 [&] {
                   Ours called;
                   called.links.collects = true;
                   calls.make(&called);
                   return called.links.all == collecting.links.all;
                 },
                 [&] { calls.make(&scanning); },
                 yardstick});

  const struct {
    const char* name;
    Peer peer;
  } peers[] = {{"pugixml", withPugixml}, {"expat", withExpat}, {"libxml2 SAX", withLibxml2}};
  for (const auto& peer : peers) {
    Links links;
    contests->run({"scan" + name, peer.name, kTwiceAsFast, 1,
                   [&] { return sameLinks(&scanning, &playlist, peer.peer); }, scan,
                   [&] { peer.peer(playlist.path, &links); }});
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  xmlInitParser();
  for (const Size& size : kSizes) run(&contests, size);
  return contests.finish();
}
