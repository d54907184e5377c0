// Owner of a file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

// Closes its descriptor when destroyed. A negative descriptor, such as a failed open(2) returns,
// counts as none.
class UniqueFd {
  public:
    explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
    ~UniqueFd() {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    explicit operator bool() const {
        return descriptor_ >= 0;
    }
    int get() const {
        return descriptor_;
    }
    int release() {
        return std::exchange(descriptor_, -1);
    }

  private:
    int descriptor_;
};
