#include "Bsdiff.h"

#include "BzipBlockWriter.h"
#include "base/FileUtil.h"
#include "patch/BsdiffFormat.h"

#include <divsufsort.h>
#include <divsufsort64.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool Fail(std::string* error, const std::string& message) {
    if (error)
        *error = message;
    return false;
}

// Length of the common prefix of a[0..aSize) and b[0..bSize).
inline int64_t MatchLength(const uint8_t* a, int64_t aSize, const uint8_t* b, int64_t bSize) {
    const int64_t limit = std::min(aSize, bSize);
    int64_t i = 0;
    // Eight bytes at a time while they agree, then byte by byte.
    while (i + 8 <= limit) {
        uint64_t x, y;
        std::memcpy(&x, a + i, 8);
        std::memcpy(&y, b + i, 8);
        if (x != y)
            return i + (__builtin_ctzll(x ^ y) >> 3);
        i += 8;
    }
    while (i < limit && a[i] == b[i])
        ++i;
    return i;
}

// The suffix array of the old file, with the binary search over it.
//
// A table of where each prefix of the first `_bits` bits (bytes past the end count as zero)
// begins in the suffix array narrows every search to the suffixes that share the needle's
// prefix, plus one neighbour on each side. It takes about a quarter of a byte per byte of
// the old file, at most 2^24 entries.
template <typename Index> class SuffixIndex {
public:
    SuffixIndex(std::span<const uint8_t> old, std::vector<Index> sa)
        : _old(old), _sa(std::move(sa)) {
        const int64_t n = static_cast<int64_t>(_old.size());
        int log2n = 0;
        while ((int64_t{1} << (log2n + 1)) <= n)
            ++log2n;
        _bits = std::clamp(log2n - 4, 8, 24);
        // The prefixes of the suffixes in suffix-array order never decrease, so counting them
        // in file order and summing up gives where each one begins.
        _bucketStart.assign((size_t{1} << _bits) + 1, 0);
        for (int64_t i = 0; i < n; ++i)
            ++_bucketStart[key(_old.data() + i, n - i) + 1];
        for (size_t k = 1; k < _bucketStart.size(); ++k)
            _bucketStart[k] += _bucketStart[k - 1];
    }

    // The longest matches in the old file of the needles at newData[first + i], i < count:
    // lengths[i] and positions[i]. The binary searches resume each comparison after the
    // prefix that both bounds of the range already share with the needle, so long matches
    // are not compared again at every step. They are worked side by side: each step misses
    // the cache twice (the suffix array, then the old file), and doing the steps of several
    // searches together lets those misses overlap.
    void longestMatches(const uint8_t* newData, int64_t newSize, int64_t first, int count,
                        int64_t* lengths, int64_t* positions) const {
        constexpr int kMaxProbes = 32;
        struct Probe {
            int64_t lo, hi, lcpLo, lcpHi, mid, known;
        };
        Probe probes[kMaxProbes];
        const int64_t n = static_cast<int64_t>(_old.size());
        count = std::min(count, kMaxProbes);
        if (n == 0) {
            for (int i = 0; i < count; ++i)
                lengths[i] = positions[i] = 0;
            return;
        }
        for (int i = 0; i < count; ++i) {
            const uint8_t* needle = newData + first + i;
            const int64_t size = newSize - first - i;
            const uint32_t k = key(needle, size);
            probes[i].lo = std::max<int64_t>(_bucketStart[k] - 1, 0);
            probes[i].hi = std::min<int64_t>(_bucketStart[k + 1], n - 1);
            if (probes[i].hi <= probes[i].lo)
                probes[i].hi = std::min<int64_t>(probes[i].lo + 1, n - 1);
            __builtin_prefetch(&_sa[probes[i].lo]);
            __builtin_prefetch(&_sa[probes[i].hi]);
        }
        for (int i = 0; i < count; ++i) {
            const uint8_t* needle = newData + first + i;
            const int64_t size = newSize - first - i;
            probes[i].lcpLo = matchAt(probes[i].lo, 0, needle, size);
            probes[i].lcpHi = matchAt(probes[i].hi, 0, needle, size);
        }
        for (bool active = true; active;) {
            active = false;
            for (int i = 0; i < count; ++i) {
                Probe& p = probes[i];
                if (p.hi - p.lo >= 2) {
                    p.mid = p.lo + (p.hi - p.lo) / 2;
                    __builtin_prefetch(&_sa[p.mid]);
                }
            }
            for (int i = 0; i < count; ++i) {
                Probe& p = probes[i];
                if (p.hi - p.lo >= 2) {
                    p.known = std::min(p.lcpLo, p.lcpHi);
                    __builtin_prefetch(_old.data() + _sa[p.mid] + p.known);
                }
            }
            for (int i = 0; i < count; ++i) {
                Probe& p = probes[i];
                if (p.hi - p.lo < 2)
                    continue;
                const uint8_t* needle = newData + first + i;
                const int64_t size = newSize - first - i;
                const int64_t l = matchAt(p.mid, p.known, needle, size);
                const int64_t start = _sa[p.mid];
                // Ordered as the suffix array is: a suffix that is a prefix of the needle
                // comes before it. With this order the longest match is always one of the
                // two suffixes the search ends between.
                const bool suffixFirst =
                    l == n - start || (l < size && _old[start + l] < needle[l]);
                if (suffixFirst) {
                    p.lo = p.mid;
                    p.lcpLo = l;
                } else {
                    p.hi = p.mid;
                    p.lcpHi = l;
                }
                active |= p.hi - p.lo >= 2;
            }
        }
        for (int i = 0; i < count; ++i) {
            const Probe& p = probes[i];
            if (p.lcpLo >= p.lcpHi) {
                positions[i] = _sa[p.lo];
                lengths[i] = p.lcpLo;
            } else {
                positions[i] = _sa[p.hi];
                lengths[i] = p.lcpHi;
            }
        }
    }

private:
    // The first _bits bits of data[0..size), zero-padded.
    uint32_t key(const uint8_t* data, int64_t size) const {
        uint32_t value = 0;
        for (int64_t i = 0; i < 3; ++i)
            value = (value << 8) | (i < size ? data[i] : 0u);
        return value >> (24 - _bits);
    }

    int64_t matchAt(int64_t rank, int64_t known, const uint8_t* needle, int64_t needleSize) const {
        const int64_t start = _sa[rank];
        const int64_t n = static_cast<int64_t>(_old.size());
        if (known >= n - start || known >= needleSize)
            return std::min(n - start, needleSize);
        return known + MatchLength(_old.data() + start + known, n - start - known, needle + known,
                                   needleSize - known);
    }

    std::span<const uint8_t> _old;
    std::vector<Index> _sa;
    std::vector<Index> _bucketStart;
    int _bits = 8;
};

