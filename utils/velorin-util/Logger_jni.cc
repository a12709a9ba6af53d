// The native methods of the Java classes velorin.Logger and velorin.KuSyslogApi, bound by name.
#include <jni.h>
#include <stdio.h>

#include "Logger_syslog.h"
#include "internal/log_datagram.h"
#include "ku_syslog.h"
#include "zam/Logger"

namespace {

constexpr char kLabels[] = "EACRWNID";  // by syslog priority, 0 to 7

char label(jint priority) {
  return priority >= 0 && priority <= 7 ? kLabels[priority] : '?';
}

// A Java string's modified UTF-8, released in the end.
class JavaText {
 public:
  JavaText(JNIEnv* env, jstring string)
      : env_(env), string_(string), bytes_(env->GetStringUTFChars(string, nullptr)) {
    // Out of memory: a log call must not throw at its caller.
    if (bytes_ == nullptr) env_->ExceptionClear();
  }
  ~JavaText() {
    if (bytes_ != nullptr) env_->ReleaseStringUTFChars(string_, bytes_);
  }
  JavaText(const JavaText&) = delete;
  JavaText& operator=(const JavaText&) = delete;

  const char* bytes() const { return bytes_; }  // null when they could not be had

 private:
  JNIEnv* const env_;
  const jstring string_;
  const char* const bytes_;
};

void record(JNIEnv* env, jint priority, jint module, jint id, jstring message) {
  if (!init_logger()) return;
  const uint32_t message_id = static_cast<uint32_t>(id);
  if (message == nullptr) {
    // Kept: not the caller's module, and nothing for the unified log.
    (void)ku_syslog(priority, kZamModule, kSyslogZero, message_id, "%s", kNullMessage);
    return;
  }
  const JavaText text(env, message);
  if (text.bytes() == nullptr) return;
  (void)ku_syslog(priority, static_cast<uint32_t>(module), kSyslogZero, message_id, "%s",
                  text.bytes());
  char line[velorin::internal::kDatagramRoom];
  (void)snprintf(line, sizeof line, " [%c] %s", label(priority), text.bytes());
  send_to_unifiedlog("%s", line);
}

jboolean debug_enabled() {
  if (!init_logger()) return JNI_FALSE;
  // Kept: only the low byte of the client's answer counts.
  return static_cast<jboolean>(is_debug_enabled(kZamModule, kSyslogZero) & 0xff);
}

void switch_debug(jboolean on) {
  if (init_logger()) (void)set_debug(kZamModule, kSyslogZero, on);
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_velorin_Logger_ku_1syslog(JNIEnv* env, jclass, jint priority,
                                                      jint module, jint id, jstring message) {
  record(env, priority, module, id, message);
}

JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_ku_1syslog(JNIEnv* env, jclass, jint priority,
                                                           jint module, jint id, jstring message) {
  record(env, priority, module, id, message);
}

JNIEXPORT void JNICALL Java_velorin_Logger_zam_1syslog(JNIEnv* env, jclass, jint priority, jint id,
                                                       jstring message) {
  record(env, priority, kZamModule, id, message);
}

JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_zam_1syslog(JNIEnv* env, jclass, jint priority,
                                                            jint id, jstring message) {
  record(env, priority, kZamModule, id, message);
}

JNIEXPORT jboolean JNICALL Java_velorin_Logger_is_1debug_1enabled(JNIEnv*, jclass) {
  return debug_enabled();
}

JNIEXPORT jboolean JNICALL Java_velorin_KuSyslogApi_is_1debug_1enabled(JNIEnv*, jclass) {
  return debug_enabled();
}

JNIEXPORT void JNICALL Java_velorin_Logger_set_1debug(JNIEnv*, jclass, jboolean on) {
  switch_debug(on);
}

JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_set_1debug(JNIEnv*, jclass, jboolean on) {
  switch_debug(on);
}

}  // extern "C"
