// SPDX-License-Identifier: Apache-2.0
#include "Mcap.h"

#ifdef SLOT_WITH_ZSTD
#include <zstd.h>
#endif

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

namespace mcap {

namespace {

const char Magic[8] = {'\x89', 'M', 'C', 'A', 'P', '0', '\r', '\n'};

enum Opcode : std::uint8_t {
    OpHeader = 0x01,
    OpFooter = 0x02,
    OpSchema = 0x03,
    OpChannel = 0x04,
    OpMessage = 0x05,
    OpChunk = 0x06,
    OpMessageIndex = 0x07,
    OpChunkIndex = 0x08,
    OpStatistics = 0x0b,
    OpSummaryOffset = 0x0e,
    OpDataEnd = 0x0f,
};

const size_t RecordHead = 9;                 // opcode and 8-byte length
const size_t MessageFields = 2 + 4 + 8 + 8;  // channel, sequence, log and publish time
const size_t FooterRecord = 9 + 20;          // summary start, summary offset start, CRC
// The largest block a recording holds (a pool's block of up to 4 GiB - 1; a slot's is less).
const std::uint64_t MaxMessageData = 0xffffffffu;
// A chunk record: its fields and the compressed records, which zstd makes at most a little
// larger than the 1 GiB of a chunk.
const std::uint64_t MaxChunkRecord = MaxChunkSize + (MaxChunkSize >> 7) + 4096;
// How much of a record that is not kept is read at a time for the data section's CRC.
const size_t CrcPiece = size_t(1) << 20;
// A header or channel record is read whole: none is ever larger than this (a recording's hold a
// few names and numbers).
const std::uint64_t MaxSmallRecord = std::uint64_t(1) << 20;

// Little-endian encoding.
void Put(std::string& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
    }
}
void Put8(std::string& out, std::uint8_t v) {
    Put(out, v, 1);
}
void Put16(std::string& out, std::uint16_t v) {
    Put(out, v, 2);
}
void Put32(std::string& out, std::uint32_t v) {
    Put(out, v, 4);
}
void Put64(std::string& out, std::uint64_t v) {
    Put(out, v, 8);
}
void PutString(std::string& out, const std::string& s) {
    Put32(out, static_cast<std::uint32_t>(s.size()));
    out += s;
}

// Reads fields from a record's content; any read past its end makes it !ok and yields zeros.
class Cursor {
public:
    Cursor(const char* data, size_t size) : p_(data), left_(size) {}
    bool ok() const { return ok_; }
    size_t Left() const { return left_; }
    const char* Here() const { return p_; }
    std::uint64_t Get(int bytes) {
        if (!Take(static_cast<size_t>(bytes))) {
            return 0;
        }
        std::uint64_t value = 0;
        for (int i = bytes - 1; i >= 0; --i) {
            value = (value << 8) | static_cast<unsigned char>(p_[i - bytes]);
        }
        return value;
    }
    std::uint8_t U8() { return static_cast<std::uint8_t>(Get(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Get(2)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Get(4)); }
    std::uint64_t U64() { return Get(8); }
    std::string String() {
        const std::uint32_t size = U32();
        const char* start = p_;
        return Take(size) ? std::string(start, size) : std::string();
    }
    // The next `size` bytes, or nullptr when there are fewer.
    const char* Bytes(std::uint64_t size) {
        const char* start = p_;
        return Take(size) ? start : nullptr;
    }
    std::map<std::string, std::string> StringMap() {
        std::map<std::string, std::string> map;
        const std::uint32_t size = U32();
        const char* start = Bytes(size);
        if (start == nullptr) {
            return map;
        }
        Cursor inner(start, size);
        while (inner.ok() && inner.Left() > 0) {
            std::string key = inner.String();
            std::string value = inner.String();
            if (inner.ok()) {
                map[key] = value;
            }
        }
        ok_ = ok_ && inner.ok();
        return map;
    }

private:
    bool Take(std::uint64_t size) {
        if (!ok_ || size > left_) {
            ok_ = false;
            return false;
        }
        p_ += size;
        left_ -= static_cast<size_t>(size);
        return true;
    }

    const char* p_;
    size_t left_;
    bool ok_ = true;
};

std::string SystemError(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

bool ZstdBuiltIn() {
#ifdef SLOT_WITH_ZSTD
    return true;
#else
    return false;
#endif
}

// ---- writing ----

Writer::Writer(const std::string& path, const Options& options) : path_(path), options_(options) {
#ifndef SLOT_WITH_ZSTD
    if (options_.zstd) {
        throw Error("compression zstd is not built in (this slotctl was built without libzstd)");
    }
#endif
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd_ < 0) {
        throw Error(SystemError("cannot create", path));
    }
    try {
        out_.append(Magic, sizeof(Magic));
        std::string header;
        PutString(header, "");  // profile: none
        PutString(header, options_.library);
        Record(OpHeader, header);
        dataCrc_ = Crc32(0, out_.data(), out_.size());
        WriteOut();
    } catch (...) {
        // No destructor runs for a constructor that throws: the file made here goes again
        // (only while the name still leads to it).
        struct stat made, named;
        const bool ours = ::fstat(fd_, &made) == 0 && ::lstat(path.c_str(), &named) == 0 &&
                          made.st_dev == named.st_dev && made.st_ino == named.st_ino;
        ::close(fd_);
        fd_ = -1;
        if (ours) {
            ::unlink(path.c_str());
        }
        throw;
    }
}

Writer::~Writer() {
#ifdef SLOT_WITH_ZSTD
    ZSTD_freeCCtx(static_cast<ZSTD_CCtx*>(zstd_));
#endif
    if (fd_ >= 0) {
        try {
            WriteOut();
        } catch (const Error&) {
        }
        ::close(fd_);
    }
}

void Writer::Record(std::uint8_t opcode, const std::string& content) {
    Put8(out_, opcode);
    Put64(out_, content.size());
    out_ += content;
}

void Writer::WriteOut(const char* extra, size_t extraSize) {
    // What is buffered, then `extra`, each byte once, whatever the system takes per call.
    size_t done = 0;
    const size_t total = out_.size() + extraSize;
    while (done < total) {
        iovec parts[2];
        int count = 0;
        if (done < out_.size()) {
            parts[count++] = iovec{&out_[done], out_.size() - done};
        }
        const size_t extraDone = done > out_.size() ? done - out_.size() : 0;
        if (extraSize > extraDone) {
            parts[count++] = iovec{const_cast<char*>(extra) + extraDone, extraSize - extraDone};
        }
        const ssize_t n = ::writev(fd_, parts, count);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // The file is unusable from here on; nothing more is written to it.
            written_ += done;
            out_.clear();
            throw Error(SystemError("cannot write", path_));
        }
        done += static_cast<size_t>(n);
    }
    written_ += done;
    out_.clear();
}

std::uint16_t Writer::AddChannel(const std::string& topic, const std::string& encoding,
                                 const std::map<std::string, std::string>& metadata) {
    Channel channel;
    channel.id = static_cast<std::uint16_t>(channels_.size() + 1);
    channel.topic = topic;
    channel.encoding = encoding;
    channel.metadata = metadata;
    channels_.push_back(channel);
    std::string content;
    Put16(content, channel.id);
    Put16(content, 0);  // no schema
    PutString(content, topic);
    PutString(content, encoding);
    std::string map;
    for (const auto& item : metadata) {
        PutString(map, item.first);
        PutString(map, item.second);
    }
    PutString(content, map);
    const size_t before = out_.size();
    Record(OpChannel, content);
    dataCrc_ = Crc32(dataCrc_, out_.data() + before, out_.size() - before);
    return channel.id;
}

void Writer::Add(const Message& message) {
    // The record's head, made in place: no allocation per message.
    char head[RecordHead + MessageFields];
    char* h = head;
    auto put = [&h](std::uint64_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            *h++ = static_cast<char>((value >> (8 * i)) & 0xff);
        }
    };
    put(OpMessage, 1);
    put(MessageFields + message.size, 8);
    put(message.channel, 2);
    put(message.sequence, 4);
    put(message.logTime, 8);
    put(message.publishTime, 8);
    if (messages_ == 0 || message.logTime < firstTime_) {
        firstTime_ = message.logTime;
    }
    lastTime_ = std::max(lastTime_, message.logTime);
    ++messages_;
    ++counts_[message.channel];
    if (!options_.zstd) {
        AddPlain(head, sizeof(head), message);
        return;
    }
    // The open chunk closes before a record that would take it past its limit; a record that
    // fits in no chunk goes between them.
    const std::uint64_t recordSize = sizeof(head) + message.size;
    if (!chunk_.empty() && chunk_.size() + recordSize > options_.maxChunkSize) {
        CloseChunk();
    }
    if (recordSize > options_.maxChunkSize) {
        AddPlain(head, sizeof(head), message);
        return;
    }
    if (chunk_.empty()) {
        chunkStart_ = message.logTime;
        chunkEnd_ = message.logTime;
        chunkOpened_ = message.logTime;
    }
    chunkStart_ = std::min(chunkStart_, message.logTime);
    chunkEnd_ = std::max(chunkEnd_, message.logTime);
    chunkIndex_[message.channel].emplace_back(message.logTime, chunk_.size());
    chunk_.append(head, sizeof(head));
    chunk_.append(message.data, message.size);
    if (chunk_.size() >= options_.chunkSize) {
        CloseChunk();
        WriteOut();
    }
}

