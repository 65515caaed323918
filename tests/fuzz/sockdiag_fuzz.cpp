// Arbitrary kernel replies through the sock_diag dump reader and the
// TCP-information attribute walk, behind the socket seam. A crash, an endless
// loop or a socket handed on that doesn't lie wholly inside its message and the
// bytes read is a finding.
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <vord/LogCapture.h>

#include "FakeDiagKernel.h"
#include "sockdiag/SockDiag.h"

using android::net::SockDiag;
using vord::test::FakeDiagKernel;

namespace {

// The dumped socket must lie inside the last read, and inside its own message.
void CheckInside(const FakeDiagKernel& kernel, const inet_diag_msg* msg, uint32_t extra) {
    const uint8_t* m = reinterpret_cast<const uint8_t*>(msg);
    const uint8_t* begin = kernel.lastReadBuf;
    const uint8_t* end = begin + kernel.lastReadLen;
    if (m < begin + 16 || m + sizeof(inet_diag_msg) > end) abort();
    uint32_t nlmsgLen;
    memcpy(&nlmsgLen, m - 16, sizeof(nlmsgLen));
    if (nlmsgLen < 16 + sizeof(inet_diag_msg) + extra) abort();
    if (m - 16 + nlmsgLen > end) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    vord::LogCapture quiet;
    const uint8_t mode = data[0] % 4;
    const int32_t ack = -static_cast<int32_t>(data[1] % 4);  // 0 or a small -errno
    const bool excludeLoopback = (data[1] & 4) != 0;
    data += 2;
    size -= 2;

    // The rest: datagrams, each a 2-byte length (up to 9000, past the reader's
    // 8192-byte buffer) and its bytes.
    std::vector<FakeDiagKernel::Bytes> datagrams;
    while (size >= 2) {
        size_t len = (data[0] | (data[1] << 8)) % 9001;
        data += 2;
        size -= 2;
        if (len > size) len = size;
        datagrams.emplace_back(data, data + len);
        data += len;
        size -= len;
    }

    FakeDiagKernel kernel;
    kernel.destroyError = ack;
    bool answered = false;
    kernel.onRequest = [&](const FakeDiagKernel::Request& r) {
        if (r.type() != SOCK_DIAG_BY_FAMILY) return false;
        if (!answered) {
            for (const auto& d : datagrams) kernel.queue(r.fd, d);
        }
        answered = true;
        return true;
    };
    SockDiag sd(kernel);
    if (!sd.open()) abort();

    const SockDiag::TcpInfoReader reader = [&](const inet_diag_msg* msg,
                                               const android::net::tcp_info_ext* info,
                                               uint32_t len) {
        CheckInside(kernel, msg, info ? len + 4 : 0);
        if (info == nullptr && len != 0) abort();
    };
    const SockDiag::FilterFunction filter = [&](uint8_t, const inet_diag_msg* msg) {
        CheckInside(kernel, msg, 0);
        return (msg->idiag_uid & 1) != 0;
    };
    switch (mode) {
        case 0:
            sd.destroySockets(IPPROTO_TCP, 1, excludeLoopback);
            break;
        case 1:
            sd.getLiveTcpInfos(reader);
            break;
        case 2:
            for (const auto& d : datagrams) kernel.queue(100, d);
            sd.readDiagMsg(IPPROTO_UDP, filter);
            break;
        default:
            for (const auto& d : datagrams) kernel.queue(100, d);
            sd.readDiagMsgWithTcpInfo(reader);
            break;
    }
    return 0;
}
