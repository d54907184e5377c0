// Counting semaphores, made of a mutex and a condition variable.
#include <dispatch/dispatch.h>

#include <cassert>
#include <condition_variable>
#include <mutex>

struct dispatch_semaphore_s {
    std::mutex mutex;
    std::condition_variable given;
    intptr_t value; // below zero: minus the number of waiting threads
    intptr_t wakeups = 0;
};

dispatch_semaphore_t dispatch_semaphore_create(intptr_t value) {
    if (value < 0)
        return nullptr;
    auto *semaphore = new dispatch_semaphore_s;
    semaphore->value = value;
    return semaphore;
}

intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore,
                                 [[maybe_unused]] dispatch_time_t limit) {
    assert(limit == DISPATCH_TIME_FOREVER);
    std::unique_lock lock(semaphore->mutex);
    if (--semaphore->value < 0) {
        semaphore->given.wait(lock, [semaphore] { return semaphore->wakeups > 0; });
        --semaphore->wakeups;
    }
    return 0;
}

intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore) {
    const std::lock_guard lock(semaphore->mutex);
    if (++semaphore->value > 0)
        return 0;
    ++semaphore->wakeups;
    semaphore->given.notify_one();
    return 1;
}
