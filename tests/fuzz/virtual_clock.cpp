#include "virtual_clock.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace {

constexpr int64_t kStartNs = int64_t(1000) * 1000 * 1000 * 1000;  // well past zero: no "never"

thread_local bool active = false;
thread_local int64_t nowNs = 0;

bool Monotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW ||
           clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME;
}

int64_t ToNs(const timespec& t) {
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

timespec FromNs(int64_t ns) {
    return {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

// A timed wait on the virtual clock: it ends at its deadline, at once.
int TimeOut(clockid_t clock, const timespec* deadline) {
    if (!Monotonic(clock) || !deadline) return -1;
    nowNs = std::max(nowNs, ToNs(*deadline));
    return ETIMEDOUT;
}

template <class F>
F Next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace orqfuzz {

void BeginVirtualTime() {
    nowNs = kStartNs;
    active = true;
}

void EndVirtualTime() {
    active = false;
}

void AdvanceVirtualTime(std::chrono::nanoseconds delay) {
    if (delay.count() > 0) nowNs += delay.count();
}

}  // namespace orqfuzz

// The C library's entries, taken over for the thread in virtual time. The real calls go to the
// kernel directly, which needs no lookup that could allocate before the sanitizers are up.
extern "C" {

int nanosleep(const timespec* request, timespec* remaining) {
    if (active && request) {
        nowNs += ToNs(*request);
        if (remaining) *remaining = {0, 0};
        return 0;
    }
    return static_cast<int>(syscall(SYS_nanosleep, request, remaining));
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
    if (active && request && Monotonic(clock)) {
        if (flags & TIMER_ABSTIME) {
            nowNs = std::max(nowNs, ToNs(*request));
        } else {
            nowNs += ToNs(*request);
        }
        return 0;
    }
    long result = syscall(SYS_clock_nanosleep, clock, flags, request, remaining);
    return result == -1 ? errno : 0;
}

int clock_gettime(clockid_t clock, timespec* time) {
    if (active && Monotonic(clock)) {
        *time = FromNs(nowNs);
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    if (active) {
        int result = TimeOut(clock, deadline);
        if (result >= 0) return result;
    }
    using Real = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    static Real real = Next<Real>("pthread_cond_clockwait");
    return real(condition, mutex, clock, deadline);
}

}  // extern "C"
