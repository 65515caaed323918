// Reading fields of a struct tcp_info as a kernel delivered it: the delivered
// length may be shorter than this build's struct, and a field is read only when
// that length covers it.
#pragma once

#include <linux/tcp.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace vord {

template <typename T>
bool readTcpInfoField(const uint8_t* info, uint32_t infoLen, size_t offset, T* out) {
    if (info == nullptr || offset + sizeof(T) > infoLen) return false;
    memcpy(out, info + offset, sizeof(T));
    return true;
}

#define TCPI_READ(info, len, field, out) \
    ::vord::readTcpInfoField(info, len, offsetof(struct tcp_info, field), out)

}  // namespace vord
