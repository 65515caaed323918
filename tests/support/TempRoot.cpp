#include "TempRoot.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vord {
namespace test {

namespace {

void makeDirs(const std::string& path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) continue;
        cur += "/" + part;
        mkdir(cur.c_str(), 0755);
    }
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TempRoot::TempRoot() {
    char tmpl[] = "/tmp/vord-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    for (const char* dir : {"/vendor/etc/sla", "/dev/socket", "/proc/sla", "/system/bin",
                            "/properties", "/record"}) {
        makeDirs(path_ + dir);
    }
}

TempRoot::~TempRoot() { nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

std::string TempRoot::at(const std::string& rel) const { return path_ + rel; }

void TempRoot::writeFile(const std::string& rel, const std::string& content, int mode) const {
    writeAt(at(rel), content, mode);
}

void TempRoot::writeAt(const std::string& full, const std::string& content, int mode) {
    makeDirs(full.substr(0, full.rfind('/')));
    std::string tmp = full + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << content;
    }
    chmod(tmp.c_str(), static_cast<mode_t>(mode));
    rename(tmp.c_str(), full.c_str());
}

std::string TempRoot::readFile(const std::string& rel) const { return readWholeFile(at(rel)); }

bool TempRoot::exists(const std::string& rel) const {
    struct stat st;
    return lstat(at(rel).c_str(), &st) == 0;
}

void TempRoot::installRecordingTool(const std::string& tool, const std::string& output) const {
    std::string script = "#!/bin/sh\n"
                         "echo \"/system/bin/" + tool + " $*\" >> '" + at("/record/commands") + "'\n";
    if (!output.empty()) script += "printf '%s\\n' '" + output + "'\n";
    writeFile("/system/bin/" + tool, script, 0755);
}

std::string TempRoot::recordedCommands() const { return readFile("/record/commands"); }

}  // namespace test
}  // namespace vord
