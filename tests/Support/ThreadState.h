// The scheduler's state of a thread of this process, for tests that must see
// a thread blocked (asleep in the kernel) rather than guess with a delay.
//
//   const pid_t tid = ...;           // the thread's gettid()
//   testsupport::waitUntilAsleep(tid);
#pragma once

#include <sys/types.h>

#include <fstream>
#include <string>
#include <thread>

namespace testsupport {

// The one-letter state of /proc/self/task/<tid>/stat ("R", "S", ...); "" when
// the thread is gone.
inline std::string threadState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() ? std::string() : line.substr(close + 2, 1);
}

// Returns once the thread sleeps (state "S").
inline void waitUntilAsleep(pid_t tid)
{
    while (threadState(tid) != "S") {
        std::this_thread::yield();
    }
}

}  // namespace testsupport
