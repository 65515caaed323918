#include <cutils/sockets.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include <vord/RootPath.h>

extern "C" int android_get_control_socket(const char* name) {
    const std::string key = std::string(ANDROID_SOCKET_ENV_PREFIX) + name;
    const char* value = getenv(key.c_str());
    if (value == nullptr || *value == '\0') return -1;
    errno = 0;
    char* end = nullptr;
    const long fd = strtol(value, &end, 10);
    if (errno != 0 || *end != '\0' || fd < 0 || fd > 0x7fffffff) return -1;
    sockaddr_un addr{};
    socklen_t len = sizeof(addr);
    if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        addr.sun_family != AF_UNIX) {
        return -1;
    }
    const std::string want = vord::resolvePath(std::string(ANDROID_SOCKET_DIR) + "/" + name);
    return strncmp(addr.sun_path, want.c_str(), sizeof(addr.sun_path)) == 0 ? static_cast<int>(fd) : -1;
}
