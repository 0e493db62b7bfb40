#pragma once

#include <cerrno>
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

// Property-list files at given paths, read at every call. Used on one thread at a time.
//
// A missing file is silent; one that can't be read is said in the log each time the kind of trouble changes.
class LinuxPropertyListReader final : public PropertyListReader {
public:
    explicit LinuxPropertyListReader(SystemLog& log) : log_(log, "com.norvane.quorvix", "platform") {}

    std::optional<PropertyListDictionary> readDictionary(std::string_view path) override;

private:
    LogHandle log_;
    int lastError_ = 0;
};

}  // namespace quorvix::linuxos
