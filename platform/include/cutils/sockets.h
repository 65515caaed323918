// Host stand-in for libcutils' init-managed sockets.
#pragma once

#define ANDROID_SOCKET_ENV_PREFIX "ANDROID_SOCKET_"
#define ANDROID_SOCKET_DIR "/dev/socket"

#ifdef __cplusplus
extern "C" {
#endif

// The descriptor of the socket init created for this service under `name` (the
// rc's "socket NAME ..."), handed over in the environment as ANDROID_SOCKET_NAME;
// -1 when there is none, or when the descriptor is not a socket bound at
// ANDROID_SOCKET_DIR/NAME (on a host: under $VORD_ROOT).
int android_get_control_socket(const char* name);

#ifdef __cplusplus
}
#endif
