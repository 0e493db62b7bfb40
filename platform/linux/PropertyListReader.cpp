#include "platform/linux/PropertyListReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/Descriptor.h"
#include "platform/linux/PropertyListFile.h"

namespace quorvix::linuxos {

Result<PropertyListOnDisk> readPropertyListFile(const std::string& path) {
    // Not blocking, so that a pipe in the file's place does not stop us at the open.
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) return ErrorCode{errno};
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return ErrorCode{errno};
    if (!S_ISREG(status.st_mode)) return ErrorCode{EISDIR};
    // Stamped before reading: a change while we read makes the stamp not hold.
    const FileStamp stamp(status);

    // One byte past the limit tells a file that is too long, however long it is.
    std::string text;
    std::size_t length = 0;
    for (;;) {
        const std::size_t room = std::min(kPropertyListMaxBytes + 1, length + 16384);
        if (length == room) return ErrorCode{EFBIG};
        text.resize(room);
        const ssize_t count = ::read(file.get(), text.data() + length, room - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorCode{errno};
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    Result<PropertyListDictionary> dictionary = parsePropertyListDictionary(std::string_view(text).substr(0, length));
    if (!dictionary) return dictionary.error();
    return PropertyListOnDisk{std::move(*dictionary), stamp};
}

std::optional<PropertyListDictionary> LinuxPropertyListReader::readDictionary(std::string_view path) {
    Result<PropertyListOnDisk> list = readPropertyListFile(std::string(path));
    const int error = list ? 0 : list.error().value;
    const auto last = last_.find(path);
    const bool keeps = error != 0 && last != last_.end() && mayBeReadLater(list.error());
    if (error != 0 && error != ENOENT && error != lastError_) {
        const std::string trouble = isDamagedList(list.error()) ? "damaged" : list.error().text();
        if (keeps) {
            log_.standard("%@: the property list stays as it was last read: %@", path, trouble);
        } else {
            log_.standard("%@: the property list reads as missing: %@", path, trouble);
        }
    }
    lastError_ = error;
    if (keeps) return last->second;
    if (!list) {
        if (last != last_.end()) last_.erase(last);
        return std::nullopt;
    }
    return last_.insert_or_assign(std::string(path), std::move(list->dictionary)).first->second;
}

}  // namespace quorvix::linuxos
