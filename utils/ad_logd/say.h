// What the daemon has to say about itself.
#ifndef VELORIN_AD_LOGD_say_
#define VELORIN_AD_LOGD_say_

// Writes one line to standard error, the program's name in front.
void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif  // VELORIN_AD_LOGD_say_