void Writer::AddPlain(const char* head, size_t headSize, const Message& message) {
    dataCrc_ = Crc32(dataCrc_, head, headSize);
    dataCrc_ = Crc32(dataCrc_, message.data, message.size);
    out_.append(head, headSize);
    if (message.size >= 16384) {
        WriteOut(message.data, message.size);  // a large block goes out without a copy
    } else {
        out_.append(message.data, message.size);
        if (out_.size() >= (1u << 20)) {
            WriteOut();
        }
    }
}

void Writer::CloseChunk() {
    if (chunk_.empty()) {
        return;
    }
#ifdef SLOT_WITH_ZSTD
    // One compressor and one output buffer for every chunk of the file.
    if (zstd_ == nullptr) {
        zstd_ = ZSTD_createCCtx();
        if (zstd_ == nullptr) {
            throw Error("cannot make a zstd compressor");
        }
    }
    const size_t bound = ZSTD_compressBound(chunk_.size());
    if (packed_.size() < bound) {
        packed_.resize(bound);
    }
    const size_t packedSize =
        ZSTD_compressCCtx(static_cast<ZSTD_CCtx*>(zstd_), &packed_[0], packed_.size(),
                          chunk_.data(), chunk_.size(), options_.zstdLevel);
    if (ZSTD_isError(packedSize)) {
        throw Error(std::string("cannot compress a chunk: ") + ZSTD_getErrorName(packedSize));
    }
    const char* packed = packed_.data();
#else
    const char* packed = chunk_.data();
    const size_t packedSize = chunk_.size();
#endif
    ChunkIndex index;
    index.start = chunkStart_;
    index.end = chunkEnd_;
    index.offset = Size();
    index.compressed = packedSize;
    index.uncompressed = chunk_.size();
    std::string content;
    Put64(content, chunkStart_);
    Put64(content, chunkEnd_);
    Put64(content, chunk_.size());
    Put32(content, Crc32(0, chunk_.data(), chunk_.size()));
    PutString(content, "zstd");
    Put64(content, packedSize);
    const size_t before = out_.size();
    Put8(out_, OpChunk);
    Put64(out_, content.size() + packedSize);
    out_ += content;
    dataCrc_ = Crc32(dataCrc_, out_.data() + before, out_.size() - before);
    dataCrc_ = Crc32(dataCrc_, packed, packedSize);
    index.length = out_.size() - before + packedSize;
    // The chunk's head and its compressed records in one write, without joining them.
    WriteOut(packed, packedSize);
    const std::uint64_t indexesAt = Size();
    for (const auto& channel : chunkIndex_) {
        index.indexOffsets[channel.first] = Size();
        std::string entries;
        for (const auto& entry : channel.second) {
            Put64(entries, entry.first);
            Put64(entries, entry.second);
        }
        std::string record;
        Put16(record, channel.first);
        PutString(record, entries);
        Record(OpMessageIndex, record);
    }
    index.indexLength = Size() - indexesAt;
    dataCrc_ = Crc32(dataCrc_, out_.data(), out_.size());
    chunks_.push_back(index);
    chunk_.clear();
    chunkIndex_.clear();
}

