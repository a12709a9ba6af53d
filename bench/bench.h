// Measures an operation of this library against a peer in the same run, on the same inputs.
#ifndef VELORIN_BENCH_bench_
#define VELORIN_BENCH_bench_

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace bench {

// The highest ratio to a peer that is accepted; every target has its own. 0: none is set.
struct Limit {
  double x86_64 = 0;
  double x86 = 0;

  double here() const { return sizeof(void*) == 8 ? x86_64 : x86; }
};

// One comparison.
struct Contest {
  std::string name;       // the operation, with the size of its inputs
  std::string peer_name;  // what it is measured against
  Limit limit;            // of ours to the peer
  size_t operations;      // done by one call of `ours`, and by one of `peer`
  std::function<bool()>
      agree;  // whether both give the same answers; called before the clock starts
  std::function<void()> ours;
  std::function<void()> peer;
  std::function<void()> settle = nullptr;  // run before each timed call, outside the clock
  // Whether the timed call was preempted and is not to count; asked after each.
  std::function<bool()> disturbed = nullptr;
};

// Makes the compiler believe that `value` is read, so that it has to be computed.
template <class T>
inline void keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

// Runs contests one after the other, prints a line for each and counts the limits kept.
//
// A contest is 9 runs. In a run both sides take turns in short timed calls, so that what else the
// machine does meets both alike; the run's figure is the ratio of the two medians. The ratio
// printed is the median of the runs, the spread how far the farthest run is from it.
class Contests {
 public:
  // Only contests whose name contains the first argument are run; without one, all.
  Contests(int argc, char** argv) : wanted_(argc > 1 ? argv[1] : "") {}

  void run(const Contest& contest);

  // Prints the totals. Returns: the exit status, 0 unless answers differed or nothing was run:
  // machines are too noisy to fail for a time.
  int finish() const;

 private:
  static constexpr size_t kRuns = 9;
  static constexpr double kRunNs = 20e6;  // of each side
  static constexpr double kWallNs = 1e9;  // where others take the processors away: then it ends

  static double timed(const Contest& contest, const std::function<void()>& side);

  std::string wanted_;
  int run_ = 0;
  int kept_ = 0;
  int exceeded_ = 0;
  int differing_ = 0;
};

inline double now_ns() {
  timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

inline double Contests::timed(const Contest& contest, const std::function<void()>& side) {
  if (contest.settle) contest.settle();
  const double start = now_ns();
  side();
  return now_ns() - start;
}

inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

inline void Contests::run(const Contest& contest) {
  if (contest.name.find(wanted_) == std::string::npos) return;
  ++run_;
  if (!contest.agree()) {
    ++differing_;
    printf("%-28s differs from %s\n", contest.name.c_str(), contest.peer_name.c_str());
    return;
  }

  (void)timed(contest, contest.ours);
  const double call_ns = std::max(timed(contest, contest.peer), 1.0);
  const size_t turns = static_cast<size_t>(kRunNs / call_ns) + 1;
  const double operations = static_cast<double>(contest.operations);
  std::vector<double> ratios, ours_ns, peer_ns;
  for (size_t i = 0; i < kRuns; ++i) {
    std::vector<double> ours, peer;
    const double end = now_ns() + kWallNs;
    for (size_t turn = 0; ours.empty() || (turn < turns && now_ns() < end); ++turn) {
      const double our_time = timed(contest, contest.ours);
      bool counts = !contest.disturbed || !contest.disturbed();
      const double peer_time = timed(contest, contest.peer);
      counts = counts && (!contest.disturbed || !contest.disturbed());
      if (!counts && now_ns() < end + kWallNs) continue;  // where there is no peace it has to do
      ours.push_back(our_time);
      peer.push_back(peer_time);
    }
    ours_ns.push_back(median(ours) / operations);
    peer_ns.push_back(median(peer) / operations);
    ratios.push_back(ours_ns.back() / peer_ns.back());
  }

  const double ratio = median(ratios);
  double spread = 0;
  for (const double r : ratios) spread = std::max(spread, std::max(r / ratio, ratio / r) - 1);
  const double limit = contest.limit.here();
  const bool ok = ratio <= limit;
  char verdict[48] = "";
  if (limit > 0) {
    ++(ok ? kept_ : exceeded_);
    (void)snprintf(verdict, sizeof verdict, "(limit %.2f)  %s", limit, ok ? "ok" : "OVER");
  }
  printf("%-28s %5.2f of %-16s %-20s  %zu runs, spread %.0f %%   %.4g / %.4g ns\n",
         contest.name.c_str(), ratio, contest.peer_name.c_str(), verdict, kRuns, spread * 100,
         median(ours_ns), median(peer_ns));
  (void)fflush(stdout);
}

inline int Contests::finish() const {
  printf("%d limits kept, %d exceeded", kept_, exceeded_);
  if (differing_ > 0) printf(", %d answers differ", differing_);
  printf(" (%s)\n", sizeof(void*) == 8 ? "x86-64" : "x86");
  return run_ == 0 || differing_ > 0;
}

// A second thread beside the one that makes this object, for contests whose sides are run by both
// at once. While it exists each is bound to a processor of its own, if there are two.
class TwoThreads {
 public:
  TwoThreads() {
    (void)sem_init(&go_, /*pshared=*/0, 0);
    (void)sched_getaffinity(0, sizeof before_, &before_);
    second_ = std::thread([this] { serve(); });
    std::vector<int> processors;
    for (int i = 0; i < CPU_SETSIZE && processors.size() < 2; ++i)
      if (CPU_ISSET(i, &before_)) processors.push_back(i);
    if (processors.size() < 2) {
      printf("one processor: two threads take turns on it\n");
      return;
    }
    bind(pthread_self(), processors[0]);
    bind(second_.native_handle(), processors[1]);
  }

  ~TwoThreads() {
    ready();
    run(nullptr);
    second_.join();
    (void)pthread_setaffinity_np(pthread_self(), sizeof before_, &before_);
    (void)sem_destroy(&go_);
  }

  TwoThreads(const TwoThreads&) = delete;
  TwoThreads& operator=(const TwoThreads&) = delete;

  // Wakes the second thread, so that `run` starts it at once: for a contest's `settle`.
  void ready() {
    (void)sem_post(&go_);
    await(kReady);
  }

  // Calls `function` on both threads at once and returns when both calls have. Null ends the second
  // thread.
  void run(void (*function)()) {
    function_ = function;
    const long before = preemptions();
    state_.store(kRunning, std::memory_order_release);
    if (function != nullptr) function();
    spin(kIdle);
    first_preempted_ = preemptions() != before;
  }

  // Whether a thread was preempted from `ready` on: then the time says more of others than of the
  // function.
  bool disturbed() const { return first_preempted_ || second_preempted_; }

 private:
  enum State { kIdle, kReady, kRunning };

  static void bind(pthread_t thread, int processor) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    (void)pthread_setaffinity_np(thread, sizeof one, &one);
  }

  static long preemptions() {
    rusage usage;
    (void)getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nivcsw;
  }

  void await(State wanted) const {
    while (state_.load(std::memory_order_acquire) != wanted) (void)sched_yield();
  }

  // As long as the clock runs: nobody else gets the processor.
  void spin(State wanted) const {
    while (state_.load(std::memory_order_acquire) != wanted) continue;
  }

  void serve() {
    for (bool more = true; more;) {
      while (sem_wait(&go_) != 0) continue;
      const long before = preemptions();
      state_.store(kReady, std::memory_order_release);
      spin(kRunning);
      more = function_ != nullptr;
      if (more) function_();
      second_preempted_ = preemptions() != before;
      state_.store(kIdle, std::memory_order_release);
    }
  }

  sem_t go_;
  cpu_set_t before_;
  std::atomic<State> state_ = kIdle;
  void (*function_)() = nullptr;
  bool first_preempted_ = false;
  bool second_preempted_ = false;
  std::thread second_;
};

}  // namespace bench

#endif  // VELORIN_BENCH_bench_
