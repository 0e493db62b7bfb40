#include "platform/sim/SimFiles.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/linux/FileName.h"

namespace quorvix::sim {

namespace {

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (!part.empty() && part != ".") parts.push_back(part);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return parts;
}

std::string_view parentOf(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(std::string_view path) {
    const auto parts = components(path);
    return parts.empty() ? std::string() : std::string(parts.back());
}

std::string joined(const FileLocation& file) { return std::string(file.directory) + "/" + std::string(file.name); }

}  // namespace

struct SimFiles::Node {
    explicit Node(bool directory, std::uint32_t bits) : isDirectory(directory), mode(bits) {
        if (isDirectory) return;
        content = memfd_create("simulated file", MFD_CLOEXEC);
        if (content < 0) std::abort();
    }
    ~Node() {
        if (content >= 0) ::close(content);
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    bool isDirectory;
    std::uint32_t mode;
    int protectionClass = 0;
    int fileSystem = 0;
    int content = -1;
    std::map<std::string, NodePointer, std::less<>> entries;
};

SimFiles::SimFiles() : root_(std::make_shared<Node>(true, 0755)) {}

SimFiles::~SimFiles() {
    for (const auto& [descriptor, file] : open_) ::close(descriptor);
}

Result<SimFiles::NodePointer> SimFiles::find(std::string_view path) const {
    if (path.empty()) return ErrorCode{ENOENT};
    if (path.find('\0') != std::string_view::npos) return ErrorCode{EINVAL};
    if (path.size() >= 4096) return ErrorCode{ENAMETOOLONG};
    std::vector<NodePointer> walked{root_};
    for (const std::string_view part : components(path)) {
        const NodePointer& here = walked.back();
        if (!here->isDirectory) return ErrorCode{ENOTDIR};
        if (part == "..") {
            if (walked.size() > 1) walked.pop_back();
            continue;
        }
        if (part.size() > linuxos::kMaximumFileNameLength) return ErrorCode{ENAMETOOLONG};
        const auto entry = here->entries.find(part);
        if (entry == here->entries.end()) return ErrorCode{ENOENT};
        walked.push_back(NodePointer(entry->second));
    }
    if (path.ends_with('/') && !walked.back()->isDirectory) return ErrorCode{ENOTDIR};
    return walked.back();
}

Result<SimFiles::NodePointer> SimFiles::findDirectory(std::string_view path) const {
    auto found = find(path);
    if (found && !(*found)->isDirectory) return ErrorCode{ENOTDIR};
    return found;
}

Result<FileStatus> SimFiles::status(std::string_view path) {
    if (const auto fault = faults.take("status")) return *fault;
    const auto found = find(path);
    if (!found) return found.error();
    return FileStatus{.isDirectory = (*found)->isDirectory};
}

Result<void> SimFiles::unlink(std::string_view path) {
    if (const auto fault = faults.take("unlink")) return *fault;
    const auto found = find(path);
    if (!found) return found.error();
    if ((*found)->isDirectory) return ErrorCode{EISDIR};
    (*find(parentOf(path)))->entries.erase(nameOf(path));
    return {};
}

Result<void> SimFiles::makeDirectory(std::string_view path, std::uint32_t mode) {
    if (const auto fault = faults.take("makeDirectory")) return *fault;
    const auto found = find(path);
    if (found) return ErrorCode{EEXIST};
    if (found.error().value != ENOENT || path.empty()) return found.error();
    const auto parent = findDirectory(parentOf(path));
    if (!parent) return parent.error();
    const auto made = std::make_shared<Node>(true, mode);
    made->fileSystem = (*parent)->fileSystem;
    (*parent)->entries[nameOf(path)] = made;
    return {};
}

Result<int> SimFiles::createFile(const FileLocation& file, std::uint32_t mode, int protectionClass) {
    calls_.push_back("createFile " + std::string(file.name));
    if (const auto fault = faults.take("createFile")) return *fault;
    if (const int error = linuxos::fileNameError(file.name)) return ErrorCode{error};
    const auto directory = findDirectory(file.directory);
    if (!directory) return directory.error();
    const auto entry = (*directory)->entries.find(file.name);
    NodePointer node;
    if (entry != (*directory)->entries.end()) {
        node = entry->second;
        if (node->isDirectory) return ErrorCode{EISDIR};
    } else {
        node = std::make_shared<Node>(false, mode);
        node->protectionClass = protectionClass;
        (*directory)->entries[std::string(file.name)] = node;
    }
    return open(node, file);
}

Result<int> SimFiles::createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) {
    calls_.push_back("createNewFile " + std::string(file.name));
    if (const auto fault = faults.take("createNewFile")) return *fault;
    if (const int error = linuxos::fileNameError(file.name)) return ErrorCode{error};
    const auto directory = findDirectory(file.directory);
    if (!directory) return directory.error();
    const auto entry = (*directory)->entries.find(file.name);
    if (entry != (*directory)->entries.end() && entry->second->isDirectory) return ErrorCode{EISDIR};
    const auto node = std::make_shared<Node>(false, mode);
    node->protectionClass = protectionClass;
    (*directory)->entries[std::string(file.name)] = node;
    return open(node, file);
}

Result<int> SimFiles::open(const NodePointer& node, const FileLocation& file) {
    // A description of its own: two who open the same file do not share an offset.
    const std::string self = "/proc/self/fd/" + std::to_string(node->content);
    const int descriptor = ::open(self.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0) return ErrorCode{errno};
    open_[descriptor] = {joined(file), node};
    return descriptor;
}

Result<void> SimFiles::unlinkFile(const FileLocation& file) {
    calls_.push_back("unlinkFile " + std::string(file.name));
    if (const auto fault = faults.take("unlinkFile")) return *fault;
    if (const int error = linuxos::fileNameError(file.name)) return ErrorCode{error};
    const auto directory = findDirectory(file.directory);
    if (!directory) return directory.error();
    const auto entry = (*directory)->entries.find(file.name);
    if (entry == (*directory)->entries.end()) return ErrorCode{ENOENT};
    if (entry->second->isDirectory) return ErrorCode{EISDIR};
    (*directory)->entries.erase(entry);
    return {};
}

Result<void> SimFiles::moveFile(const FileLocation& from, const FileLocation& to) {
    calls_.push_back("moveFile " + std::string(from.name));
    if (const auto fault = faults.take("moveFile")) return *fault;
    return move(from, to, false);
}

Result<void> SimFiles::replaceFile(const FileLocation& from, const FileLocation& to) {
    calls_.push_back("replaceFile " + std::string(from.name));
    if (const auto fault = faults.take("replaceFile")) return *fault;
    return move(from, to, true);
}

Result<void> SimFiles::move(const FileLocation& from, const FileLocation& to, bool replacing) {
    for (const FileLocation& file : {from, to}) {
        if (const int error = linuxos::fileNameError(file.name)) return ErrorCode{error};
    }
    const auto source = findDirectory(from.directory);
    if (!source) return source.error();
    const auto target = findDirectory(to.directory);
    if (!target) return target.error();
    if ((*source)->fileSystem != (*target)->fileSystem) return ErrorCode{EXDEV};
    const auto entry = (*source)->entries.find(from.name);
    if (entry == (*source)->entries.end()) return ErrorCode{ENOENT};
    const auto there = (*target)->entries.find(to.name);
    if (there != (*target)->entries.end()) {
        if (!replacing) return ErrorCode{EEXIST};
        if (there->second->isDirectory) return ErrorCode{EISDIR};
    }
    const NodePointer node = entry->second;
    (*source)->entries.erase(entry);
    (*target)->entries[std::string(to.name)] = node;
    return {};
}

Result<void> SimFiles::write(int descriptor, std::string_view bytes) {
    const auto file = open_.find(descriptor);
    if (file == open_.end()) return ErrorCode{EBADF};
    calls_.push_back("write " + nameOf(file->second.path));
    if (const auto fault = faults.take("write")) return *fault;
    const std::size_t fits = std::min(bytes.size(), spaceLeft.value_or(bytes.size()));
    if (::write(descriptor, bytes.data(), fits) != static_cast<ssize_t>(fits)) std::abort();
    if (spaceLeft) *spaceLeft -= fits;
    if (fits < bytes.size()) return ErrorCode{ENOSPC};
    return {};
}

Result<void> SimFiles::closeChecked(int descriptor) {
    const auto file = open_.find(descriptor);
    if (file == open_.end()) {
        ++wrongCloses_;
        return ErrorCode{EBADF};
    }
    calls_.push_back("closeChecked " + nameOf(file->second.path));
    open_.erase(file);
    ::close(descriptor);
    if (const auto fault = faults.take("closeChecked")) return *fault;
    return {};
}

void SimFiles::close(int descriptor) {
    const auto file = open_.find(descriptor);
    if (file == open_.end()) {
        ++wrongCloses_;
        return;
    }
    calls_.push_back("close " + nameOf(file->second.path));
    open_.erase(file);
    ::close(descriptor);
}

SimFiles::NodePointer SimFiles::makeParents(std::string_view path, std::string& name) {
    auto parts = components(path);
    if (parts.empty()) std::abort();
    name = parts.back();
    parts.pop_back();
    NodePointer here = root_;
    for (const std::string_view part : parts) {
        NodePointer& next = here->entries[std::string(part)];
        if (!next || !next->isDirectory) {
            next = std::make_shared<Node>(true, 0755);
            next->fileSystem = here->fileSystem;
        }
        here = NodePointer(next);
    }
    return here;
}

void SimFiles::addDirectory(std::string_view path) {
    std::string name;
    const NodePointer parent = makeParents(path, name);
    NodePointer& entry = parent->entries[name];
    if (entry && entry->isDirectory) return;
    entry = std::make_shared<Node>(true, 0755);
    entry->fileSystem = parent->fileSystem;
}

void SimFiles::addMountPoint(std::string_view path) {
    addDirectory(path);
    (*find(path))->fileSystem = ++fileSystems_;
}

void SimFiles::addFile(std::string_view path, std::string_view content) {
    std::string name;
    const NodePointer parent = makeParents(path, name);
    const auto node = std::make_shared<Node>(false, 0644);
    if (::pwrite(node->content, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
        std::abort();
    parent->entries[name] = node;
}

bool SimFiles::exists(std::string_view path) const { return static_cast<bool>(find(path)); }

std::optional<std::string> SimFiles::read(std::string_view path) const {
    const auto found = find(path);
    if (!found || (*found)->isDirectory) return std::nullopt;
    struct stat status {};
    if (fstat((*found)->content, &status) != 0) std::abort();
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::pread((*found)->content, content.data(), content.size(), 0);
    if (count != status.st_size) std::abort();
    return content;
}

std::optional<std::uint32_t> SimFiles::mode(std::string_view path) const {
    const auto found = find(path);
    return found ? std::optional((*found)->mode) : std::nullopt;
}

std::optional<int> SimFiles::protectionClass(std::string_view path) const {
    const auto found = find(path);
    if (!found || (*found)->isDirectory) return std::nullopt;
    return (*found)->protectionClass;
}

std::vector<std::string> SimFiles::list(std::string_view path) const {
    std::vector<std::string> names;
    const auto found = find(path);
    if (!found) return names;
    for (const auto& [name, node] : (*found)->entries) names.push_back(name);
    return names;
}

std::vector<std::string> SimFiles::openFiles() const {
    std::vector<std::string> paths;
    for (const auto& [descriptor, file] : open_) paths.push_back(file.path);
    return paths;
}

}  // namespace quorvix::sim
