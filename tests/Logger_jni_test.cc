// The native methods of the Java classes, called with a function table that stands for the JVM's:
// what they ask of it, and what a JVM can hardly be brought to do. tests/java has the real one.
#include <gmock/gmock.h>
#include <jni.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/recording_syslog.h"

extern "C" {
JNIEXPORT void JNICALL Java_velorin_Logger_ku_1syslog(JNIEnv*, jclass, jint, jint, jint, jstring);
JNIEXPORT void JNICALL Java_velorin_Logger_zam_1syslog(JNIEnv*, jclass, jint, jint, jstring);
JNIEXPORT jboolean JNICALL Java_velorin_Logger_is_1debug_1enabled(JNIEnv*, jclass);
JNIEXPORT void JNICALL Java_velorin_Logger_set_1debug(JNIEnv*, jclass, jboolean);
JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_ku_1syslog(JNIEnv*, jclass, jint, jint, jint,
                                                           jstring);
JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_zam_1syslog(JNIEnv*, jclass, jint, jint, jstring);
JNIEXPORT jboolean JNICALL Java_velorin_KuSyslogApi_is_1debug_1enabled(JNIEnv*, jclass);
JNIEXPORT void JNICALL Java_velorin_KuSyslogApi_set_1debug(JNIEnv*, jclass, jboolean);
}

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The native methods of one class.
struct Methods {
  const char* name;
  decltype(&Java_velorin_Logger_ku_1syslog) ku_syslog;
  decltype(&Java_velorin_Logger_zam_1syslog) zam_syslog;
  decltype(&Java_velorin_Logger_is_1debug_1enabled) is_debug_enabled;
  decltype(&Java_velorin_Logger_set_1debug) set_debug;
};
void PrintTo(const Methods& methods, std::ostream* to) {
  *to << methods.name;
}

constexpr Methods kClasses[] = {
    {"Logger", Java_velorin_Logger_ku_1syslog, Java_velorin_Logger_zam_1syslog,
     Java_velorin_Logger_is_1debug_1enabled, Java_velorin_Logger_set_1debug},
    {"KuSyslogApi", Java_velorin_KuSyslogApi_ku_1syslog, Java_velorin_KuSyslogApi_zam_1syslog,
     Java_velorin_KuSyslogApi_is_1debug_1enabled, Java_velorin_KuSyslogApi_set_1debug},
};

// A JVM whose only string is `text`. Any other function of the table is null: calling it crashes.
class FakeJvm : public JNIEnv {
 public:
  explicit FakeJvm(std::string text, bool out_of_memory = false)
      : text_(std::move(text)), out_of_memory_(out_of_memory) {
    table_.GetStringUTFChars = [](JNIEnv* env, jstring string, jboolean* is_copy) {
      return static_cast<FakeJvm*>(env)->get(string, is_copy);
    };
    table_.ReleaseStringUTFChars = [](JNIEnv* env, jstring string, const char* bytes) {
      static_cast<FakeJvm*>(env)->release(string, bytes);
    };
    table_.ExceptionClear = [](JNIEnv* env) { static_cast<FakeJvm*>(env)->clear(); };
    functions = &table_;
  }

  jstring string() { return &object_; }

  // The calls of the table's functions, in their order.
  std::vector<std::string> asked;

 private:
  const char* get(jstring string, jboolean* is_copy) {
    EXPECT_EQ(string, &object_);
    EXPECT_FALSE(pending_);
    asked.push_back("get");
    pending_ = out_of_memory_;
    if (is_copy != nullptr) *is_copy = JNI_FALSE;
    return out_of_memory_ ? nullptr : text_.c_str();
  }
  void release(jstring string, const char* bytes) {
    EXPECT_EQ(string, &object_);
    EXPECT_EQ(bytes, text_.c_str());
    asked.push_back("release");
    // Whoever reads on sees it.
    text_.assign(text_.size(), '~');
  }
  void clear() {
    asked.push_back("clear");
    pending_ = false;
  }

  JNINativeInterface_ table_ = {};
  _jstring object_;
  std::string text_;
  const bool out_of_memory_;
  bool pending_ = false;
};

