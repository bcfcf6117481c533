// SPDX-License-Identifier: Apache-2.0
// ZeroMQ ipc:// PUB/SUB peer. The subscriber binds an ipc endpoint in the run's private
// directory, the publisher connects. PUB drops messages at its high-water mark; with
// ZMQ_XPUB_NODROP it blocks instead, so that throughput runs lose nothing.
#ifdef SLOTBENCH_HAVE_ZMQ

#include "Transport.h"

#include <zmq.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace bench {

namespace {

std::string Endpoint(const RunParams& params) {
    return "ipc://" + params.tmpDir + "/" + params.name + ".zmq";
}

void Check(int rc, const char* what) {
    if (rc != 0) {
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    }
}

int HighWaterMark(const RunParams& params) {
    return static_cast<int>(params.depth);
}

// A context with its one socket; both are closed together.
class ZmqSocket {
public:
    explicit ZmqSocket(int type) : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {}
    ~ZmqSocket() {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    ZmqSocket(const ZmqSocket&) = delete;
    ZmqSocket& operator=(const ZmqSocket&) = delete;

    void* Get() const { return socket_; }
    void SetInt(int option, int value, const char* what) {
        Check(zmq_setsockopt(socket_, option, &value, sizeof value), what);
    }

private:
    void* context_;
    void* socket_;
};

class ZmqSender : public Sender {
public:
    explicit ZmqSender(const RunParams& params) : params_(params), socket_(ZMQ_PUB) {
        socket_.SetInt(ZMQ_SNDHWM, HighWaterMark(params), "ZMQ_SNDHWM");
        socket_.SetInt(ZMQ_XPUB_NODROP, 1, "ZMQ_XPUB_NODROP");
        // Closing waits until the blocks still queued have gone out.
        socket_.SetInt(ZMQ_LINGER, 30000, "ZMQ_LINGER");
        Check(zmq_connect(socket_.Get(), Endpoint(params).c_str()), "zmq_connect");
    }
    bool Warmup(std::uint64_t deadlineNs) override {
        // The subscription travels to the publisher asynchronously ("slow joiner"): send
        // probes until the reader reports one.
        std::uint32_t* seen = &params_.control->reserved[kProbeSeenWord];
        const std::uint32_t probe[8] = {kProbeMagic, 0, 0, 0, 0, 0, 0, 0};
        while (__atomic_load_n(seen, __ATOMIC_ACQUIRE) == 0) {
            if (NowNs() >= deadlineNs) {
                return false;
            }
            zmq_send(socket_.Get(), probe, sizeof probe, ZMQ_DONTWAIT);
            FutexWaitWhile(seen, 0, NowNs() + 1000000ull);
        }
        return true;
    }
    void Send(const char* data, size_t size) override {
        while (zmq_send(socket_.Get(), data, size, 0) < 0) {
            if (zmq_errno() != EINTR) {
                throw std::runtime_error(std::string("zmq_send: ") + zmq_strerror(zmq_errno()));
            }
        }
    }

private:
    RunParams params_;
    ZmqSocket socket_;
};

class ZmqReceiver : public Receiver {
public:
    explicit ZmqReceiver(const RunParams& params) : params_(params), socket_(ZMQ_SUB) {
        socket_.SetInt(ZMQ_RCVHWM, HighWaterMark(params), "ZMQ_RCVHWM");
        socket_.SetInt(ZMQ_RCVTIMEO, 50, "ZMQ_RCVTIMEO");  // ms
        socket_.SetInt(ZMQ_LINGER, 0, "ZMQ_LINGER");
        Check(zmq_setsockopt(socket_.Get(), ZMQ_SUBSCRIBE, "", 0), "ZMQ_SUBSCRIBE");
        Check(zmq_bind(socket_.Get(), Endpoint(params).c_str()), "zmq_bind");
    }
    void Run(BlockSink& sink, Stopper& stop) override {
        zmq_msg_t message;
        zmq_msg_init(&message);
        while (!stop.Stopped()) {
            if (zmq_msg_recv(&message, socket_.Get(), 0) < 0) {
                continue;  // timeout or interruption: look at the stopper again
            }
            const char* data = static_cast<const char*>(zmq_msg_data(&message));
            const size_t size = zmq_msg_size(&message);
            std::uint32_t first = 0;
            if (size >= sizeof first) {
                std::memcpy(&first, data, sizeof first);
            }
            if (first == kProbeMagic) {
                std::uint32_t* seen = &params_.control->reserved[kProbeSeenWord];
                __atomic_store_n(seen, 1u, __ATOMIC_RELEASE);
                FutexWakeAll(seen);
                continue;
            }
            sink.OnBlock(data, size);
        }
        zmq_msg_close(&message);
    }

private:
    RunParams params_;
    ZmqSocket socket_;
};

}  // namespace

std::unique_ptr<Sender> MakeZmqSender(const RunParams& params) {
    return std::unique_ptr<Sender>(new ZmqSender(params));
}

std::unique_ptr<Receiver> MakeZmqReceiver(const RunParams& params) {
    return std::unique_ptr<Receiver>(new ZmqReceiver(params));
}

std::string ZmqVersion() {
    int major = 0, minor = 0, patch = 0;
    zmq_version(&major, &minor, &patch);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

}  // namespace bench

#endif  // SLOTBENCH_HAVE_ZMQ
