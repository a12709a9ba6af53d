// Playlists whose links are to lead through another address. See playlist.h.
#include "playlist.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>

#include <new>

#include "fd.h"
#include "http_head.h"
#include "velorin/ad_debug"
#include "velorin/xmlRewrite"

namespace {

struct Known {
  const char* text;
  PlaylistKind kind;
};
constexpr Known kTypes[] = {
    {"application/smil", PlaylistKind::kSmil}, {"application/smil+xml", PlaylistKind::kSmil},
    {"video/x-ms-asf", PlaylistKind::kAsx},    {"video/x-ms-wax", PlaylistKind::kAsx},
    {"video/x-ms-wvx", PlaylistKind::kAsx},    {"audio/x-ms-wax", PlaylistKind::kAsx}};
constexpr Known kNameEnds[] = {{".smil", PlaylistKind::kSmil},
                               {".smi", PlaylistKind::kSmil},
                               {".asx", PlaylistKind::kAsx},
                               {".wax", PlaylistKind::kAsx},
                               {".wvx", PlaylistKind::kAsx}};
constexpr const char* kSchemes[] = {"http://", "mms://", "rtsp://"};

constexpr int kErrorPriority = 3;  // as syslog's

bool isAbsolute(const char* link) {
  for (const char* scheme : kSchemes) {
    if (strncasecmp(link, scheme, strlen(scheme)) == 0) return true;
  }
  return false;
}

// The rewriter's messages go to the log that the proxy's others go to.
__attribute__((format(printf, 2, 0))) void logLine(int priority, char* format, ...) {
  char line[512];
  va_list ap;
  va_start(ap, format);
  (void)vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  if (priority <= kErrorPriority)
    AD_ERRO("%s\n", line);
  else
    AD_DETL("%s\n", line);
}

class LinkPrefixer : public xmlRewrite {
 public:
  LinkPrefixer(const std::string& prefix, size_t room) : prefix_(prefix), room_(room) {
    doRewrite = 1;
  }

  // The links fitted into the room.
  bool allFitted() const { return fitted_; }

  std::string getHrefValue(char* url, std::string, int, void*) override {
    if (!isAbsolute(url)) return url;
    fitted_ = fitted_ && prefix_.size() <= room_;
    if (!fitted_) return url;
    room_ -= prefix_.size();
    return prefix_ + url;
  }

  logError_t logError() override { return logLine; }

 private:
  const std::string& prefix_;
  size_t room_;  // bytes that prefixes may still take
  bool fitted_ = true;
};

// A file without a name that holds `text`; not open when that fails.
Fd fileOf(std::string_view text) {
  Fd file(memfd_create("playlist", MFD_CLOEXEC));
  while (file.isOpen() && !text.empty()) {
    const ssize_t count = write(file.get(), text.data(), text.size());
    if (count > 0)
      text.remove_prefix(static_cast<size_t>(count));
    else if (errno != EINTR)
      return Fd();
  }
  return file;
}

}  // namespace

PlaylistKind playlistOfType(std::string_view type) {
  type = type.substr(0, type.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t')) type.remove_suffix(1);
  for (const Known& known : kTypes) {
    if (isSame(type, known.text)) return known.kind;
  }
  return PlaylistKind::kNone;
}

PlaylistKind playlistOfName(std::string_view target) {
  target = target.substr(0, target.find_first_of("?#"));
  for (const Known& known : kNameEnds) {
    const size_t size = strlen(known.text);
    if (target.size() >= size && isSame(target.substr(target.size() - size), known.text))
      return known.kind;
  }
  return PlaylistKind::kNone;
}

std::optional<std::string> prefixLinks(PlaylistKind kind, std::string_view playlist,
                                       const std::string& prefix, size_t longest) {
  // Text ends at a zero byte for the rewriter. Media files that go by a playlist's type have some.
  if (playlist.size() > longest || playlist.find('\0') != std::string_view::npos)
    return std::nullopt;
  const Fd file = fileOf(playlist);
  if (!file.isOpen()) {
    AD_ERRO("playlist: %s\n", strerror(errno));
    return std::nullopt;
  }
  std::string path = "/proc/self/fd/" + std::to_string(file.get());
  LinkPrefixer links(prefix, longest - playlist.size());
  const int result = kind == PlaylistKind::kSmil
                         ? links.doParseSMIL(path.data())
                         : links.doParseASX(path.data(), /*clientIp=*/0, /*unsSignInfo=*/nullptr);
  if (result != 0 || !links.allFitted()) return std::nullopt;
  return std::move(links.newContents_);
}
