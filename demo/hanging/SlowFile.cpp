#define FUSE_USE_VERSION 31

#include "demo/hanging/SlowFile.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace quorvix::demo {

namespace {

constexpr std::size_t kBlockBytes = 4096;
constexpr off_t kFileBytes = off_t{1} << 40;
constexpr fuse_ino_t kFile = FUSE_ROOT_ID + 1;
constexpr double kKnownForSeconds = 3600;
constexpr const char* kName = "slow";

std::chrono::nanoseconds timeOfABlockServed;

struct stat attributesOf(fuse_ino_t node) {
    struct stat attributes {};
    attributes.st_ino = node;
    attributes.st_nlink = 1;
    attributes.st_mode = node == kFile ? (S_IFREG | 0444) : (S_IFDIR | 0555);
    attributes.st_size = node == kFile ? kFileBytes : 0;
    return attributes;
}

void lookUp(fuse_req_t request, fuse_ino_t, const char* name) {
    if (std::strcmp(name, kName) != 0) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param entry{};
    entry.ino = kFile;
    entry.attr = attributesOf(kFile);
    entry.attr_timeout = entry.entry_timeout = kKnownForSeconds;
    fuse_reply_entry(request, &entry);
}

void getAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
    const struct stat attributes = attributesOf(node);
    fuse_reply_attr(request, &attributes, kKnownForSeconds);
}

void openFile(fuse_req_t request, fuse_ino_t, fuse_file_info* file) { fuse_reply_open(request, file); }

void readSlowly(fuse_req_t request, fuse_ino_t, std::size_t size, off_t, fuse_file_info*) {
    std::this_thread::sleep_for(timeOfABlockServed);
    const std::array<char, kBlockBytes> zeros{};
    fuse_reply_buf(request, zeros.data(), std::min(size, zeros.size()));
}

// Serves until it is killed. Writes one byte to `ready` once the file can be opened.
void serve(const std::string& folder, int ready) {
    fuse_lowlevel_ops operations{};
    operations.lookup = lookUp;
    operations.getattr = getAttributes;
    operations.open = openFile;
    operations.read = readSlowly;
    std::array<char, 16> program{"slow-file"};
    char* arguments[] = {program.data(), nullptr};
    fuse_args parsed = FUSE_ARGS_INIT(1, arguments);
    fuse_session* session = fuse_session_new(&parsed, &operations, sizeof operations, nullptr);
    if (!session || fuse_session_mount(session, folder.c_str()) != 0) return;
    // Nobody hears when it fails: the app then ends with this process's pipe.
    (void)!write(ready, "r", 1);
    fuse_session_loop(session);
}

}  // namespace

SlowFile::~SlowFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

std::string SlowFile::mount(std::chrono::nanoseconds timeOfABlock) {
    std::string folder = "/tmp/slow-file-XXXXXX";
    if (!mkdtemp(folder.data())) return std::strerror(errno);
    const std::string problem = openBelow(folder, timeOfABlock);
    // The open file alone keeps the file system from here on: nothing can be left behind, however the app ends.
    umount2(folder.c_str(), MNT_DETACH);
    rmdir(folder.c_str());
    return problem;
}

std::string SlowFile::openBelow(const std::string& folder, std::chrono::nanoseconds timeOfABlock) {
    std::array<int, 2> ready{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0) return std::strerror(errno);
    timeOfABlockServed = timeOfABlock;
    server_ = HelperProcess::start("slow-file", [&](pid_t) {
        close(ready[0]);
        serve(folder, ready[1]);
    });
    close(ready[1]);
    char byte;
    const bool isReady = server_ && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!isReady) return "no file system in user space";

    descriptor_ = open((folder + "/" + kName).c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) return std::strerror(errno);
    // One request a block: what is read ahead would come for nothing.
    if (const int error = posix_fadvise(descriptor_, 0, 0, POSIX_FADV_RANDOM)) return std::strerror(error);
    return {};
}

void SlowFile::readOneBlock() {
    std::array<char, kBlockBytes> block;
    if (pread(descriptor_, block.data(), block.size(), offset_) > 0) offset_ += kBlockBytes;
}

}  // namespace quorvix::demo
