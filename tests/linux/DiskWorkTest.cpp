// A process that reads, writes and faults a known amount on a real disk, against what the kernel itself says of it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/ProcfsSource.h"
#include "platform/linux/TaskIteratorSource.h"

namespace quorvix::linuxos {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 20;
constexpr std::size_t kWrittenBytes = std::size_t{32} << 20;
constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::size_t kFaults = 512;
// Apart from each other, so that no page comes in with its neighbour.
constexpr std::size_t kPagesAFault = 4;

std::size_t pageBytes() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

// Beside the test program: the build folder is on a disk where the temporary one may be memory.
class FolderOnDisk {
public:
    FolderOnDisk() {
        std::string name = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "disk-work-XXXXXX";
        if (mkdtemp(name.data())) path_ = name;
    }
    ~FolderOnDisk() {
        if (!path_.empty()) std::filesystem::remove_all(path_);
    }
    FolderOnDisk(const FolderOnDisk&) = delete;
    FolderOnDisk& operator=(const FolderOnDisk&) = delete;

    bool hasBlockDevice() const {
        struct stat status {};
        if (path_.empty() || stat(path_.c_str(), &status) != 0) return false;
        return std::filesystem::exists("/sys/dev/block/" + std::to_string(major(status.st_dev)) + ":" +
                                       std::to_string(minor(status.st_dev)));
    }
    std::string path(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

bool writeBlocks(const std::string& path, std::size_t bytes) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const std::vector<char> block(kBlockBytes, 'x');
    for (std::size_t done = 0; done < bytes; done += block.size()) {
        if (write(file.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size())) return false;
    }
    return fsync(file.get()) == 0;
}

std::size_t cachedPages(int file, std::size_t bytes) {
    void* const mapped = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, file, 0);
    std::vector<unsigned char> resident((bytes + pageBytes() - 1) / pageBytes());
    const bool known = mapped != MAP_FAILED && mincore(mapped, bytes, resident.data()) == 0;
    if (mapped != MAP_FAILED) munmap(mapped, bytes);
    std::size_t count = known ? 0 : resident.size();
    for (const unsigned char page : resident) count += page & 1u;
    return count;
}

// Writes a file and makes its cache cold. False: nothing of it may stay in the cache, but some does.
bool makeColdFile(const std::string& path, std::size_t bytes) {
    if (!writeBlocks(path, bytes)) return false;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    for (int attempt = 0; attempt < 10; ++attempt) {
        posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
        if (cachedPages(file.get(), bytes) == 0) return true;
    }
    return false;
}

// A process of its own that works when it is told to and stays until the end.
class DiskWorker {
public:
    explicit DiskWorker(const FolderOnDisk& folder) {
        int orders[2], reports[2];
        if (pipe2(orders, O_CLOEXEC) != 0 || pipe2(reports, O_CLOEXEC) != 0) std::abort();
        pid_ = fork();
        if (pid_ == 0) live(folder, orders[0], reports[1]);
        close(orders[0]);
        close(reports[1]);
        orders_ = Descriptor(orders[1]);
        reports_ = Descriptor(reports[0]);
    }
    ~DiskWorker() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    DiskWorker(const DiskWorker&) = delete;
    DiskWorker& operator=(const DiskWorker&) = delete;

    std::int32_t pid() const { return pid_; }
    bool started() { return report() == 's'; }
    bool work() {
        const char order = 'w';
        return write(orders_.get(), &order, 1) == 1 && report() == 'd';
    }

private:
    char report() {
        char told = 0;
        return read(reports_.get(), &told, 1) == 1 ? told : '\0';
    }

    static bool readAll(const std::string& path) {
        const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        std::vector<char> block(kBlockBytes);
        std::size_t bytes = 0;
        for (ssize_t size; (size = read(file.get(), block.data(), block.size())) > 0;) {
            bytes += static_cast<std::size_t>(size);
        }
        return bytes == kReadBytes;
    }
    static bool faultPages(const std::string& path) {
        const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const std::size_t bytes = kFaults * kPagesAFault * pageBytes();
        void* const mapped = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, file.get(), 0);
        // Without it the kernel reads ahead, and one fault brings in many pages.
        if (mapped == MAP_FAILED || madvise(mapped, bytes, MADV_RANDOM) != 0) return false;
        const auto* const pages = static_cast<const volatile char*>(mapped);
        for (std::size_t i = 0; i < kFaults; ++i) {
            if (pages[i * kPagesAFault * pageBytes()] != 'x') return false;
        }
        return true;
    }
    [[noreturn]] static void live(const FolderOnDisk& folder, int orders, int reports) {
        (void)!write(reports, "s", 1);
        char order = 0;
        if (read(orders, &order, 1) != 1) _exit(1);
        const bool done = readAll(folder.path("read")) && writeBlocks(folder.path("written"), kWrittenBytes) &&
                          faultPages(folder.path("mapped"));
        (void)!write(reports, done ? "d" : "f", 1);
        for (;;) pause();
    }

