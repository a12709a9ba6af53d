// Playlists whose links are to lead through another address.
#ifndef TCP_PROXY_playlist_
#define TCP_PROXY_playlist_

#include <optional>
#include <string>
#include <string_view>

enum class PlaylistKind { kNone, kSmil, kAsx };

// What a Content-Type says; none also for types that say nothing.
PlaylistKind playlistOfType(std::string_view type);

// What the end of the path in a request's target says.
PlaylistKind playlistOfName(std::string_view target);

// The playlist with `prefix` in front of its links to http, mms and rtsp servers; other links and
// every other byte are kept.
// Returns: nothing when it cannot be read as a playlist, would be longer than `longest`, or cannot
// be dealt with for want of resources, which the log tells.
std::optional<std::string> prefixLinks(PlaylistKind kind, std::string_view playlist,
                                       const std::string& prefix, size_t longest);

#endif  // TCP_PROXY_playlist_
