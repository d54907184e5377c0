// Counting semaphores: the standard library's.
#include <dispatch/dispatch.h>

#include <cassert>
#include <semaphore>

struct dispatch_semaphore_s : std::counting_semaphore<> {
    using counting_semaphore::counting_semaphore;
};

dispatch_semaphore_t dispatch_semaphore_create(intptr_t value) {
    return value < 0 ? nullptr : new dispatch_semaphore_s(value);
}

intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore,
                                 [[maybe_unused]] dispatch_time_t limit) {
    assert(limit == DISPATCH_TIME_FOREVER);
    semaphore->acquire();
    return 0;
}

intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore) {
    semaphore->release();
    return 0;
}