// The library's state lasts as long as its process, so each case has one of its own.
class Logger_jniTest : public PrivateWorld, public testing::WithParamInterface<Methods> {
 protected:
  template <typename Body>
  ChildResult inChild(const Body& body) {
    const ChildResult child = runInChild([&] {
      syslog_.recordHere();
      body();
    });
    EXPECT_EQ(child.exitCode(), 0) << child;
    return child;
  }

  RecordingSyslog syslog_;
  LogListener unified_{"/tmp/zam-errorlog.0"};
};
INSTANTIATE_TEST_SUITE_P(, Logger_jniTest, testing::ValuesIn(kClasses),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(Logger_jniTest, KuSyslogReleasesTheStringOnce) {
  inChild([] {
    FakeJvm jvm("100% done: %s %n");
    GetParam().ku_syslog(&jvm, nullptr, 4, 12, 34, jvm.string());
    EXPECT_THAT(jvm.asked, ElementsAre("get", "release"));
  });
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog 4 12 0 34 100% done: %s %n"));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [W] 100% done: %s %n"));
}

TEST_P(Logger_jniTest, ZamSyslogReleasesTheStringOnce) {
  inChild([] {
    FakeJvm jvm("text");
    GetParam().zam_syslog(&jvm, nullptr, 3, -1, jvm.string());
    EXPECT_THAT(jvm.asked, ElementsAre("get", "release"));
  });
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 3 84 0 4294967295 text"));
  EXPECT_THAT(unified_.waiting(), ElementsAre(" [R] text"));
}

TEST_P(Logger_jniTest, StringWhoseBytesCannotBeHadIsDropped) {
  const ChildResult child = inChild([] {
    FakeJvm jvm("never seen", /*out_of_memory=*/true);
    GetParam().ku_syslog(&jvm, nullptr, 4, 12, 34, jvm.string());
    GetParam().zam_syslog(&jvm, nullptr, 4, 34, jvm.string());
    EXPECT_THAT(jvm.asked, ElementsAre("get", "clear", "get", "clear"));
  });
  EXPECT_EQ(child.err, "");
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_P(Logger_jniTest, NullStringAsksNothingOfTheJvm) {
  inChild([] {
    FakeJvm jvm("");
    GetParam().ku_syslog(&jvm, nullptr, 2, 12, 34, nullptr);
    GetParam().zam_syslog(&jvm, nullptr, 6, 35, nullptr);
    EXPECT_THAT(jvm.asked, IsEmpty());
  });
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 2 84 0 34 (null message)",
                                           "ku_syslog 6 84 0 35 (null message)"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_P(Logger_jniTest, FailedInitialisationAsksNothingOfTheJvm) {
  syslog_.initReturns(-1);
  syslog_.isDebugEnabledReturns(1);
  const ChildResult child = inChild([] {
    FakeJvm jvm("dropped");
    GetParam().ku_syslog(&jvm, nullptr, 4, 12, 34, jvm.string());
    GetParam().ku_syslog(&jvm, nullptr, 4, 12, 34, nullptr);
    GetParam().zam_syslog(&jvm, nullptr, 4, 34, jvm.string());
    GetParam().set_debug(&jvm, nullptr, JNI_TRUE);
    EXPECT_EQ(GetParam().is_debug_enabled(&jvm, nullptr), JNI_FALSE);
    EXPECT_THAT(jvm.asked, IsEmpty());
  });
  EXPECT_EQ(child.err, "");
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_P(Logger_jniTest, StringIsReleasedWhenTheUnifiedLogIsUnreachable) {
  const ChildResult child = inChild([] {
    unlink("/tmp/zam-errorlog.0");
    FakeJvm jvm("x");
    GetParam().zam_syslog(&jvm, nullptr, 4, 34, jvm.string());
    EXPECT_THAT(jvm.asked, ElementsAre("get", "release"));
  });
  EXPECT_EQ(child.err, "sendto(): No such file or directory\n");
  EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 4 84 0 34 x"));
}

TEST_P(Logger_jniTest, PrioritiesOutsideZeroToSevenHaveNoLetter) {
  inChild([] {
    for (const jint priority : {-1, 8, INT_MIN, INT_MAX}) {
      FakeJvm jvm("odd");
      GetParam().zam_syslog(&jvm, nullptr, priority, 1, jvm.string());
    }
  });
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "ku_syslog -1 84 0 1 odd", "ku_syslog 8 84 0 1 odd",
                          "ku_syslog -2147483648 84 0 1 odd", "ku_syslog 2147483647 84 0 1 odd"));
  EXPECT_THAT(unified_.waiting(), AllOf(SizeIs(4), Each(" [?] odd")));
}

TEST_P(Logger_jniTest, UnifiedTextsAreCutAt4086BytesAndRecordsAreNot) {
  // " [I] " takes five bytes; 4091 fill the buffer that the two are put together in.
  const std::string fitting(4081, 'a');
  for (const size_t len :
       {size_t{4080}, size_t{4081}, size_t{4082}, size_t{4091}, size_t{100000}}) {
    SCOPED_TRACE(len);
    syslog_.clear();
    const std::string text(len, 'a');
    inChild([&] {
      FakeJvm jvm(text);
      GetParam().zam_syslog(&jvm, nullptr, 6, 1, jvm.string());
      EXPECT_THAT(jvm.asked, ElementsAre("get", "release"));
    });
    EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "ku_syslog 6 84 0 1 " + text));
    EXPECT_THAT(unified_.waiting(), ElementsAre(" [I] " + (len < 4081 ? text : fitting)));
  }
}