void Writer::Flush(std::uint64_t nowNs) {
    if (!chunk_.empty() && nowNs - chunkOpened_ >= options_.chunkAgeNs) {
        CloseChunk();
    }
    WriteOut();
}

void Writer::Close() {
    if (fd_ < 0) {
        return;
    }
    CloseChunk();
    std::string dataEnd;
    Put32(dataEnd, dataCrc_);
    Record(OpDataEnd, dataEnd);
    WriteOut();
    // From here on out_ holds the summary, the summary offsets and the footer, whose CRC
    // covers all of them up to the CRC itself.
    const std::uint64_t summaryStart = Size();
    struct Group {
        std::uint8_t opcode;
        std::uint64_t start, length;
    };
    std::vector<Group> groups;
    auto group = [&](std::uint8_t opcode, std::uint64_t start) {
        if (Size() > start) {
            groups.push_back(Group{opcode, start, Size() - start});
        }
    };
    std::uint64_t start = Size();
    for (const Channel& channel : channels_) {
        std::string content;
        Put16(content, channel.id);
        Put16(content, 0);
        PutString(content, channel.topic);
        PutString(content, channel.encoding);
        std::string map;
        for (const auto& item : channel.metadata) {
            PutString(map, item.first);
            PutString(map, item.second);
        }
        PutString(content, map);
        Record(OpChannel, content);
    }
    group(OpChannel, start);
    start = Size();
    std::string stats;
    Put64(stats, messages_);
    Put16(stats, 0);  // schemas
    Put32(stats, static_cast<std::uint32_t>(channels_.size()));
    Put32(stats, 0);  // attachments
    Put32(stats, 0);  // metadata
    Put32(stats, static_cast<std::uint32_t>(chunks_.size()));
    Put64(stats, firstTime_);
    Put64(stats, lastTime_);
    std::string counts;
    for (const auto& count : counts_) {
        Put16(counts, count.first);
        Put64(counts, count.second);
    }
    PutString(stats, counts);
    Record(OpStatistics, stats);
    group(OpStatistics, start);
    start = Size();
    for (const ChunkIndex& chunk : chunks_) {
        std::string content;
        Put64(content, chunk.start);
        Put64(content, chunk.end);
        Put64(content, chunk.offset);
        Put64(content, chunk.length);
        std::string offsets;
        for (const auto& offset : chunk.indexOffsets) {
            Put16(offsets, offset.first);
            Put64(offsets, offset.second);
        }
        PutString(content, offsets);
        Put64(content, chunk.indexLength);
        PutString(content, "zstd");
        Put64(content, chunk.compressed);
        Put64(content, chunk.uncompressed);
        Record(OpChunkIndex, content);
    }
    group(OpChunkIndex, start);
    const std::uint64_t summaryOffsetStart = Size();
    for (const Group& g : groups) {
        std::string content;
        Put8(content, g.opcode);
        Put64(content, g.start);
        Put64(content, g.length);
        Record(OpSummaryOffset, content);
    }
    Put8(out_, OpFooter);
    Put64(out_, 20);
    Put64(out_, summaryStart);
    Put64(out_, summaryOffsetStart);
    Put32(out_, Crc32(0, out_.data(), out_.size()));
    out_.append(Magic, sizeof(Magic));
    WriteOut();
    const int fd = fd_;
    fd_ = -1;
    // On the disk before the recording says it is complete: a power cut after it keeps the file.
    const bool synced = ::fdatasync(fd) == 0 || errno == EINVAL;  // EINVAL: cannot be synced
    if (::close(fd) != 0 || !synced) {
        throw Error(SystemError("cannot write", path_));
    }
}

