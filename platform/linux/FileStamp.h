#pragma once

#include <sys/stat.h>
#include <time.h>

#include <cstdint>
#include <optional>

namespace quorvix::linuxos {

// What a file looked like when it was read, so that it is read again only after a change.
//
// Equal stamps mean an unchanged file only when the stamp was settled: a file can change twice within one step of the
// file system's coarse clock, and a replaced file can get the inode of the one before. So a file that changed just
// before it was read counts as changed once more.
class FileStamp {
public:
    explicit FileStamp(const struct stat& status)
        : device_(status.st_dev),
          inode_(status.st_ino),
          size_(status.st_size),
          modifiedNs_(nanoseconds(status.st_mtim)),
          changedNs_(nanoseconds(status.st_ctim)) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        // Negative where the clock was set back: not settled either.
        const std::int64_t ageNs = nanoseconds(now) - changedNs_;
        settled_ = ageNs >= kSettleNs;
    }

    // Whether the file that looked like this is the same now.
    bool stillHolds(const struct stat& status) const {
        return settled_ && device_ == status.st_dev && inode_ == status.st_ino && size_ == status.st_size &&
               modifiedNs_ == nanoseconds(status.st_mtim) && changedNs_ == nanoseconds(status.st_ctim);
    }

private:
    // Well above a step of the coarse clock (10 ms at most).
    static constexpr std::int64_t kSettleNs = 50'000'000;

    static std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

    dev_t device_;
    ino_t inode_;
    off_t size_;
    std::int64_t modifiedNs_;
    std::int64_t changedNs_;
    bool settled_ = false;
};

}  // namespace quorvix::linuxos
