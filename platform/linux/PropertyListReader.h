#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/Preferences.h"
#include "platform/Result.h"
#include "platform/SystemLog.h"
#include "platform/linux/FileStamp.h"

namespace quorvix::linuxos {

struct PropertyListOnDisk {
    PropertyListDictionary dictionary;
    FileStamp stamp;
};

// Reads a file that must be a dictionary. Besides the errors of the calls: EINVAL, EFBIG as of parsePropertyList;
// EISDIR for anything that is not a regular file, which is never waited for.
Result<PropertyListOnDisk> readPropertyListFile(const std::string& path);
// Whether the file was there and is no list that we take: not a trouble with reading it.
inline bool isDamagedList(ErrorCode error) { return error.value == EINVAL || error.value == EFBIG; }
// Whether a list may be there all the same: no descriptors are left, the device has an error, permission is lacking.
// What is known of it stays true until it can be read again; a fault that passes must switch nothing off or on.
inline bool mayBeReadLater(ErrorCode error) {
    const int value = error.value;
    return !isDamagedList(error) && value != ENOENT && value != ENOTDIR && value != EISDIR && value != ELOOP &&
           value != ENAMETOOLONG && value != ENXIO;
}

// Property-list files at given paths, read at every call. Used on one thread at a time.
//
// A missing file is silent; one that can't be read is said in the log each time the kind of trouble changes. One that
// can't be read now, and was read before, reads as it did then.
class LinuxPropertyListReader final : public PropertyListReader {
public:
    explicit LinuxPropertyListReader(SystemLog& log) : log_(log, "com.norvane.quorvix", "platform") {}

    std::optional<PropertyListDictionary> readDictionary(std::string_view path) override;

private:
    LogHandle log_;
    int lastError_ = 0;
    // The last list of each path. The paths are few and our own.
    std::map<std::string, PropertyListDictionary, std::less<>> last_;
};

}  // namespace quorvix::linuxos
