// SPDX-License-Identifier: Apache-2.0
#include "BenchUtil.h"

#include <linux/futex.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace bench {

std::uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t ProcessCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

// Built twice, for AVX2 and for plain x86-64; the loader picks the one the CPU can run.
__attribute__((target_clones("avx2", "default"))) std::uint64_t PayloadChecksum(const char* data,
                                                                                size_t size) {
    // Fletcher-style sums in sixteen independent 64-bit lanes, held in vectors: the check must
    // cost the reader far less than the copies it is measuring. The second sum weights each
    // word by its position, so reordered words are caught as well as changed ones.
    typedef std::uint64_t V4 __attribute__((vector_size(32)));
    V4 a[4] = {{0x9e3779b97f4a7c15ull, 1, 2, 3}, {4, 5, 6, 7}, {8, 9, 10, 11}, {12, 13, 14, 15}};
    V4 b[4] = {{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};
    size_t i = 0;
    for (; i + 128 <= size; i += 128) {
        for (int k = 0; k < 4; ++k) {
            V4 w;
            std::memcpy(&w, data + i + 32 * k, 32);
            a[k] += w;
            b[k] += a[k];
        }
    }
    const bool vectorPart = i > 0;
    std::uint64_t x = 0x2545f4914f6cdd1dull;
    for (; i + 8 <= size; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, data + i, 8);
        x = (x ^ w) * 0x9fb21c651e98df25ull;
    }
    if (i < size) {
        std::uint64_t w = 0;
        std::memcpy(&w, data + i, size - i);
        x = (x ^ w) * 0x9fb21c651e98df25ull;
    }
    if (vectorPart) {
        std::uint64_t lanes[32];
        std::memcpy(lanes, a, 128);
        std::memcpy(lanes + 16, b, 128);
        for (std::uint64_t lane : lanes) {
            x = (x ^ lane) * 0xff51afd7ed558ccdull;
            x ^= x >> 31;
        }
    }
    return x;
}

namespace {

std::uint32_t Mix(std::uint64_t payload, const BlockHeader& h) {
    std::uint64_t x = payload;
    x ^= (static_cast<std::uint64_t>(h.magic) << 32) | h.writer;
    x *= 0xc4ceb9fe1a85ec53ull;
    x ^= h.seq + 0x165667b19e3779f9ull;
    x *= 0xff51afd7ed558ccdull;
    x ^= h.size;
    x ^= x >> 29;
    return static_cast<std::uint32_t>(x ^ (x >> 32));
}

}  // namespace

BlockSource::BlockSource(size_t blockSize, std::uint32_t writer, unsigned int variants)
    : size_(std::max(blockSize, sizeof(BlockHeader))), writer_(writer) {
    std::uint64_t state = 0x2545f4914f6cdd1dull ^ (static_cast<std::uint64_t>(writer) << 17);
    for (unsigned int v = 0; v < variants; ++v) {
        std::vector<char> block(size_);
        for (size_t i = sizeof(BlockHeader); i < size_; ++i) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            block[i] = static_cast<char>(state);
        }
        payloadSums_.push_back(
            PayloadChecksum(block.data() + sizeof(BlockHeader), size_ - sizeof(BlockHeader)));
        blocks_.push_back(std::move(block));
    }
}

char* BlockSource::Prepare(std::uint64_t seq) {
    const size_t v = static_cast<size_t>(seq % blocks_.size());
    char* block = blocks_[v].data();
    BlockHeader h;
    h.magic = kBlockMagic;
    h.writer = writer_;
    h.seq = seq;
    h.sendNs = 0;
    h.size = static_cast<std::uint32_t>(size_);
    h.checksum = Mix(payloadSums_[v], h);
    std::memcpy(block, &h, sizeof h);
    return block;
}

BlockCheck CheckBlock(const char* data, size_t size, size_t expectedSize, BlockHeader* header) {
    if (size < sizeof(BlockHeader) || size != expectedSize) {
        return BlockCheck::Short;
    }
    std::memcpy(header, data, sizeof(BlockHeader));
    if (header->magic != kBlockMagic || header->size != size) {
        return BlockCheck::BadMagic;
    }
    const std::uint64_t payload =
        PayloadChecksum(data + sizeof(BlockHeader), size - sizeof(BlockHeader));
    if (Mix(payload, *header) != header->checksum) {
        return BlockCheck::BadChecksum;
    }
    return BlockCheck::Ok;
}