void PutOffset(std::vector<uint8_t>* out, int64_t value) {
    uint8_t bytes[kBsdiffOffsetSize];
    EncodeBsdiffOffset(value, std::span<uint8_t, kBsdiffOffsetSize>(bytes));
    out->insert(out->end(), bytes, bytes + kBsdiffOffsetSize);
}

// The matching pass. Walks the new file; at each position looks up the longest match in the
// old file and compares it with what simply continuing the previous alignment would give.
// When the new match is clearly better (more than 8 bytes more, or exact where the old
// alignment was not), the stretch since the previous match is written out: the previous
// match extended forwards, the new one extended backwards, each as far as at least half the
// bytes agree; overlapping extensions are cut where the split agrees best. Extended bytes
// become differences against the old file, the rest of the stretch is copied as extra bytes.
template <typename Index>
bool Scan(const SuffixIndex<Index>& index, std::span<const uint8_t> oldData,
          std::span<const uint8_t> newData, std::vector<uint8_t>* control, BzipBlockWriter* diff,
          BzipBlockWriter* extra, uint64_t* entries, const Bsdiff::Progress& progress) {
    const uint8_t* old = oldData.data();
    const uint8_t* cur = newData.data();
    const int64_t oldSize = static_cast<int64_t>(oldData.size());
    const int64_t newSize = static_cast<int64_t>(newData.size());

    // Matches looked up ahead of need. Most stretches between good matches take a lookup at
    // every position, so after each lookup that does not end the stretch the next batch
    // doubles, up to kMaxBatch; a stretch that ends at once wastes nothing.
    constexpr int kMaxBatch = 16;
    int64_t batchLengths[kMaxBatch], batchPositions[kMaxBatch];
    int64_t batchFirst = 0;
    int batchCount = 0;
    int batchSize = 1;
    auto lookUp = [&](int64_t at, int64_t* matchPos) {
        if (at < batchFirst || at >= batchFirst + batchCount) {
            batchFirst = at;
            batchCount = static_cast<int>(std::min<int64_t>(batchSize, newSize - at));
            index.longestMatches(cur, newSize, at, batchCount, batchLengths, batchPositions);
        }
        *matchPos = batchPositions[at - batchFirst];
        return batchLengths[at - batchFirst];
    };

    int64_t scan = 0, len = 0, pos = 0;
    int64_t lastScan = 0, lastPos = 0, lastOffset = 0;
    int64_t nextReport = 0;
    while (scan < newSize) {
        int64_t oldScore = 0;
        int64_t scoreEnd = scan += len;
        batchSize = 4;
        for (; scan < newSize; ++scan) {
            len = lookUp(scan, &pos);
            for (; scoreEnd < scan + len; ++scoreEnd) {
                if (scoreEnd + lastOffset < oldSize && old[scoreEnd + lastOffset] == cur[scoreEnd])
                    ++oldScore;
            }
            if ((len == oldScore && len != 0) || len > oldScore + 8)
                break;
            batchSize = std::min(batchSize * 2, kMaxBatch);
            if (scan + lastOffset < oldSize && old[scan + lastOffset] == cur[scan])
                --oldScore;
        }

        if (len != oldScore || scan == newSize) {
            // Forward extension of the previous match.
            int64_t lenF = 0;
            {
                int64_t s = 0, best = 0;
                for (int64_t i = 0; lastScan + i < scan && lastPos + i < oldSize;) {
                    if (old[lastPos + i] == cur[lastScan + i])
                        ++s;
                    ++i;
                    if (s * 2 - i > best * 2 - lenF) {
                        best = s;
                        lenF = i;
                    }
                }
            }
            // Backward extension of the new match.
            int64_t lenB = 0;
            if (scan < newSize) {
                int64_t s = 0, best = 0;
                for (int64_t i = 1; scan >= lastScan + i && pos >= i; ++i) {
                    if (old[pos - i] == cur[scan - i])
                        ++s;
                    if (s * 2 - i > best * 2 - lenB) {
                        best = s;
                        lenB = i;
                    }
                }
            }
            // Where the two overlap, split at the point that keeps the most agreeing bytes.
            if (lastScan + lenF > scan - lenB) {
                const int64_t overlap = (lastScan + lenF) - (scan - lenB);
                int64_t s = 0, best = 0, lenS = 0;
                for (int64_t i = 0; i < overlap; ++i) {
                    if (cur[lastScan + lenF - overlap + i] == old[lastPos + lenF - overlap + i])
                        ++s;
                    if (cur[scan - lenB + i] == old[pos - lenB + i])
                        --s;
                    if (s > best) {
                        best = s;
                        lenS = i + 1;
                    }
                }
                lenF += lenS - overlap;
                lenB -= lenS;
            }

            for (int64_t i = 0; i < lenF; ++i)
                diff->put(static_cast<uint8_t>(cur[lastScan + i] - old[lastPos + i]));
            const int64_t extraLength = (scan - lenB) - (lastScan + lenF);
            extra->write(cur + lastScan + lenF, static_cast<size_t>(extraLength));

            PutOffset(control, lenF);
            PutOffset(control, extraLength);
            PutOffset(control, (pos - lenB) - (lastPos + lenF));
            ++*entries;

            lastScan = scan - lenB;
            lastPos = pos - lenB;
            lastOffset = pos - scan;
        }
        if (progress && scan >= nextReport) {
            progress(newSize ? static_cast<double>(scan) / static_cast<double>(newSize) : 1.0);
            nextReport = scan + std::max<int64_t>(newSize / 100, 1);
        }
    }
    return true;
}

