// Who uses the records. See who.h.
#include "who.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/proc.h"
#include "common/text.h"
#include "processes.h"
#include "record.h"

namespace {

using SocketsById = std::map<int, std::string>;  // of the segments that sockets lead to now

SocketsById find_sockets(const Request& request) {
  SocketsById found;
  std::vector<std::string> paths = request.paths;
  for (const std::string& special : sockets_of(request.special_base)) paths.push_back(special);
  for (const std::string& path : paths) {
    std::string why;
    const int id = find_segment(path, &why);
    if (id != -1) found.emplace(id, path);
  }
  return found;
}

std::string text_of(const Attached& record, const SocketsById& sockets) {
  char text[64];
  (void)snprintf(text, sizeof text, "key 0x%08x id %d", record.key, record.id);
  const std::string which = text;
  if (record.foreign) return which + " of another IPC namespace";
  if (record.removed) return which + ", removed";
  const auto socket = sockets.find(record.id);
  if (socket == sockets.end()) return which + " of another socket";
  return which + " of " + visible(socket->second);
}

std::string text_of(const std::vector<Attached>& records, const SocketsById& sockets) {
  if (records.empty()) return "private copy";
  std::string text;
  for (const Attached& record : records) {
    if (!text.empty()) text += "; ";
    text += text_of(record, sockets);
  }
  return text;
}

void print_row(size_t name_width, const std::string& pid, const std::string& name,
               const std::string& width, const std::string& record) {
  (void)printf("%7s  %-*s  %-5s  %s\n", pid.c_str(), static_cast<int>(name_width), name.c_str(),
               width.c_str(), record.c_str());
}

void print_table(const std::vector<Process>& processes, const SocketsById& sockets) {
  constexpr size_t kNameMax = 40;  // wider ones push their row aside
  size_t name_width = sizeof "NAME" - 1;
  for (const Process& process : processes)
    name_width = std::max(name_width, std::min(visible(process.name).size(), kNameMax));
  print_row(name_width, "PID", "NAME", "WIDTH", "RECORD");
  for (const Process& process : processes) {
    print_row(name_width, std::to_string(process.pid), visible(process.name),
              process.width != 0 ? std::to_string(process.width) : "?",
              text_of(process.records, sockets));
  }
}

}  // namespace

int who(const Request& request) {
  std::vector<Process> users;
  std::vector<Process> hidden;
  for (const pid_t pid : all_processes()) {
    if (pid == getpid()) continue;
    Process process;
    const Sight sight = look_at(pid, &process);
    if (sight == Sight::kHidden) hidden.push_back(process);
    if (sight == Sight::kSeen && process.uses_log()) users.push_back(process);
  }
  print_table(users, find_sockets(request));
  finish_output();
  complain_of_hidden(hidden);
  return kDone;
}
