#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/RecordStream.h"

#include <log/log.h>

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "config/LogText.h"
#include "counters/Counters.h"

namespace {

constexpr int32_t kMaxTextLength = VORD_MSG_TEXT_SIZE - 1;

}  // namespace

RecordStream::End RecordStream::read(int fd, const std::function<bool()>& keepGoing,
                                     void (*dispatch)(msg_t)) {
    while (keepGoing()) {
        char* at = reinterpret_cast<char*>(&m_record) + m_filled;
        ssize_t n = recv(fd, at, sizeof(m_record) - m_filled, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return End::Drained;
        if (n <= 0) {
            // End of the stream (or a reset, which ends it as well).
            if (m_filled != 0) {
                ALOGE("control client hung up in the middle of a record: %zu of %zu bytes "
                      "dropped",
                      m_filled, sizeof(m_record));
                vord::bump(vord::counters().controlRecordsRefused);
                m_filled = 0;
            }
            return End::HungUp;
        }
        m_filled += static_cast<size_t>(n);
        if (m_filled == sizeof(m_record)) complete(dispatch);
    }
    return End::Stopped;
}

void RecordStream::complete(void (*dispatch)(msg_t)) {
    m_filled = 0;
    if (m_record.length > kMaxTextLength) {
        // Dropped without a log line; counted.
        vord::bump(vord::counters().controlRecordsRefused);
        return;
    }
    m_record.message[VORD_MSG_TEXT_SIZE - 1] = '\0';
    ALOGI("recv msg: msg.id=%d, msg.length=%d, msg.message=[%s]\n", m_record.id, m_record.length,
          vord::escapeForLog(m_record.message).c_str());
    dispatch(m_record);
}
