#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ofv_testing {

// Records every file read the library makes while it exists. One recorder at a time.
class ReadRecorder {
public:
    struct Read {
        std::string path;
        std::size_t requested;
        std::size_t read;
    };

    ReadRecorder();
    ~ReadRecorder();
    ReadRecorder(const ReadRecorder&) = delete;
    ReadRecorder& operator=(const ReadRecorder&) = delete;

    const std::vector<Read>& reads() const;
    // The byte counts asked for, in order.
    std::vector<std::size_t> requestedCounts() const;
};

} // namespace ofv_testing
