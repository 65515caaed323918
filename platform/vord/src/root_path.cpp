#include <vord/RootPath.h>

#include <stdlib.h>

namespace vord {

std::string rootDir() {
    const char* root = getenv("VORD_ROOT");
    if (root == nullptr || *root == '\0') return std::string();
    std::string r(root);
    while (r.size() > 1 && r.back() == '/') r.pop_back();
    return r;
}

std::string resolvePath(const std::string& path) {
    std::string root = rootDir();
    if (root.empty() || path.empty() || path[0] != '/') return path;
    return root + path;
}

}  // namespace vord