TEST_P(Logger_jniTest, IsDebugEnabledIsTheLowByte) {
  const struct {
    int result;
    int low_byte;
  } rows[] = {{0, 0},     {1, 1},    {0x80, 0x80}, {0xff, 0xff}, {0x100, 0},
              {0x101, 1}, {-1, 255}, {-256, 0},    {INT_MIN, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.result);
    syslog_.clear();
    syslog_.isDebugEnabledReturns(row.result);
    inChild([&] {
      FakeJvm jvm("");
      EXPECT_EQ(GetParam().is_debug_enabled(&jvm, nullptr), row.low_byte);
    });
    EXPECT_THAT(syslog_.calls(), ElementsAre("ku_syslog_init", "is_debug_enabled 84 0"));
  }
}

TEST_P(Logger_jniTest, SetDebugSwitchesModule84) {
  inChild([] {
    FakeJvm jvm("");
    GetParam().set_debug(&jvm, nullptr, JNI_TRUE);
    GetParam().set_debug(&jvm, nullptr, JNI_FALSE);
  });
  EXPECT_THAT(syslog_.calls(),
              ElementsAre("ku_syslog_init", "set_debug 84 0 1", "set_debug 84 0 0"));
}

TEST_P(Logger_jniTest, UnifiedLogIsThatOfTheRealUser) {
  LogListener users("/tmp/zam-errorlog.1234");
  inChild([] {
    becomeUser(1234);
    FakeJvm jvm("mine");
    GetParam().zam_syslog(&jvm, nullptr, 5, 1, jvm.string());
  });
  EXPECT_THAT(users.waiting(), ElementsAre(" [N] mine"));
  EXPECT_THAT(unified_.waiting(), IsEmpty());
}

TEST_P(Logger_jniTest, ThreadsInitialiseAtLeastOnceAndLoseNothing) {
  constexpr int kThreads = 8;  // as many as the socket's queue holds
  const ChildResult child = inChild([] {
    std::atomic<int> missing{kThreads};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
      threads.emplace_back([i, &missing] {
        FakeJvm jvm("thread " + std::to_string(i));
        // All at once, as the first messages are where they can meet.
        for (--missing; missing > 0;) continue;
        GetParam().zam_syslog(&jvm, nullptr, 7, i, jvm.string());
        EXPECT_THAT(jvm.asked, ElementsAre("get", "release"));
      });
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(child.err, "");
  std::vector<std::string> records;
  std::vector<std::string> texts;
  for (int i = 0; i < kThreads; ++i) {
    const std::string number = std::to_string(i);
    records.push_back("ku_syslog 7 84 0 " + number + " thread " + number);
    texts.push_back(" [D] thread " + number);
  }
  std::vector<std::string> calls = syslog_.calls();
  EXPECT_EQ(calls.front(), "ku_syslog_init");
  calls.erase(std::remove(calls.begin(), calls.end(), "ku_syslog_init"), calls.end());
  EXPECT_THAT(calls, testing::UnorderedElementsAreArray(records));
  EXPECT_THAT(unified_.waiting(), testing::UnorderedElementsAreArray(texts));
}

}  // namespace
