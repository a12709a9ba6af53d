// A socket of the log daemon and the shared record that belongs to it.
#ifndef VELORIN_AD_LOGD_log_socket_
#define VELORIN_AD_LOGD_log_socket_

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include "velorin/ad_debug"

constexpr size_t kDescriptionMax = 256;

class LogSocket {
 public:
  // Names the socket `base` with a dot and the real user id behind it.
  // Returns: false when `base` is empty or the name does not fit into an address.
  bool setBase(const char* base);

  // Binds the socket, world-writable, in place of one at which nobody answers, and attaches its
  // record, which is made when there is none. That the record is a private one is said only.
  // Returns: false, having said why, when the socket cannot be had.
  bool open();

  // Ends the socket for senders: removes its file, if it is still this socket's, and refuses
  // datagrams from now on; those that were accepted before can still be received. Nothing for a
  // socket that is not open.
  void retire() const;

  // Writes the path and the state of the record. Room: kDescriptionMax characters.
  void describe(char* to) const;

  bool named() const { return address_.sun_path[0] != '\0'; }
  int fd() const { return fd_; }  // -1 when not open
  const char* path() const { return address_.sun_path; }

 private:
  // These return null, or why the socket cannot be had.
  const char* take();
  const char* replaceStale() const;
  const char* checkStale() const;
  int bindFresh() const;  // 0 or an error number

  sockaddr_un address_ = {AF_UNIX, ""};
  int fd_ = -1;
  dev_t device_ = 0;  // of the file that bind made
  ino_t inode_ = 0;
  ad_debug_cfg_t* record_ = nullptr;
};

#endif  // VELORIN_AD_LOGD_log_socket_
