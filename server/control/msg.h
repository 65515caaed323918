// One control record on "/dev/socket/vord": 1032 bytes, host byte order.
#pragma once

#include <stdint.h>

#define VORD_MSG_TEXT_SIZE 1024

typedef struct {
    int32_t id;      // command id, 1 to 14
    int32_t length;  // length of the text; records above 1023 are dropped
    char message[VORD_MSG_TEXT_SIZE];  // the command text, NUL-terminated
} msg_t;

static_assert(sizeof(msg_t) == 1032, "msg_t is a 1032-byte wire record");