    pid_t pid_ = -1;
    Descriptor orders_;
    Descriptor reports_;
};

struct Figures {
    std::uint64_t readBytes = 0;
    std::uint64_t writtenBytes = 0;
    std::uint64_t majorFaults = 0;

    Figures operator-(const Figures& from) const {
        return {readBytes - from.readBytes, writtenBytes - from.writtenBytes, majorFaults - from.majorFaults};
    }
};

// Read here in a second way of our own.
Figures kernelsFigures(std::int32_t pid) {
    Figures figures;
    const std::string folder = "/proc/" + std::to_string(pid);
    std::ifstream io(folder + "/io");
    std::string name;
    for (std::uint64_t value = 0; io >> name >> value;) {
        if (name == "read_bytes:") figures.readBytes = value;
        if (name == "write_bytes:") figures.writtenBytes = value;
    }
    std::ifstream stat(folder + "/stat");
    // "pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt majflt"
    std::getline(stat, name, ')');
    for (int field = 0; field < 9; ++field) stat >> name;
    stat >> figures.majorFaults;
    return figures;
}

class DiskWorkTest : public testing::Test {
protected:
    void expectKnownWork(std::unique_ptr<ProcessSource> source) {
        if (!folder_.hasBlockDevice()) GTEST_SKIP() << "the build folder is on no block device";
        ASSERT_TRUE(makeColdFile(folder_.path("read"), kReadBytes));
        ASSERT_TRUE(makeColdFile(folder_.path("mapped"), kFaults * kPagesAFault * pageBytes()));
        DiskWorker worker(folder_);
        ASSERT_TRUE(worker.started());

        std::vector<std::unique_ptr<ProcessSource>> sources;
        sources.push_back(std::move(source));
        ProcessTable table(std::move(sources), nullptr);
        const Figures kernelsBefore = kernelsFigures(worker.pid());
        const Figures before = figuresIn(table, worker.pid());
        ASSERT_TRUE(worker.work());
        const Figures after = figuresIn(table, worker.pid());
        const Figures kernels = kernelsFigures(worker.pid()) - kernelsBefore;
        const Figures ours = after - before;

        // The kernel counts these exactly, and the worker rests at either reading.
        EXPECT_EQ(ours.readBytes, kernels.readBytes);
        EXPECT_EQ(ours.writtenBytes, kernels.writtenBytes);
        EXPECT_EQ(ours.majorFaults, kernels.majorFaults);
        // And they are the work: beside it stand only what the file system keeps of its own, and a page of the program.
        expectWithinThreePercent(ours.readBytes, kReadBytes + kFaults * pageBytes());
        expectWithinThreePercent(ours.writtenBytes, kWrittenBytes);
        expectWithinThreePercent(ours.majorFaults, kFaults);
        RecordProperty("readBytes", std::to_string(ours.readBytes));
        RecordProperty("writtenBytes", std::to_string(ours.writtenBytes));
        RecordProperty("majorFaults", std::to_string(ours.majorFaults));
    }

private:
    static Figures figuresIn(ProcessTable& table, std::int32_t pid) {
        EXPECT_EQ(table.freeze(), 0);
        const auto place = table.find(pid);
        EXPECT_GE(place, 0);
        if (place < 0) return {};
        const ResourceUsage usage = table.usage(static_cast<std::size_t>(place));
        return {usage.diskBytesRead, usage.diskBytesWritten, usage.pageIns};
    }
    static void expectWithinThreePercent(std::uint64_t figure, std::uint64_t known) {
        EXPECT_NEAR(static_cast<double>(figure), static_cast<double>(known), 0.03 * static_cast<double>(known));
    }

    const FolderOnDisk folder_;
};

TEST_F(DiskWorkTest, ProcfsGivesWhatWasReadWrittenAndFaulted) { expectKnownWork(std::make_unique<ProcfsSource>()); }

TEST_F(DiskWorkTest, TheTaskIteratorGivesWhatWasReadWrittenAndFaulted) {
    auto source = std::make_unique<TaskIteratorSource>();
    ProcessSamples samples;
    if (const int error = source->read(samples)) GTEST_SKIP() << "no task iterator: " << ErrorCode{error}.text();
    expectKnownWork(std::move(source));
}

}  // namespace
}  // namespace quorvix::linuxos