bool SequenceStats::Accept(std::uint64_t seq) {
    ++received;
    if (seq == next) {
        ++next;
        return true;
    }
    if (seq > next) {
        lost += seq - next;
        next = seq + 1;
        return false;
    }
    ++duplicates;
    return false;
}

Percentiles ComputePercentiles(std::vector<std::uint64_t> samples) {
    Percentiles p;
    p.count = samples.size();
    if (samples.empty()) {
        return p;
    }
    std::sort(samples.begin(), samples.end());
    // Nearest rank: the smallest sample with at least q of the samples at or below it.
    auto rank = [&samples](double q) {
        size_t r = static_cast<size_t>(std::ceil(q * static_cast<double>(samples.size())));
        r = std::max<size_t>(r, 1);
        return static_cast<double>(samples[std::min(r, samples.size()) - 1]);
    };
    p.p50 = rank(0.50);
    p.p90 = rank(0.90);
    p.p99 = rank(0.99);
    p.p999 = rank(0.999);
    p.max = static_cast<double>(samples.back());
    long double sum = 0;
    for (std::uint64_t s : samples) {
        sum += s;
    }
    p.mean = static_cast<double>(sum / samples.size());
    return p;
}

void FutexWakeAll(std::uint32_t* word) {
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

bool FutexWaitWhile(std::uint32_t* word, std::uint32_t expected, std::uint64_t deadlineNs) {
    for (;;) {
        if (__atomic_load_n(word, __ATOMIC_ACQUIRE) != expected) {
            return true;
        }
        const std::uint64_t now = NowNs();
        if (now >= deadlineNs) {
            return false;
        }
        const std::uint64_t left = deadlineNs - now;
        timespec rel;
        rel.tv_sec = static_cast<time_t>(left / 1000000000ull);
        rel.tv_nsec = static_cast<long>(left % 1000000000ull);
        syscall(SYS_futex, word, FUTEX_WAIT, expected, &rel, nullptr, 0);
    }
}

bool FutexWaitAtLeast(std::uint32_t* word, std::uint32_t target, std::uint64_t deadlineNs) {
    for (;;) {
        const std::uint32_t seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);
        if (seen >= target) {
            return true;
        }
        if (!FutexWaitWhile(word, seen, deadlineNs)) {
            return __atomic_load_n(word, __ATOMIC_ACQUIRE) >= target;
        }
    }
}

void KeyValues::Set(const std::string& key, const std::string& value) {
    for (auto& e : entries_) {
        if (e.first == key) {
            e.second = value;
            return;
        }
    }
    entries_.emplace_back(key, value);
}

void KeyValues::Set(const std::string& key, std::uint64_t value) {
    Set(key, std::to_string(value));
}

void KeyValues::SetDouble(const std::string& key, double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    Set(key, std::string(text));
}

std::string KeyValues::Get(const std::string& key, const std::string& fallback) const {
    for (const auto& e : entries_) {
        if (e.first == key) {
            return e.second;
        }
    }
    return fallback;
}

std::uint64_t KeyValues::GetU64(const std::string& key, std::uint64_t fallback) const {
    return Has(key) ? std::strtoull(Get(key).c_str(), nullptr, 10) : fallback;
}

double KeyValues::GetDouble(const std::string& key, double fallback) const {
    return Has(key) ? std::strtod(Get(key).c_str(), nullptr) : fallback;
}

bool KeyValues::Has(const std::string& key) const {
    for (const auto& e : entries_) {
        if (e.first == key) {
            return true;
        }
    }
    return false;
}

bool KeyValues::Save(const std::string& path) const {
    // Written to a temporary name and renamed, so the parent never reads half a file.
    const std::string tmp = path + ".part";
    {
        std::ofstream out(tmp);
        if (!out) {
            return false;
        }
        for (const auto& e : entries_) {
            out << e.first << '=' << e.second << '\n';
        }
        if (!out) {
            return false;
        }
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

bool KeyValues::Load(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        const size_t eq = line.find('=');
        if (eq != std::string::npos) {
            Set(line.substr(0, eq), line.substr(eq + 1));
        }
    }
    return true;
}

std::string FormatDouble(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

}  // namespace bench
