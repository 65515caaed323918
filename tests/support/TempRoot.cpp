#include "TempRoot.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

namespace vord {
namespace test {

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TempRoot::TempRoot() {
    const char* tmp = getenv("TMPDIR");
    std::string tmpl =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vord-test-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) throw std::runtime_error("mkdtemp failed in " + tmpl);
    path_ = tmpl;
    for (const char* dir : {"/vendor/etc/sla", "/dev/socket", "/proc/sla", "/system/bin",
                            "/properties", "/record"}) {
        fs::create_directories(path_ + dir);
    }
}

TempRoot::~TempRoot() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void TempRoot::writeAt(const std::string& full, const std::string& content, int mode) {
    fs::create_directories(fs::path(full).parent_path());
    const std::string tmp = full + ".tmp";  // readers never see a half-written file
    std::ofstream(tmp, std::ios::binary) << content;
    fs::permissions(tmp, static_cast<fs::perms>(mode));
    fs::rename(tmp, full);
}

void TempRoot::installRecordingTool(const std::string& tool, const std::string& output,
                                    int status) const {
    std::string script = "#!/bin/sh\necho \"/system/bin/" + tool + " $*\" >> '" +
                         at("/record/commands") + "'\n";
    if (!output.empty()) script += "printf '%s\\n' '" + output + "'\n";
    script += "exit " + std::to_string(status) + "\n";
    writeFile("/system/bin/" + tool, script, 0755);
}

}  // namespace test
}  // namespace vord
