#include "ReadRecorder.h"

#include "xplat/FileUtils.h"

namespace ofv_testing {

namespace {
std::vector<ReadRecorder::Read> gReads;

void RecordRead(const PlatformFilePath& inPath, std::size_t inRequested, std::size_t inRead) {
    gReads.push_back({inPath, inRequested, inRead});
}
} // namespace

ReadRecorder::ReadRecorder() {
    gReads.clear();
    ofv::SetReadObserver(&RecordRead);
}

ReadRecorder::~ReadRecorder() {
    ofv::SetReadObserver(nullptr);
    gReads.clear();
}

const std::vector<ReadRecorder::Read>& ReadRecorder::reads() const {
    return gReads;
}

std::vector<std::size_t> ReadRecorder::requestedCounts() const {
    std::vector<std::size_t> counts;
    for (const Read& read : gReads) {
        counts.push_back(read.requested);
    }
    return counts;
}

} // namespace ofv_testing
