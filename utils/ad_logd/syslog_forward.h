// The copy of the lines that goes to the machine's syslog server.
#ifndef VELORIN_AD_LOGD_syslog_forward_
#define VELORIN_AD_LOGD_syslog_forward_

#include <stddef.h>
#include <stdint.h>

#include "log_line.h"
#include "log_socket.h"

// Sends records as syslog(3) does, but never waits for the server, which syslog(3) does while the
// server's queue is full. Records that it does not take wait here, as long as there is room.
class SyslogForward {
 public:
  // Says nothing yet: the server may come later. What is sent to one of the sockets `own` and
  // `own_too` would come back.
  void open(const LogSocket* own, const LogSocket* own_too);

  // Adds the record of a datagram; it is lost, and counted, when too many wait.
  void add(const LogDatagram& datagram, bool special);

  // Sends what the server takes now. Says so when it cannot be reached and when it can be again.
  void flush();

  bool active() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool failing() const { return error_ != 0; }                 // the server cannot be reached
  bool blocked() const { return sent_ < end_ && !failing(); }  // poll tells when to go on
  uint64_t unsent() const;                                     // records lost or waiting

 private:
  bool reach();
  bool sendOne(const char* record, size_t len);
  void fail(const char* why, int err);
  size_t sizeAt(size_t at) const;

  const LogSocket* own_[2] = {};
  int fd_ = -1;
  bool connected_ = false;
  int error_ = 0;
  uint64_t lost_ = 0;
  uint64_t told_ = 0;  // of these, the ones that standard error was told of
  size_t sent_ = 0;    // of what is in records_, each with its length in front
  size_t end_ = 0;
  char records_[1 << 20];
};

#endif  // VELORIN_AD_LOGD_syslog_forward_
