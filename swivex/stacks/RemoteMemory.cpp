#include "swivex/stacks/RemoteMemory.h"

#include <fcntl.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string>

namespace quorvix::swivex::stacks {

namespace {

constexpr std::uint64_t kPresent = std::uint64_t{1} << 63;
constexpr std::uint64_t kSwapped = std::uint64_t{1} << 62;

std::uint64_t pageBytes() {
    static const auto bytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return bytes;
}

}  // namespace

bool MemoryCopy::read(std::uint64_t address, std::uint64_t& word) const {
    if (address < start || bytes.size() < sizeof word || address - start > bytes.size() - sizeof word) return false;
    std::memcpy(&word, bytes.data() + (address - start), sizeof word);
    return true;
}

RemoteMemory::RemoteMemory(pid_t pid)
    : pid_(pid), pageMap_(::open(("/proc/" + std::to_string(pid) + "/pagemap").c_str(), O_RDONLY | O_CLOEXEC)) {}

bool RemoteMemory::findPages(const Mapping& mapping, std::uint64_t firstPage, std::span<bool> mayRead) const {
    // Only of memory without a file the mark means that the page is swapped out.
    const std::uint64_t wanted = mapping.inode == 0 ? kPresent | kSwapped : kPresent;
    std::array<std::uint64_t, 64> entries;
    for (std::size_t done = 0; done < mayRead.size();) {
        const std::size_t count = std::min(entries.size(), mayRead.size() - done);
        const ssize_t bytes = ::pread(pageMap_.get(), entries.data(), count * sizeof(std::uint64_t),
                                      static_cast<off_t>((firstPage + done) * sizeof(std::uint64_t)));
        if (bytes != static_cast<ssize_t>(count * sizeof(std::uint64_t))) return false;
        for (std::size_t i = 0; i < count; ++i) mayRead[done + i] = (entries[i] & wanted) != 0;
        done += count;
    }
    return true;
}

MemoryCopy RemoteMemory::copy(const Mapping& mapping, std::uint64_t address, std::size_t mostBytes) const {
    MemoryCopy copy;
    if (!mapping.isReadable || address < mapping.start || address >= mapping.end) return copy;
    copy.start = address & ~(sizeof(std::uint64_t) - 1);
    copy.bytes.resize(std::min<std::uint64_t>(mostBytes, mapping.end - copy.start));
    const std::uint64_t page = pageBytes();
    const std::uint64_t firstPage = copy.start / page;
    const std::uint64_t pages = (copy.start + copy.bytes.size() + page - 1) / page - firstPage;
    constexpr std::size_t kMostPages = 1024;
    std::array<bool, kMostPages> mayRead{};
    const std::span<bool> known(mayRead.data(), std::min<std::uint64_t>(pages, kMostPages));
    // Without the kernel's page map everything is read; the worker's deadline holds all the same.
    if (!findPages(mapping, firstPage, known)) std::fill(known.begin(), known.end(), true);

    // Neighbouring pages in one piece. Local pieces follow the remote ones, so that holes stay zero.
    std::array<iovec, 64> local;
    std::array<iovec, 64> remote;
    std::size_t pieces = 0;
    for (std::size_t i = 0; i < known.size() && pieces < local.size(); ++i) {
        if (!known[i]) continue;
        const std::size_t first = i;
        while (i + 1 < known.size() && known[i + 1]) ++i;
        const std::uint64_t begin = std::max(copy.start, (firstPage + first) * page);
        const std::uint64_t end = std::min(copy.start + copy.bytes.size(), (firstPage + i + 1) * page);
        local[pieces] = {copy.bytes.data() + (begin - copy.start), end - begin};
        remote[pieces] = {reinterpret_cast<void*>(begin), end - begin};
        ++pieces;
    }
    if (pieces == 0 || ::process_vm_readv(pid_, local.data(), pieces, remote.data(), pieces, 0) <= 0)
        copy.bytes.clear();
    return copy;
}

}  // namespace quorvix::swivex::stacks
