// A deleter for std::unique_ptr.
#pragma once

// Passes the pointer to the library function that frees it: std::unique_ptr<std::FILE,
// Closing<std::fclose>>. Ignores what the function returns.
template <auto close> struct Closing {
    template <typename Handle> void operator()(Handle *handle) const {
        close(handle);
    }
};
