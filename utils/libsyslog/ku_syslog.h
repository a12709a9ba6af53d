/* The client of the appliance's syslog service, as libsyslog.so offers it. */
#ifndef VELORIN_ku_syslog_
#define VELORIN_ku_syslog_

#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* Opens the process's syslog with LOG_PID, the facility LOG_DAEMON and the program's name, as the
   first ku_syslog does where this was not called. A program that wants it otherwise calls
   openlog(3) afterwards.
   Returns: 0. Threads: any. Signals: not safe. */
int ku_syslog_init(void);

/* Records one message of `priority` (0 to 7, as in syslog(3)), whatever the module's debug switch
   says: the text "[module MODULE id MESSAGE_ID] " and the message without the newlines at its end.
   A message is cut at 8191 bytes. The word `zero` is always 0.
   Returns: 0, also when no syslog server listens; -1, with nothing recorded, for a `format` that
   vsnprintf refuses.
   Fails: any other priority is recorded as LOG_ERR, with " priority PRIORITY" behind the id.
   Blocks: while the syslog server's queue is full. Threads: any. Signals: not safe. */
int ku_syslog(int priority, uint32_t module, uint32_t zero, uint32_t message_id, const char* format,
              ...) __attribute__((format(printf, 5, 6)));

/* Returns: 1 when debug output of `module` is on in this process, else 0; initially 0 for all.
   Threads: any. Signals: safe. */
int is_debug_enabled(uint32_t module, uint32_t zero);

/* Switches debug output of `module`, any number, on (not 0) or off.
   Returns: 0; -1, and the module stays off, when 256 others have been switched on before in this
   process: each keeps its place for good.
   Threads: any. Signals: safe. */
int set_debug(uint32_t module, uint32_t zero, int on);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif /* VELORIN_ku_syslog_ */
