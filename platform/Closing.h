// A deleter for std::unique_ptr.
#pragma once

// Hands the pointer to a function of the library that it comes from: std::unique_ptr<std::FILE, Closing<std::fclose>>.
// What the function returns is dropped.
template <auto close> struct Closing {
    template <typename Handle> void operator()(Handle *handle) const {
        close(handle);
    }
};
