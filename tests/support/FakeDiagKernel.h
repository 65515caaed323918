// A scripted stand-in for the kernel's NETLINK_SOCK_DIAG side, behind the
// SockDiag socket seam. It records every request, answers dump requests from a
// socket table (or a test's own hook) and acknowledges destroy requests; replies
// are datagrams queued per descriptor, read one per read() like netlink's.
// Header-only and free of test-framework code, so the fuzz target can use it.
#pragma once

#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "sockdiag/SocketOps.h"

namespace vord {
namespace test {

class FakeDiagKernel : public android::net::SocketOps {
  public:
    using Bytes = std::vector<uint8_t>;

    struct Request {
        int fd;
        Bytes bytes;
        uint16_t type() const { return bytes.size() >= 16 ? get<uint16_t>(4) : 0; }
        uint8_t family() const { return bytes.size() > 16 ? bytes[16] : 0; }
        uint8_t protocol() const { return bytes.size() > 17 ? bytes[17] : 0; }
        template <typename T>
        T get(size_t offset) const {
            T v;
            memcpy(&v, bytes.data() + offset, sizeof(v));
            return v;
        }
    };
    struct Entry {
        uint8_t protocol;
        inet_diag_msg msg;
        Bytes attrs;  // route attributes after the inet_diag_msg
    };

    // --- builders of kernel messages ---
    static Bytes message(uint16_t type, const Bytes& body, uint32_t len = 0) {
        Bytes out(16);
        uint32_t l = len ? len : static_cast<uint32_t>(16 + body.size());
        memcpy(out.data(), &l, 4);
        memcpy(out.data() + 4, &type, 2);
        out.insert(out.end(), body.begin(), body.end());
        while (out.size() % 4) out.push_back(0);
        return out;
    }
    static Bytes done() { return message(NLMSG_DONE, Bytes(4, 0)); }
    static Bytes error(int32_t err, size_t echoed = 16) {
        Bytes body(4 + echoed, 0);
        memcpy(body.data(), &err, 4);
        return message(NLMSG_ERROR, body);
    }
    static Bytes attr(uint16_t type, const Bytes& payload, uint16_t len = 0) {
        Bytes out(4);
        uint16_t l = len ? len : static_cast<uint16_t>(4 + payload.size());
        memcpy(out.data(), &l, 2);
        memcpy(out.data() + 2, &type, 2);
        out.insert(out.end(), payload.begin(), payload.end());
        while (out.size() % 4) out.push_back(0);
        return out;
    }
    static Bytes entry(const inet_diag_msg& msg, const Bytes& attrs = {}) {
        Bytes body(sizeof(msg));
        memcpy(body.data(), &msg, sizeof(msg));
        body.insert(body.end(), attrs.begin(), attrs.end());
        return message(SOCK_DIAG_BY_FAMILY, body);
    }
    static Bytes concat(std::initializer_list<Bytes> parts) {
        Bytes out;
        for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
        return out;
    }

    // --- behaviour ---
    std::vector<Entry> table;       // answers dump requests by family and protocol
    size_t entriesPerDatagram = 2;  // dump replies span several reads
    int32_t destroyError = 0;       // acknowledgement of each SOCK_DESTROY
    std::map<uint8_t, int32_t> dumpError;  // protocol -> error acknowledgement of its dumps
    int failConnectCall = -1;  // index of the connect() call that fails
    // Called for each request before the default answer; returns true when it
    // answered (queued the replies) itself.
    std::function<bool(const Request&)> onRequest;

    std::vector<Request> requests;
    std::vector<int> closed;
    int socketCalls = 0, connectCalls = 0;
    std::map<int, std::deque<Bytes>> queues;
    // Where the last read put its data, for bounds checks.
    const uint8_t* lastReadBuf = nullptr;
    size_t lastReadLen = 0;

    void queue(int fd, Bytes datagram) { queues[fd].push_back(std::move(datagram)); }

    int socket(int, int, int) override {
        ++socketCalls;
        return nextFd_++;
    }
    int connect(int, const sockaddr*, socklen_t) override {
        if (connectCalls++ == failConnectCall) return fail(ECONNREFUSED);
        return 0;
    }
    ssize_t writev(int fd, const iovec* iov, int iovcnt) override {
        Bytes bytes;
        for (int i = 0; i < iovcnt; ++i) {
            const uint8_t* p = static_cast<const uint8_t*>(iov[i].iov_base);
            bytes.insert(bytes.end(), p, p + iov[i].iov_len);
        }
        return handle(fd, std::move(bytes));
    }
    ssize_t write(int fd, const void* buf, size_t len) override {
        const uint8_t* p = static_cast<const uint8_t*>(buf);
        return handle(fd, Bytes(p, p + len));
    }
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags, sockaddr*, socklen_t*) override {
        return queues[fd].empty() ? fail(EAGAIN) : static_cast<ssize_t>(take(fd, buf, len, !(flags & MSG_PEEK)));
    }
    ssize_t read(int fd, void* buf, size_t len) override {
        if (queues[fd].empty()) return 0;
        lastReadBuf = static_cast<const uint8_t*>(buf);
        return static_cast<ssize_t>(lastReadLen = take(fd, buf, len, true));
    }
    int close(int fd) override {
        closed.push_back(fd);
        return 0;
    }

    std::vector<Request> requestsOfType(uint16_t type) const {
        std::vector<Request> out;
        for (const Request& r : requests) {
            if (r.type() == type) out.push_back(r);
        }
        return out;
    }

  private:
    // Copies up to `len` bytes of the datagram at the head of `fd`'s queue.
    size_t take(int fd, void* buf, size_t len, bool consume) {
        std::deque<Bytes>& q = queues[fd];
        const size_t n = std::min(len, q.front().size());
        if (n != 0) memcpy(buf, q.front().data(), n);
        if (consume) q.pop_front();
        return n;
    }
    static int fail(int err) {
        errno = err;
        return -1;
    }
    ssize_t handle(int fd, Bytes bytes) {
        const ssize_t n = static_cast<ssize_t>(bytes.size());
        requests.push_back({fd, std::move(bytes)});
        const Request& r = requests.back();
        if (onRequest && onRequest(r)) return n;
        if (r.type() == SOCK_DESTROY) {
            queue(fd, error(destroyError));
        } else if (r.type() == SOCK_DIAG_BY_FAMILY) {
            auto it = dumpError.find(r.protocol());
            if (it != dumpError.end()) {
                queue(fd, error(it->second, 72));
                return n;
            }
            Bytes datagram;
            size_t inDatagram = 0;
            for (const Entry& e : table) {
                if (e.protocol != r.protocol() || e.msg.idiag_family != r.family()) continue;
                Bytes m = entry(e.msg, e.attrs);
                datagram.insert(datagram.end(), m.begin(), m.end());
                if (++inDatagram == entriesPerDatagram) {
                    queue(fd, std::move(datagram));
                    datagram.clear();
                    inDatagram = 0;
                }
            }
            Bytes d = done();
            datagram.insert(datagram.end(), d.begin(), d.end());
            queue(fd, std::move(datagram));
        }
        return n;
    }

    int nextFd_ = 100;
};

}  // namespace test
}  // namespace vord
