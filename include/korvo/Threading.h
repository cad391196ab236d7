// The one process-wide worker pool. Its single parallel primitive is the loop
// job: run a function once per thread index and return when all are done.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "korvo/common.h"

class KORVO_API ThreadPool {
public:
    static ThreadPool THREAD_POOL;

    ThreadPool() = default;
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Starts numThreads - 1 workers (the hardware concurrency when below 1);
    // the calling thread is the last one.
    void launchPool(int numThreads);
    // Runs job(0) .. job(n - 1) and returns when all have returned. Called from
    // inside a running loop job, it runs them in order on the calling thread.
    void newLoopJob(const std::function<void(int)>& job);
    // Takes the most recently queued job, if any.
    bool getJob(std::function<void()>& job);
    // Stops and joins the workers.
    void clearPool();
    int getNumThreads() const;

private:
    struct JobNode {
        std::function<void()> job;
        JobNode* next;
    };

    void workerLoop();

    JobNode* _jobs = nullptr;  // used as a stack: linked in and taken at the head
    std::vector<std::thread> _threads;
    std::atomic<bool> _idle{true};
    std::atomic<std::int32_t> _jobsDone{0};
    std::int32_t _numThreads = 8;
    std::atomic<bool> _running{false};
};

namespace korvo_detail {
// Testing aid: the next launchPool that gets that far refuses to start its worker
// number `worker` (1 for the first) the way a failed thread creation does, once.
// 0 disarms.
KORVO_API void failThreadStartAt(int worker);
}  // namespace korvo_detail
