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

class ZmqSender : public Sender {
public:
    explicit ZmqSender(const RunParams& params) : params_(params) {
        context_ = zmq_ctx_new();
        socket_ = zmq_socket(context_, ZMQ_PUB);
        const int hwm = HighWaterMark(params);
        const int one = 1;
        // Closing waits until the blocks still queued have gone out.
        const int linger = 30000;
        Check(zmq_setsockopt(socket_, ZMQ_SNDHWM, &hwm, sizeof hwm), "ZMQ_SNDHWM");
        Check(zmq_setsockopt(socket_, ZMQ_XPUB_NODROP, &one, sizeof one), "ZMQ_XPUB_NODROP");
        Check(zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger), "ZMQ_LINGER");
        Check(zmq_connect(socket_, Endpoint(params).c_str()), "zmq_connect");
    }
    ~ZmqSender() override {
        zmq_close(socket_);
        zmq_ctx_term(context_);
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
            zmq_send(socket_, probe, sizeof probe, ZMQ_DONTWAIT);
            FutexWaitWhile(seen, 0, NowNs() + 1000000ull);
        }
        return true;
    }
    void Send(const char* data, size_t size) override {
        while (zmq_send(socket_, data, size, 0) < 0) {
            if (zmq_errno() != EINTR) {
                throw std::runtime_error(std::string("zmq_send: ") + zmq_strerror(zmq_errno()));
            }
        }
    }

private:
    RunParams params_;
    void* context_;
    void* socket_;
};

class ZmqReceiver : public Receiver {
public:
    explicit ZmqReceiver(const RunParams& params) : params_(params) {
        context_ = zmq_ctx_new();
        socket_ = zmq_socket(context_, ZMQ_SUB);
        const int hwm = HighWaterMark(params);
        const int timeoutMs = 50;
        const int linger = 0;
        Check(zmq_setsockopt(socket_, ZMQ_RCVHWM, &hwm, sizeof hwm), "ZMQ_RCVHWM");
        Check(zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &timeoutMs, sizeof timeoutMs), "ZMQ_RCVTIMEO");
        Check(zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger), "ZMQ_LINGER");
        Check(zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0), "ZMQ_SUBSCRIBE");
        Check(zmq_bind(socket_, Endpoint(params).c_str()), "zmq_bind");
    }
    ~ZmqReceiver() override {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    void Run(BlockSink& sink, Stopper& stop) override {
        zmq_msg_t message;
        zmq_msg_init(&message);
        while (!stop.Stopped()) {
            if (zmq_msg_recv(&message, socket_, 0) < 0) {
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
    void* context_;
    void* socket_;
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
