#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace wexbl_test {

MemoryStream::MemoryStream() {
    file_ = open_memstream(&buffer_, &size_);
    if (file_ == nullptr) {
        throw std::runtime_error("open_memstream failed");
    }
}

MemoryStream::~MemoryStream() {
    if (file_ != nullptr) {
        fclose(file_);
    }
    free(buffer_);
}

std::string MemoryStream::text() {
    fflush(file_);
    return std::string(buffer_ ? buffer_ : "", size_);
}

StderrCapture::StderrCapture() {
    fflush(stderr);
    tmp_ = tmpfile();
    if (tmp_ == nullptr) {
        throw std::runtime_error("tmpfile failed");
    }
    savedFd_ = dup(2);
    dup2(fileno(tmp_), 2);
}

StderrCapture::~StderrCapture() {
    stop();
}

std::string StderrCapture::stop() {
    if (stopped_) {
        return text_;
    }
    stopped_ = true;
    fflush(stderr);
    dup2(savedFd_, 2);
    close(savedFd_);
    rewind(tmp_);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, tmp_)) > 0) {
        text_.append(buf, n);
    }
    fclose(tmp_);
    return text_;
}

TempDir::TempDir() {
    char templ[] = "/tmp/wexbl-test-XXXXXX";
    char* made = mkdtemp(templ);
    if (made == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = made;
}

static int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

TempDir::~TempDir() {
    nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::writeFile(const std::string& name, const std::string& content) const {
    const std::string full = path_ + "/" + name;
    std::ofstream out(full, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return full;
}

std::string TempDir::makeDir(const std::string& name) const {
    const std::string full = path_ + "/" + name;
    mkdir(full.c_str(), 0755);
    return full;
}

XmlDocPtr parseXml(const std::string& xml) {
    return XmlDocPtr(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "test.xml", nullptr, 0));
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> listDirectory(const std::string& path) {
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = readdir(dir)) {
        names.emplace_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

}  // namespace wexbl_test
