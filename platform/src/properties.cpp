// Host system properties: one file per property under "<root>/properties".

#include <cutils/properties.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <vord/RootPath.h>

namespace {

std::string propertyDir() {
    std::string root = vord::rootDir();
    return (root.empty() ? std::string("/run/vord") : root) + "/properties";
}

bool validKey(const char* key) {
    if (key == nullptr || *key == '\0') return false;
    for (const char* p = key; *p; ++p) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-' || c == '@' || c == ':';
        if (!ok) return false;
    }
    return strcmp(key, ".") != 0 && strcmp(key, "..") != 0;
}

int copyDefault(char* value, const char* default_value) {
    if (default_value == nullptr) default_value = "";
    size_t len = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (!validKey(key)) return copyDefault(value, default_value);
    std::string path = propertyDir() + "/" + key;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return copyDefault(value, default_value);
    char buf[PROPERTY_VALUE_MAX];
    ssize_t n;
    do {
        n = read(fd, buf, sizeof(buf) - 1);
    } while (n < 0 && errno == EINTR);
    close(fd);
    if (n <= 0) return copyDefault(value, default_value);
    size_t len = static_cast<size_t>(n);
    if (buf[len - 1] == '\n') --len;
    if (len == 0) return copyDefault(value, default_value);
    memcpy(value, buf, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

extern "C" int property_set(const char* key, const char* value) {
    if (!validKey(key) || value == nullptr || strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    std::string dir = propertyDir();
    std::string root = dir.substr(0, dir.rfind('/'));
    mkdir(root.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    std::string path = dir + "/" + key;
    std::string tmp = path + ".tmp." + std::to_string(getpid());
    FILE* f = fopen(tmp.c_str(), "we");
    if (f == nullptr) return -1;
    bool ok = fputs(value, f) >= 0;
    ok = (fclose(f) == 0) && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    return 0;
}
