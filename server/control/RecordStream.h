// The control records of one client, reassembled from its byte stream.
//
// The control socket is a stream: a 1032-byte record may arrive in pieces, and
// one receive may hold several records. A record is handed on only once all of
// its bytes have arrived. This is a deliberate departure from the documented
// reading, which takes whatever one receive returns as a whole record, so that a
// record written in two pieces became two records. A client that hangs up in the
// middle of a record has that partial record logged and dropped.
#pragma once

#include <stddef.h>

#include <functional>

#include "control/msg.h"

class RecordStream {
  public:
    enum class End {
        Drained,  // nothing more is queued for now
        HungUp,   // the client closed its end; everything it sent has been read
        Stopped,  // `keepGoing` returned false
    };

    // Reads everything the client socket `fd` has queued, without blocking. Each
    // complete record whose length is at most 1023 is logged and handed, as a
    // copy with its text terminated inside `message`, to `dispatch`; a longer one
    // is dropped without a log line and counted as refused. `keepGoing` is asked
    // before each receive.
    End read(int fd, const std::function<bool()>& keepGoing, void (*dispatch)(msg_t));

    // Bytes of a record begun but not yet complete.
    size_t partial() const { return m_filled; }
    // Forgets any partial record, silently (a new client starts clean).
    void reset() { m_filled = 0; }

  private:
    void complete(void (*dispatch)(msg_t));

    msg_t m_record{};
    size_t m_filled = 0;
};