template <typename Index>
bool SortSuffixes(std::span<const uint8_t> old, std::vector<Index>* sa, std::string* error);

template <>
bool SortSuffixes<int32_t>(std::span<const uint8_t> old, std::vector<int32_t>* sa,
                           std::string* error) {
    sa->resize(old.size());
    if (!old.empty() && divsufsort(old.data(), sa->data(), static_cast<saidx_t>(old.size())) != 0)
        return Fail(error, "suffix sorting failed");
    return true;
}

template <>
bool SortSuffixes<int64_t>(std::span<const uint8_t> old, std::vector<int64_t>* sa,
                           std::string* error) {
    sa->resize(old.size());
    if (!old.empty() &&
        divsufsort64(old.data(), sa->data(), static_cast<saidx64_t>(old.size())) != 0)
        return Fail(error, "suffix sorting failed");
    return true;
}

template <typename Index>
bool DiffWith(std::span<const uint8_t> oldData, std::span<const uint8_t> newData,
              std::vector<uint8_t>* patch, std::string* error, Bsdiff::Stats* stats,
              const Bsdiff::Progress& progress) {
    std::vector<Index> sa;
    if (!SortSuffixes(oldData, &sa, error))
        return false;

    const SuffixIndex<Index> index(oldData, std::move(sa));

    std::vector<uint8_t> control;
    BzipBlockWriter diff;
    BzipBlockWriter extra;
    uint64_t entries = 0;
    Scan(index, oldData, newData, &control, &diff, &extra, &entries, progress);

    // The control block is compressed once the other two are done, so that no more than two
    // compressors hold their working memory at a time.
    if (!diff.finish(error) || !extra.finish(error))
        return false;
    BzipBlockWriter controlBlock;
    controlBlock.write(control.data(), control.size());
    if (!controlBlock.finish(error))
        return false;

    BsdiffHeader header;
    header.controlLength = static_cast<int64_t>(controlBlock.compressed().size());
    header.diffLength = static_cast<int64_t>(diff.compressed().size());
    header.newSize = static_cast<int64_t>(newData.size());
    patch->clear();
    patch->resize(kBsdiffHeaderSize);
    EncodeBsdiffHeader(header,
                       std::span<uint8_t, kBsdiffHeaderSize>(patch->data(), kBsdiffHeaderSize));
    for (const auto* block : {&controlBlock, &diff, &extra})
        patch->insert(patch->end(), block->compressed().begin(), block->compressed().end());

    if (stats) {
        stats->controlEntries = entries;
        stats->diffBytes = diff.inputBytes();
        stats->extraBytes = extra.inputBytes();
        stats->patchBytes = patch->size();
    }
    if (progress)
        progress(1.0);
    return true;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* data, std::string* error) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return Fail(error, "cannot open " + path + ": " + std::strerror(errno));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return Fail(error, path + " is not a regular file");
    data->resize(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < data->size()) {
        const ssize_t n = ::read(fd.get(), data->data() + done, data->size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return Fail(error, "cannot read " + path + ": " + std::strerror(errno));
        if (n == 0)
            return Fail(error, path + " became shorter while it was read");
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool Bsdiff::diff(std::span<const uint8_t> oldData, std::span<const uint8_t> newData,
                  std::vector<uint8_t>* patch, std::string* error, Stats* stats,
                  const Progress& progress) {
    try {
        if (oldData.size() < static_cast<size_t>(INT32_MAX))
            return DiffWith<int32_t>(oldData, newData, patch, error, stats, progress);
        return DiffWith<int64_t>(oldData, newData, patch, error, stats, progress);
    } catch (const std::bad_alloc&) {
        return Fail(error, "not enough memory for the suffix array of a " +
                               std::to_string(oldData.size()) + "-byte file");
    }
}

bool Bsdiff::diffFiles(const std::string& oldPath, const std::string& newPath,
                       const std::string& patchPath, std::string* error, Stats* stats,
                       const Progress& progress) {
    std::vector<uint8_t> oldData;
    std::vector<uint8_t> newData;
    std::vector<uint8_t> patch;
    try {
        if (!ReadWholeFile(oldPath, &oldData, error) || !ReadWholeFile(newPath, &newData, error))
            return false;
    } catch (const std::bad_alloc&) {
        return Fail(error, "not enough memory to read " + oldPath + " and " + newPath);
    }
    if (!diff(oldData, newData, &patch, error, stats, progress))
        return false;
    oldData = {};
    newData = {};
    std::string message;
    if (!WriteFileAtomically(patchPath, std::string(patch.begin(), patch.end()), &message))
        return Fail(error, "cannot write " + patchPath + ": " + message);
    return true;
}
