#include "ctl/LogStory.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace quorvix::ctl {

namespace {

constexpr std::string_view kConnected = "VEX: Client started new connection: pid ";
constexpr std::string_view kDisconnected = "Client disconnected: ";

bool isDigit(char character) { return character >= '0' && character <= '9'; }

// What may be part of a name beside its neighbours in the daemon's texts, which are ":", "-", brackets and blanks.
bool continuesName(char character) {
    return isDigit(character) || (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           character == '_' || (character & 0x80) != 0;
}

bool beginsWord(std::string_view text, std::size_t at) {
    return at == 0 || !(continuesName(text[at - 1]) || text[at - 1] == '.');
}

// A full stop belongs to the name unless it ends a sentence.
bool endsWord(std::string_view text, std::size_t end) {
    if (end == text.size()) return true;
    if (text[end] == '.') return end + 1 == text.size() || text[end + 1] == ' ';
    return !continuesName(text[end]);
}

// Where the name stands as a word, from `from` on.
std::size_t findWord(std::string_view text, std::string_view name, std::size_t from = 0) {
    for (std::size_t at = text.find(name, from); at != std::string_view::npos; at = text.find(name, at + 1)) {
        if (beginsWord(text, at) && endsWord(text, at + name.size())) return at;
    }
    return std::string_view::npos;
}

// The number at `at`, as it is written.
std::string_view numberAt(std::string_view text, std::size_t at) {
    std::size_t end = at;
    while (end < text.size() && isDigit(text[end])) ++end;
    return text.substr(at, end - at);
}

// Whether the daemon's texts have a process's number here.
bool isPlaceOfPid(std::string_view before, std::string_view after) {
    if (before.empty()) return after.starts_with(":") || after.starts_with(" is not a valid pid");
    for (const std::string_view mark : {"pid ", "Pid:", "PID:"}) {
        if (before.ends_with(mark)) return true;
    }
    if (before.ends_with("(")) return after.starts_with(")");
    if (before.ends_with("[")) return after.starts_with("]");
    return after.empty() && (before.ends_with(": ") || before.ends_with("watching "));
}

std::set<std::string, std::less<>> pidsIn(std::string_view text) {
    std::set<std::string, std::less<>> pids;
    for (std::size_t at = 0; at < text.size();) {
        const std::string_view number = numberAt(text, at);
        if (number.empty()) {
            ++at;
            continue;
        }
        if (isPlaceOfPid(text.substr(0, at), text.substr(at + number.size()))) pids.emplace(number);
        at += number.size();
    }
    return pids;
}

// "name(412)" and "name[412]" tell whose number it is.
std::optional<std::string> pidBeside(std::string_view text, std::string_view name) {
    for (std::size_t at = findWord(text, name); at != std::string_view::npos; at = findWord(text, name, at + 1)) {
        const std::string_view rest = text.substr(at + name.size());
        if (!rest.starts_with('(') && !rest.starts_with('[')) continue;
        const std::string_view number = numberAt(rest, 1);
        if (!number.empty()) return std::string(number);
    }
    return std::nullopt;
}

// Which connection of which process each line belongs to: numbers are given out again to other processes.
class Connections {
public:
    explicit Connections(std::string_view app) : app_(app) {}

    // The connections that the line tells of.
    std::vector<std::size_t> of(const LogLine& line) {
        if (line.daemon != daemon_) open_.clear();
        daemon_ = line.daemon;
        std::vector<std::size_t> found;
        for (const std::string& pid : pidsIn(line.message)) {
            if (line.message.starts_with(kConnected)) open_.erase(pid);
            const auto [entry, isNew] = open_.try_emplace(pid, isApps_.size());
            if (isNew) isApps_.push_back(false);
            found.push_back(entry->second);
        }
        if (const auto pid = pidBeside(line.message, app_)) {
            if (const auto entry = open_.find(*pid); entry != open_.end()) isApps_[entry->second] = true;
        }
        if (line.message.starts_with(kDisconnected)) open_.erase(line.message.substr(kDisconnected.size()));
        return found;
    }

    bool isApps(std::size_t connection) const { return isApps_[connection]; }

private:
    std::string_view app_;
    std::string daemon_;
    std::map<std::string, std::size_t> open_;
    std::vector<bool> isApps_;
};

}  // namespace

std::vector<LogLine> storyOf(const std::string& app, std::vector<LogLine> lines) {
    std::vector<LogLine> story;
    if (app.empty()) return story;
    if (std::ranges::all_of(app, isDigit)) {
        std::ranges::copy_if(lines, std::back_inserter(story),
                             [&](const LogLine& line) { return pidsIn(line.message).contains(app); });
        return story;
    }
    // The line that says whose number it is comes after the first that has the number.
    Connections connections(app);
    std::vector<std::vector<std::size_t>> connectionsOf;
    connectionsOf.reserve(lines.size());
    for (const LogLine& line : lines) connectionsOf.push_back(connections.of(line));
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const bool byName = findWord(lines[index].message, app) != std::string::npos;
        const bool byPid = std::ranges::any_of(connectionsOf[index],
                                               [&](std::size_t connection) { return connections.isApps(connection); });
        if (byName || byPid) story.push_back(std::move(lines[index]));
    }
    return story;
}

}  // namespace quorvix::ctl
