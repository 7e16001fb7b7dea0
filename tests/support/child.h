// Runs part of a test in a process of its own: what it does to process-wide state (environment, stop switch, exit
// handlers, mounts) ends with it, and a hang or a crash is a result instead of the end of the test program.
#pragma once

#include <chrono>
#include <functional>
#include <string>

// How a child ended. Exactly one of exitCode >= 0, signal != 0 holds.
struct child_result_t {
    int exitCode = -1; // 0: the body came back and every expectation in it held; 1: one failed, or memory leaked
    int signal = 0;    // the signal that ended the child, SIGALRM at the deadline; the running test has failed then
    std::string err;   // what the child, and what it started, wrote to standard error
};

// Forks, runs the body in the child and waits for its end. Expectations inside the body count: their messages go to
// standard output as usual. A body that ends the process itself (exit, a signal) decides how; a failed expectation
// turns its exit code into 1 even so. Standard error is shown unless the child ended with 0.
//
// Sanitizers make programs several times slower: the deadline is stretched under them.
// Call it before the test starts threads: the child has only the calling one.
child_result_t run_in_child(const std::function<void()> &body,
                            std::chrono::milliseconds deadline = std::chrono::seconds(30));

// For a child that finds that the machine lacks what it needs: ends it, and the running test is marked as skipped.
[[noreturn]] void skip_from_child(const std::string &why);