// ---- reading ----

namespace {

// Thrown inside the reading when its stop check says so; Read turns it into `stopped`.
struct Stopped {};

class File {
public:
    File(const std::string& path, const std::function<bool()>& stop) : path_(path), stop_(stop) {
        // O_NONBLOCK: a FIFO in the file's place is refused below instead of waited on (it
        // changes nothing for a regular file).
        fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) {
            throw Error(SystemError("cannot open", path));
        }
        struct stat st {};
        if (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd_);
            throw Error("cannot read " + path + ": not a regular file");
        }
        size_ = static_cast<std::uint64_t>(st.st_size);
    }
    ~File() { ::close(fd_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::uint64_t Size() const { return size_; }
    // `size` bytes at `offset`, which the caller has checked against Size().
    std::string At(std::uint64_t offset, std::uint64_t size) const {
        std::string bytes(static_cast<size_t>(size), '\0');
        ReadInto(&bytes[0], offset, bytes.size());
        return bytes;
    }

    // Fills `into` with the `size` bytes at `offset`, a piece at a time, asking the stop check
    // before each piece (throws Stopped).
    void ReadInto(char* into, std::uint64_t offset, size_t size) const {
        size_t done = 0;
        while (done < size) {
            if (stop_ && stop_()) {
                throw Stopped();
            }
            const ssize_t n = ::pread(fd_, into + done, std::min(size - done, CrcPiece),
                                      static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                throw Error(SystemError("cannot read", path_));
            }
            if (n == 0) {
                // No errno to report: the file is shorter than when it was opened.
                throw Error("cannot read " + path_ + ": it was shortened while being read (byte " +
                            std::to_string(offset + done) + " is gone)");
            }
            done += static_cast<size_t>(n);
        }
    }

    // Hands the `size` bytes at `offset` to `use` a piece at a time.
    template <class Use>
    void Pieces(std::uint64_t offset, std::uint64_t size, Use use) const {
        // One buffer for all pieces: memory stays at one piece, however long the record.
        std::vector<char> buffer(static_cast<size_t>(std::min<std::uint64_t>(size, CrcPiece)));
        while (size > 0) {
            const size_t piece = static_cast<size_t>(std::min<std::uint64_t>(size, CrcPiece));
            ReadInto(buffer.data(), offset, piece);
            use(buffer.data(), piece);
            offset += piece;
            size -= piece;
        }
    }

    // `crc` carried over the `size` bytes at `offset`, read a piece at a time.
    std::uint32_t Crc(std::uint32_t crc, std::uint64_t offset, std::uint64_t size) const {
        Pieces(offset, size, [&](const char* piece, size_t n) { crc = Crc32(crc, piece, n); });
        return crc;
    }

private:
    std::string path_;
    const std::function<bool()>& stop_;
    int fd_ = -1;
    std::uint64_t size_ = 0;
};

// Unpacks a zstd chunk of `expected` bytes; false, with the reason, on any mismatch. The
// output grows with what really comes out, so a false size allocates nothing, and never beyond
// `expected` (a true size of up to 1 GiB may come from a few KiB: no doubling past it).
bool Unzstd(const char* data, size_t size, std::uint64_t expected, std::string& out,
            std::string& problem) {
#ifdef SLOT_WITH_ZSTD
    ZSTD_DStream* stream = ZSTD_createDStream();
    if (stream == nullptr) {
        problem = "cannot make a zstd decompressor";
        return false;
    }
    ZSTD_inBuffer in{data, size, 0};
    std::string block(ZSTD_DStreamOutSize(), '\0');
    size_t last = 1;
    bool ok = true;
    auto append = [&](size_t n) {
        if (out.size() + n > out.capacity()) {
            out.reserve(static_cast<size_t>(std::min<std::uint64_t>(
                expected, std::max<std::uint64_t>(2 * out.capacity(), out.size() + n))));
        }
        out.append(block.data(), n);
    };
    try {
        // Until the input is used up and the decompressor holds no more output.
        while (ok && (in.pos < in.size || last != 0)) {
            const bool draining = in.pos >= in.size;
            ZSTD_outBuffer o{&block[0], block.size(), 0};
            last = ZSTD_decompressStream(stream, &o, &in);
            if (draining && (ZSTD_isError(last) || o.pos == 0)) {
                problem = "a chunk's compressed data ends early";
            } else if (ZSTD_isError(last)) {
                problem = std::string("a chunk does not unpack: ") + ZSTD_getErrorName(last);
            } else if (out.size() + o.pos > expected) {
                problem = "a chunk unpacks to more than its declared size";
            } else {
                append(o.pos);
                continue;
            }
            ok = false;
        }
    } catch (const std::bad_alloc&) {
        problem = "a chunk of " + std::to_string(expected) + " bytes does not fit in memory";
        ok = false;
    }
    ZSTD_freeDStream(stream);
    if (ok && out.size() != expected) {
        problem = "a chunk unpacks to " + std::to_string(out.size()) + " bytes, not the " +
                  std::to_string(expected) + " it declares";
        ok = false;
    }
    return ok;
#else
    (void)data;
    (void)size;
    (void)expected;
    (void)out;
    problem = "the file has zstd chunks, and compression zstd is not built in";
    return false;
#endif
}

class Parser {
public:
    Parser(ReadResult& result, const std::function<bool(const Message&, const Channel&)>& cb)
        : result_(result), onMessage_(cb) {}

    // Handles one record of the data section (or of a chunk). False to stop: the caller's
    // wish, or a problem (then result_.problem is set).
    bool Handle(std::uint8_t opcode, const char* data, size_t size, bool inChunk) {
        Cursor c(data, size);
        switch (opcode) {
            case OpHeader: {
                c.String();  // profile
                result_.library = c.String();
                return Check(c, "header");
            }
            case OpChannel: {
                Channel channel;
                channel.id = c.U16();
                c.U16();  // schema
                channel.topic = c.String();
                channel.encoding = c.String();
                channel.metadata = c.StringMap();
                if (!Check(c, "channel")) {
                    return false;
                }
                // A repeated id keeps its first record.
                if (channelAt_.emplace(channel.id, result_.channels.size()).second) {
                    result_.channels.push_back(channel);
                }
                return true;
            }
            case OpMessage: {
                Message message;
                message.channel = c.U16();
                message.sequence = c.U32();
                message.logTime = c.U64();
                message.publishTime = c.U64();
                if (!Check(c, "message")) {
                    return false;
                }
                message.data = unreadData_ == 0 ? c.Here() : nullptr;
                message.size = static_cast<size_t>(c.Left() + unreadData_);
                const auto at = channelAt_.find(message.channel);
                if (at == channelAt_.end()) {
                    return Fail("a message of channel " + std::to_string(message.channel) +
                                " comes before that channel");
                }
                ++result_.messages;
                return onMessage_ ? onMessage_(message, result_.channels[at->second]) : true;
            }
            case OpChunk: {
                if (inChunk) {
                    return Fail("a chunk inside a chunk");
                }
                c.U64();
                c.U64();
                const std::uint64_t uncompressed = c.U64();
                const std::uint32_t crc = c.U32();
                const std::string compression = c.String();
                const std::uint64_t recordsSize = c.U64();
                const char* records = c.Bytes(recordsSize);
                if (!Check(c, "chunk") || records == nullptr) {
                    return Fail("a chunk's records run past its end");
                }
                if (uncompressed > MaxChunkSize) {
                    return Fail("a chunk declares " + std::to_string(uncompressed) +
                                " bytes, more than 1 GiB");
                }
                std::string unpacked;
                const char* plain = records;
                size_t plainSize = static_cast<size_t>(recordsSize);
                if (compression == "zstd") {
                    std::string problem;
                    if (!Unzstd(records, plainSize, uncompressed, unpacked, problem)) {
                        return Fail(problem);
                    }
                    plain = unpacked.data();
                    plainSize = unpacked.size();
                } else if (!compression.empty()) {
                    return Fail("chunks compressed with '" + compression +
                                "' cannot be read (zstd and uncompressed can)");
                } else if (recordsSize != uncompressed) {
                    return Fail("an uncompressed chunk's size does not match its records");
                }
                if (crc != 0 && Crc32(0, plain, plainSize) != crc) {
                    return Fail("a chunk's CRC does not match its contents");
                }
                ++result_.chunks;
                Cursor inner(plain, plainSize);
                while (inner.Left() > 0) {
                    const std::uint8_t op = inner.U8();
                    const std::uint64_t length = inner.U64();
                    const char* content = inner.Bytes(length);
                    if (!inner.ok() || content == nullptr) {
                        return Fail("a record inside a chunk runs past the chunk's end");
                    }
                    if (!Handle(op, content, static_cast<size_t>(length), true)) {
                        return false;
                    }
                }
                return true;
            }
            default:
                return true;  // indexes, attachments, metadata, records this reader ignores
        }
    }

    bool Fail(const std::string& problem) {
        result_.problem = problem;
        return false;
    }

    // The bytes of the next message's data that were not read (its data is then null).
    void SetUnreadData(std::uint64_t size) { unreadData_ = size; }

private:
    bool Check(const Cursor& c, const char* what) {
        return c.ok() || Fail(std::string("a ") + what + " record is shorter than its fields");
    }

    ReadResult& result_;
    const std::function<bool(const Message&, const Channel&)>& onMessage_;
    // Where each channel id is in result_.channels: a file may hold 65535 channels, and every
    // message looks its channel up.
    std::map<std::uint16_t, size_t> channelAt_;
    std::uint64_t unreadData_ = 0;
};

// Checks what follows the data-end record: summary records within bounds, footer, CRC, magic.
std::string CheckTail(const File& file, std::uint64_t summaryFrom) {
    const std::uint64_t size = file.Size();
    if (size < summaryFrom + FooterRecord + sizeof(Magic)) {
        return "the file ends before its footer";
    }
    const std::uint64_t footerAt = size - FooterRecord - sizeof(Magic);
    const std::string tail = file.At(footerAt, FooterRecord + sizeof(Magic));
    if (std::memcmp(tail.data() + FooterRecord, Magic, sizeof(Magic)) != 0) {
        return "the file does not end with the MCAP magic";
    }
    Cursor footer(tail.data(), FooterRecord);
    const std::uint8_t opcode = footer.U8();
    const std::uint64_t length = footer.U64();
    const std::uint64_t summaryStart = footer.U64();
    const std::uint64_t summaryOffsetStart = footer.U64();
    const std::uint32_t crc = footer.U32();
    if (opcode != OpFooter || length != 20) {
        return "the footer is malformed";
    }
    if (summaryStart == 0) {
        return "";
    }
    if (summaryStart != summaryFrom ||
        (summaryOffsetStart != 0 &&
         (summaryOffsetStart < summaryStart || summaryOffsetStart > footerAt))) {
        return "the footer's summary offsets point outside the summary";
    }
    // Read a piece at a time, however long the summary claims to be: each record's head is
    // looked at, its content only skipped (and taken into the CRC).
    std::uint32_t actual = 0;
    char head[RecordHead];
    size_t headHave = 0;
    std::uint64_t skip = 0;  // content of the current record still ahead
    file.Pieces(summaryStart, footerAt - summaryStart, [&](const char* p, size_t n) {
        actual = Crc32(actual, p, n);
        while (n > 0) {
            size_t take = 0;
            if (skip > 0) {
                take = static_cast<size_t>(std::min<std::uint64_t>(skip, n));
                skip -= take;
            } else {
                take = std::min(RecordHead - headHave, n);
                std::memcpy(head + headHave, p, take);
                headHave += take;
                if (headHave == RecordHead) {
                    skip = Cursor(head + 1, 8).U64();
                    headHave = 0;
                }
            }
            p += take;
            n -= take;
        }
    });
    if (headHave != 0 || skip != 0) {
        return "a summary record runs past the footer";
    }
    if (crc != 0) {
        actual = Crc32(actual, tail.data(), FooterRecord - 4);
        if (actual != crc) {
            return "the summary's CRC does not match";
        }
    }
    return "";
}

void ReadAll(const File& file, ReadResult& result,
             const std::function<bool(const Message&, const Channel&)>& onMessage, bool needData) {
    Parser parser(result, onMessage);
    const std::uint64_t size = file.Size();
    if (size < sizeof(Magic) || std::memcmp(file.At(0, sizeof(Magic)).data(), Magic, 8) != 0) {
        result.problem = "not an MCAP file (it does not start with the MCAP magic)";
        return;
    }
    std::uint32_t crc = Crc32(0, Magic, sizeof(Magic));
    std::uint64_t offset = sizeof(Magic);
    bool first = true;
    for (;;) {
        result.problemOffset = offset;
        if (size - offset < RecordHead) {
            result.cutShort = true;
            result.problem = offset == size ? "the file ends without its summary"
                                            : "the file ends inside a record";
            return;
        }
        const std::string head = file.At(offset, RecordHead);
        Cursor c(head.data(), head.size());
        const std::uint8_t opcode = c.U8();
        const std::uint64_t length = c.U64();
        if (first && opcode != OpHeader) {
            result.problem = "the file does not begin with a header record";
            return;
        }
        first = false;
        if (length > size - offset - RecordHead) {
            result.cutShort = true;
            result.problem =
                "the file ends inside a record of " + std::to_string(length) + " bytes";
            return;
        }
        // No record of these kinds is ever this large, whatever the build.
        if (opcode == OpMessage && length > MessageFields + MaxMessageData) {
            result.problem = "a message record of " + std::to_string(length) +
                             " bytes, more than the largest block a recording holds (" +
                             std::to_string(MaxMessageData) + " bytes)";
            return;
        }
        if (opcode == OpChunk && length > MaxChunkRecord) {
            result.problem = "a chunk record of " + std::to_string(length) +
                             " bytes, more than a chunk of 1 GiB takes";
            return;
        }
        if ((opcode == OpHeader || opcode == OpChannel) && length > MaxSmallRecord) {
            result.problem = std::string("a ") + (opcode == OpHeader ? "header" : "channel") +
                             " record of " + std::to_string(length) + " bytes, more than " +
                             std::to_string(MaxSmallRecord) + " bytes";
            return;
        }
        // Within the file, but more than a 32-bit build can address.
        if (length > std::uint64_t(SIZE_MAX / 2)) {
            result.problem =
                "a record of " + std::to_string(length) + " bytes, more than this build can hold";
            return;
        }
        if (opcode == OpDataEnd) {
            // Only its CRC is read: whatever else the record claims to hold is skipped.
            const std::string content =
                file.At(offset + RecordHead, std::min<std::uint64_t>(length, 4));
            Cursor end(content.data(), content.size());
            const std::uint32_t declared = end.U32();
            if (!end.ok()) {
                result.problem = "the data-end record is shorter than its fields";
                return;
            }
            if (declared != 0 && declared != crc) {
                result.problem = "the data section's CRC does not match";
                return;
            }
            result.problem = CheckTail(file, offset + RecordHead + length);
            result.complete = result.problem.empty();
            // A file torn inside its summary (the recorder killed while closing it) lacks the
            // closing magic: every block was read, and it is cut short, not damaged.
            result.cutShort = !result.complete &&
                              (size < sizeof(Magic) ||
                               std::memcmp(file.At(size - sizeof(Magic), sizeof(Magic)).data(),
                                           Magic, sizeof(Magic)) != 0);
            result.problemOffset = offset;
            return;
        }
        if (opcode == OpFooter) {
            result.problem = "a footer without a data-end record";
            return;
        }
        // A record is held whole only when it is read: a hostile file's apparent size never
        // becomes memory.
        crc = Crc32(crc, head.data(), head.size());
        const bool kept = opcode == OpHeader || opcode == OpChannel || opcode == OpChunk ||
                          (opcode == OpMessage && (needData || length < MessageFields));
        bool go = true;
        if (kept) {
            const std::string content = file.At(offset + RecordHead, length);
            crc = Crc32(crc, content.data(), content.size());
            go = parser.Handle(opcode, content.data(), content.size(), false);
        } else if (opcode == OpMessage) {
            // The fields alone; the data counts towards the CRC, and its size is passed on.
            const std::string fields = file.At(offset + RecordHead, MessageFields);
            crc = Crc32(crc, fields.data(), fields.size());
            crc = file.Crc(crc, offset + RecordHead + MessageFields, length - MessageFields);
            parser.SetUnreadData(length - MessageFields);
            go = parser.Handle(opcode, fields.data(), fields.size(), false);
            parser.SetUnreadData(0);
        } else {
            crc = file.Crc(crc, offset + RecordHead, length);  // a record this reader ignores
        }
        if (!go) {
            // Stopped by the caller: no problem.
            return;
        }
        offset += RecordHead + length;
    }
}

}  // namespace

ReadResult Read(const std::string& path,
                const std::function<bool(const Message&, const Channel&)>& onMessage, bool needData,
                const std::function<bool()>& stop) {
    const File file(path, stop);
    ReadResult result;
    // A stop says so before each message, too: the caller's callback need not look.
    const std::function<bool(const Message&, const Channel&)> onEach = [&](const Message& message,
                                                                           const Channel& channel) {
        if (stop && stop()) {
            result.stopped = true;
            return false;
        }
        return onMessage ? onMessage(message, channel) : true;
    };
    try {
        ReadAll(file, result, onEach, needData);
    } catch (const Stopped&) {
        result.stopped = true;
    }
    return result;
}

}  // namespace mcap
