#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// A file tree in memory with the errors of the real one. A descriptor it gives out is a real one (of a memfd), because
// a trace library writes to it: the file's content is what was written there, at any time. Files that are unlinked
// while open live on until they are closed. One thread.
class SimFiles : public Files {
public:
    SimFiles();
    ~SimFiles() override;
    SimFiles(const SimFiles&) = delete;
    SimFiles& operator=(const SimFiles&) = delete;

    Result<FileStatus> status(std::string_view path) override;
    Result<void> unlink(std::string_view path) override;
    Result<void> makeDirectory(std::string_view path, std::uint32_t mode) override;
    Result<int> createFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override;
    Result<void> unlinkFile(const FileLocation& file) override;
    Result<void> moveFile(const FileLocation& from, const FileLocation& to) override;
    void close(int descriptor) override;
    Result<int> createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override;
    // Once the disk is full (spaceLeft), what fits is written and the rest fails.
    Result<void> write(int descriptor, std::string_view bytes) override;
    // Closes even where it fails.
    Result<void> closeChecked(int descriptor) override;
    Result<void> replaceFile(const FileLocation& from, const FileLocation& to) override;

    // Sets the scene: parents are made, what stands at the path is replaced (a directory by a directory stays).
    void addDirectory(std::string_view path);
    void addFile(std::string_view path, std::string_view content = {});
    // A directory that lies on a file system of its own: nothing is moved into it or out of it.
    void addMountPoint(std::string_view path);
    // Bytes that still fit on the disk through write(); nothing: any number.
    std::optional<std::size_t> spaceLeft;

    bool exists(std::string_view path) const;
    // A file's content; nothing when there is no such file.
    std::optional<std::string> read(std::string_view path) const;
    // Permission bits as asked for; nothing when there is no such entry.
    std::optional<std::uint32_t> mode(std::string_view path) const;
    // Protection class the file was created with; nothing when there is no such file.
    std::optional<int> protectionClass(std::string_view path) const;
    // Names in a directory, sorted.
    std::vector<std::string> list(std::string_view path) const;
    // Where each descriptor that is still open was created; a leak shows here.
    std::vector<std::string> openFiles() const;
    // Every operation on a file that reports are made of, in order: "createFile NAME", "unlinkFile NAME", "moveFile
    // NAME", "close NAME"; "createNewFile", "write", "closeChecked" and "replaceFile" likewise.
    const std::vector<std::string>& calls() const { return calls_; }
    // A long run need not keep them all.
    void forgetCalls() { calls_.clear(); }
    // A close of what is not open here.
    std::uint64_t wrongCloses() const { return wrongCloses_; }

    // Fails calls by method name; a failed call changes nothing.
    Faults faults;

private:
    struct Node;
    using NodePointer = std::shared_ptr<Node>;
    struct OpenFile {
        std::string path;
        NodePointer node;
    };

    Result<NodePointer> find(std::string_view path) const;
    Result<NodePointer> findDirectory(std::string_view path) const;
    NodePointer makeParents(std::string_view path, std::string& name);
    Result<int> open(const NodePointer& node, const FileLocation& file);
    Result<void> move(const FileLocation& from, const FileLocation& to, bool replacing);

    NodePointer root_;
    std::map<int, OpenFile> open_;
    std::vector<std::string> calls_;
    std::uint64_t wrongCloses_ = 0;
    int fileSystems_ = 0;
};

}  // namespace quorvix::sim
