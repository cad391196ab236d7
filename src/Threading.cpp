#include "korvo/Threading.h"

#include <mutex>
#include <system_error>

namespace {
std::mutex jobMutex;  // guards ThreadPool::_jobs
std::atomic<int> refusedWorker{0};

// Idle threads poll rather than sleep (jobs are picked up at once); the hint
// lets a sibling hardware thread run meanwhile and saves power.
inline void pollPause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}
}  // namespace

ThreadPool ThreadPool::THREAD_POOL;

ThreadPool::~ThreadPool() {
    while (_jobs != nullptr) {
        JobNode* next = _jobs->next;
        delete _jobs;
        _jobs = next;
    }
}

void ThreadPool::launchPool(int numThreads) {
    if (numThreads < 1) {
        numThreads = static_cast<int>(std::thread::hardware_concurrency());
    }
    _running.store(true);
    KORVO_ASSERT(_threads.empty());
    KORVO_ASSERT(numThreads >= 1);
    _numThreads = numThreads;
    for (int i = 1; i < numThreads; ++i) {
        if (refusedWorker.load() == i && refusedWorker.exchange(0) == i) {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                    "thread constructor failed");
        }
        _threads.emplace_back(&ThreadPool::workerLoop, this);
    }
}

void ThreadPool::workerLoop() {
    std::function<void()> job;
    while (_running.load(std::memory_order_acquire)) {
        if (getJob(job)) {
            job();
            _jobsDone.fetch_add(1);
        } else {
            pollPause();
        }
    }
}

bool ThreadPool::getJob(std::function<void()>& job) {
    std::lock_guard<std::mutex> lock(jobMutex);
    if (_jobs == nullptr) {
        return false;
    }
    JobNode* head = _jobs;
    job = head->job;
    _jobs = head->next;
    delete head;
    return true;
}

void ThreadPool::newLoopJob(const std::function<void(int)>& job) {
    const int n = _numThreads;
    if (!_idle.load(std::memory_order_acquire) || n == 1) {
        for (int i = 0; i < n; ++i) {
            job(i);
        }
        return;
    }
    _idle.store(false, std::memory_order_release);
    _jobsDone.store(0, std::memory_order_release);
    for (int i = 0; i < n; ++i) {
        if (i == n - 1) {
            job(i);
            _jobsDone.fetch_add(1);
        } else {
            auto* node = new JobNode{[&job, i] { job(i); }, nullptr};
            std::lock_guard<std::mutex> lock(jobMutex);
            node->next = _jobs;
            _jobs = node;
        }
    }
    std::function<void()> queued;
    while (_jobsDone.load(std::memory_order_acquire) < _numThreads) {
        if (getJob(queued)) {
            queued();
            _jobsDone.fetch_add(1);
        } else {
            pollPause();
        }
    }
    _idle.store(true, std::memory_order_release);
}

void ThreadPool::clearPool() {
    _running.store(false, std::memory_order_release);
    for (auto& thread : _threads) {
        thread.join();
    }
    _threads.clear();
}

int ThreadPool::getNumThreads() const { return _numThreads; }

namespace korvo_detail {
void failThreadStartAt(int worker) { refusedWorker.store(worker); }
}  // namespace korvo_detail
