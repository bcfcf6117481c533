// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Crc32.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

// Recordings of slot traffic in MCAP files: magic, a header, one channel per slot, one message
// per block (plain, or in zstd-compressed chunks followed by message indexes), then a data-end
// record, a summary (channels again, statistics, chunk indexes), summary offsets, a footer and
// the magic again. Blocks have no schema (schema id 0).
namespace mcap {

// Thrown for a file that cannot be made or used (with the system's reason).
class Error : public std::runtime_error {
public:
    explicit Error(const std::string& what) : std::runtime_error(what) {}
};

// Whether zstd compression was built in.
bool ZstdBuiltIn();

struct Channel {
    std::uint16_t id = 0;
    std::string topic;
    std::string encoding;
    std::map<std::string, std::string> metadata;
};

struct Message {
    std::uint16_t channel = 0;
    std::uint32_t sequence = 0;
    std::uint64_t logTime = 0;      // ns since 1970, UTC
    std::uint64_t publishTime = 0;  // ns since 1970, UTC
    const char* data = nullptr;
    size_t size = 0;
};

// The most a chunk holds before compression: a reader refuses larger ones (a hostile size
// cannot make it allocate more), so a writer never makes one.
constexpr std::uint64_t MaxChunkSize = std::uint64_t(1) << 30;

class Writer {
public:
    struct Options {
        bool zstd = false;           // chunks compressed with zstd; else plain messages
        size_t chunkSize = 1 << 20;  // uncompressed bytes that close a chunk
        // No chunk grows past this: a block whose record would not fit in one goes between the
        // chunks as a plain message (not in the chunk indexes; streaming readers see it).
        std::uint64_t maxChunkSize = MaxChunkSize;
        int zstdLevel = 1;                      // zstd's compression level
        std::uint64_t chunkAgeNs = 1000000000;  // a chunk older than this closes at Flush
        std::string library;                    // written into the header
    };
    // Creates `path`, which must not exist (an existing file is never overwritten).
    Writer(const std::string& path, const Options& options);
    // Without Close the file stays as it is: readable up to its last whole record.
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Channels are written at once, before any message that uses them.
    std::uint16_t AddChannel(const std::string& topic, const std::string& encoding,
                             const std::map<std::string, std::string>& metadata);
    void Add(const Message& message);
    // Hands what is buffered to the system (a chunk only once it is full or old): after Flush
    // a killed process leaves every plain message in the file.
    void Flush(std::uint64_t nowNs);
    // Writes the rest, the summary and the footer, and closes the file.
    void Close();

    const std::string& Path() const { return path_; }
    // Bytes of the file so far, buffered ones included; the open chunk is not among them.
    std::uint64_t Size() const { return written_ + out_.size(); }
    // The open chunk's bytes before compression (0 without compression).
    std::uint64_t OpenChunkSize() const { return chunk_.size(); }
    // Closes the open chunk now, so that Size() counts it.
    void EndChunk() { CloseChunk(); }

private:
    void Record(std::uint8_t opcode, const std::string& content);
    // A message record outside any chunk: its head, then its data.
    void AddPlain(const char* head, size_t headSize, const Message& message);
    void CloseChunk();
    void WriteOut(const char* extra = nullptr, size_t extraSize = 0);

    struct ChunkIndex {
        std::uint64_t start = 0, end = 0, offset = 0, length = 0, indexLength = 0;
        std::uint64_t compressed = 0, uncompressed = 0;
        std::map<std::uint16_t, std::uint64_t> indexOffsets;
    };

    std::string path_;
    Options options_;
    int fd_ = -1;
    std::uint64_t written_ = 0;  // bytes handed to the system
    std::string out_;            // bytes not yet handed over
    std::uint32_t dataCrc_ = 0;  // of everything before the data-end record
    std::vector<Channel> channels_;
    std::map<std::uint16_t, std::uint64_t> counts_;
    std::uint64_t messages_ = 0, firstTime_ = 0, lastTime_ = 0;
    // The open chunk: its records, their message index, its time range.
    std::string chunk_;
    std::map<std::uint16_t, std::vector<std::pair<std::uint64_t, std::uint64_t>>> chunkIndex_;
    std::uint64_t chunkStart_ = 0, chunkEnd_ = 0, chunkOpened_ = 0;
    std::vector<ChunkIndex> chunks_;
    void* zstd_ = nullptr;  // the compression context (ZSTD_CCtx), made for the first chunk
    std::string packed_;    // a chunk's compressed bytes; only grows
};

// What reading a file found.
struct ReadResult {
    std::string library;  // from the header
    std::vector<Channel> channels;
    std::uint64_t messages = 0;
    std::uint64_t chunks = 0;
    bool complete = false;  // data end, summary and footer were read and check out
    bool cutShort = false;  // the file ends inside its data (a killed recorder leaves that)
    std::string problem;    // why reading stopped early: cut short, malformed, or a bad CRC
    std::uint64_t problemOffset = 0;
    bool stopped = false;  // `stop` said so (the rest says only what was read before)
};

// Reads the file's records in order and calls `onMessage` for each message (with its channel);
// `onMessage` returns false to stop. Every length is checked against what the file holds: a
// torn or hostile file ends the reading with `problem` set, never anything worse. A file cut
// short is read up to its last whole record (chunks: its last whole chunk). Without `needData`,
// a message outside a chunk comes with its size and no data (null): its bytes are only checked,
// a piece at a time. Records this reader ignores are never held whole; a message or chunk record
// larger than any the recorder writes is damage. `stop`, when given, is asked before each
// message and each MiB read: true ends the reading with `stopped` set.
ReadResult Read(const std::string& path,
                const std::function<bool(const Message&, const Channel&)>& onMessage,
                bool needData = true, const std::function<bool()>& stop = nullptr);

}  // namespace mcap
