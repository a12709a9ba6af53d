// Stands in for thttpd on machines that do not have it: serves the files of a directory to one
// client after the other.
//
//   thttpd -D -p PORT -l LOG [-d DIR]
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

constexpr size_t kMostOfARequest = 8192;
constexpr time_t kPatience = 20;  // seconds that a client may be silent

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "thttpd: %s: %s\n", what, strerror(errno));
  exit(1);
}

int listenAt(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd, SOMAXCONN) != 0)
    fail("listen");
  return fd;
}

// What came up to the empty line behind the header; empty when no such line came.
std::string receiveRequest(int fd) {
  std::string request;
  char room[1024];
  while (request.size() < kMostOfARequest) {
    const ssize_t count = recv(fd, room, sizeof room, 0);
    if (count <= 0) return "";
    request.append(room, static_cast<size_t>(count));
    if (request.find("\r\n\r\n") != std::string::npos) return request;
  }
  return "";
}

void sendAll(int fd, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    sent += static_cast<size_t>(count);
  }
}

bool readFile(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat status;
  bool ok = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  char room[65536];
  ssize_t count = 0;
  while (ok && (count = read(fd, room, sizeof room)) > 0)
    text->append(room, static_cast<size_t>(count));
  close(fd);
  return ok && count == 0;
}

struct Answer {
  const char* status;
  std::string body;
};

Answer answerTo(const std::string& line) {
  const std::string method = "GET /";
  const size_t end = line.rfind(" HTTP/1.");
  if (line.compare(0, method.size(), method) != 0 || end == std::string::npos ||
      end < method.size())
    return {"400 Bad Request", "bad request\n"};
  const std::string path = line.substr(method.size(), end - method.size());
  std::string body;
  if (path.empty() || path[0] == '/' || path.find("..") != std::string::npos ||
      !readFile(path, &body))
    return {"404 Not Found", "not found\n"};
  return {"200 OK", body};
}

void serve(int fd, FILE* log) {
  const timeval limit = {kPatience, 0};
  (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const std::string request = receiveRequest(fd);
  if (request.empty()) return;  // a probe
  const std::string line = request.substr(0, request.find("\r\n"));
  const Answer answer = answerTo(line);
  sendAll(fd, std::string("HTTP/1.0 ") + answer.status +
                  "\r\nContent-Length: " + std::to_string(answer.body.size()) +
                  "\r\nConnection: close\r\n\r\n" + answer.body);
  fprintf(log, "\"%s\" %.3s %zu\n", line.c_str(), answer.status, answer.body.size());
  fflush(log);
}

}  // namespace

int main(int argc, char** argv) {
  int port = 80;
  FILE* log = stderr;
  const char* directory = nullptr;
  for (int chosen; (chosen = getopt(argc, argv, "Dp:l:d:")) != -1;) {
    if (chosen == 'p') port = atoi(optarg);
    if (chosen == 'l' && (log = fopen(optarg, "ae")) == nullptr) fail(optarg);
    if (chosen == 'd') directory = optarg;
    if (chosen == '?') return 1;
  }
  if (optind < argc) {
    fprintf(stderr, "thttpd: unexpected argument: %s\n", argv[optind]);
    return 1;
  }
  if (directory != nullptr && chdir(directory) != 0) fail(directory);
  const int listener = listenAt(static_cast<uint16_t>(port));
  for (;;) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      fail("accept");
    }
    serve(client, log);
    close(client);
  }
}
