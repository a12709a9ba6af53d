// A socket of the log daemon and the shared record that belongs to it.
#ifndef VELORIN_AD_LOGD_log_socket_
#define VELORIN_AD_LOGD_log_socket_

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>

#include "former_records.h"
#include "velorin/ad_debug"

constexpr size_t kDescriptionMax = 256;

class LogSocket {
 public:
  // Names the socket `base` with a dot and the real user id behind it.
  // Returns: false when `base` is empty or the name does not fit into an address.
  bool setBase(const char* base);

  // Takes the socket `fd`, which somebody else has bound at path(), instead of binding one.
  void adopt(int fd);

  // Looks for what a daemon before this one left behind. Called before open.
  void recall() { formers_.recall(path()); }

  // Binds the socket, world-writable, in place of one at which nobody answers, unless one was
  // adopted; and attaches its record, which is made when there is none. That the record is a
  // private one is said only. Returns: false, having said why, when the socket cannot be had.
  bool open();

  // Carries the settings over from the record of the last socket, and begins to keep former records
  // in step. `other` is the daemon's other socket.
  void followFormers(const LogSocket& other);

  bool hasFormers() const { return formers_.any(); }
  void keepFormersInStep();

  // Ends the socket for this daemon. One that it has bound: removes its file, if it is still this
  // socket's, and refuses datagrams from now on; those that were accepted before can still be
  // received. One that it has adopted stays as it is for the next daemon, with what arrives from
  // now on. Nothing for a socket that is not open.
  void retire();

  // Writes the path and the state of the record. Room: kDescriptionMax characters.
  void describe(char* to) const;

  bool named() const { return address_.sun_path[0] != '\0'; }
  bool isAt(const char* place) const;          // the path or another way to its file
  bool isFile(const struct stat& file) const;  // `file` is this socket's
  int fd() const { return fd_; }               // -1 when not open
  const char* path() const { return address_.sun_path; }

 private:
  // These return null, or why the socket cannot be had.
  const char* take();
  const char* findFile();
  const char* replaceStale() const;
  const char* checkStale() const;
  int bindFresh() const;  // 0 or an error number
  bool ownsFile() const;

  sockaddr_un address_ = {AF_UNIX, ""};
  int fd_ = -1;
  bool adopted_ = false;
  dev_t device_ = 0;  // of the file that bind made
  ino_t inode_ = 0;
  ad_debug_cfg_t* record_ = nullptr;
  RecordSegment segment_;  // of the record
  FormerRecords formers_;
};

#endif  // VELORIN_AD_LOGD_log_socket_
