#include "platform/linux/KernelSymbols.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "platform/linux/KernelMemoryText.h"

namespace quorvix::linuxos {

namespace {

constexpr std::size_t kPiece = 65536;

}  // namespace

void KernelSymbols::want(std::string_view symbol, std::string_view module) {
    Name name{symbol, module};
    if (addresses_.contains(name)) return;
    if (addresses_.size() >= kMaximumNames) {
        ++droppedNames_;
        return;
    }
    addresses_.emplace(std::move(name), 0);
    unread_ = true;
    ++missing_;
}

void KernelSymbols::lookUp() {
    if (!unread_) return;
    unread_ = false;
    const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return;
    ++listReads_;
    std::vector<char> buffer(kPiece);
    std::size_t length = 0;
    while (missing_ > 0) {
        const ssize_t count = ::read(file.get(), buffer.data() + length, buffer.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        length += static_cast<std::size_t>(count);
        std::string_view text(buffer.data(), length);
        for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
            readLine(text.substr(0, end));
            text.remove_prefix(end + 1);
        }
        // A line longer than the whole buffer is none of the kernel's.
        if (text.size() == buffer.size()) break;
        std::memmove(buffer.data(), text.data(), text.size());
        length = text.size();
    }
    // The last line may lack its end.
    if (missing_ > 0 && length > 0 && length < buffer.size()) readLine({buffer.data(), length});
}

void KernelSymbols::readLine(std::string_view line) {
    const auto symbol = parseKernelSymbol(line);
    if (!symbol || symbol->address == 0) return;
    const auto found = addresses_.find(Order::View{symbol->name, symbol->module});
    // Of several static functions of a name the first counts.
    if (found == addresses_.end() || found->second != 0) return;
    found->second = symbol->address;
    --missing_;
}

std::optional<std::uint64_t> KernelSymbols::addressOf(std::string_view symbol, std::string_view module) const {
    const auto found = addresses_.find(Order::View{symbol, module});
    if (found == addresses_.end() || found->second == 0) return std::nullopt;
    return found->second;
}

}  // namespace quorvix::linuxos
