#include "swivex/EventFormat.h"

#include <algorithm>
#include <charconv>

namespace quorvix::swivex {

namespace {

// Records are no longer than a ring page, and pages of 64 KiB are the largest there are.
constexpr std::uint32_t kLongestRecord = 65536;

std::optional<std::uint32_t> numberAfter(std::string_view text, std::string_view key) {
    const std::size_t at = text.find(key);
    if (at == std::string_view::npos) return std::nullopt;
    text.remove_prefix(at + key.size());
    while (text.starts_with(' ')) text.remove_prefix(1);
    std::uint32_t number = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc()) return std::nullopt;
    return number;
}

// Calls visit with each line.
template <class Visit>
void forEachLine(std::string_view text, Visit&& visit) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        visit(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

FieldFormat::Kind kindOf(std::string_view type, bool isArray, std::string_view name, std::uint32_t size) {
    const bool isText = type.find("char") != std::string_view::npos;
    if (type.find("__data_loc") != std::string_view::npos) {
        return isText ? FieldFormat::Kind::location : FieldFormat::Kind::skipped;
    }
    if (type.find("__rel_loc") != std::string_view::npos) {
        return isText ? FieldFormat::Kind::relative : FieldFormat::Kind::skipped;
    }
    if (isArray) {
        if (!isText) return FieldFormat::Kind::skipped;
        return size == 0 ? FieldFormat::Kind::rest : FieldFormat::Kind::text;
    }
    // Addresses, of the kernel or of a process.
    if (type.find('*') != std::string_view::npos || name == "ip" || name == "sa_handler") {
        return FieldFormat::Kind::skipped;
    }
    return size == 1 || size == 2 || size == 4 || size == 8 ? FieldFormat::Kind::number : FieldFormat::Kind::skipped;
}

// "field:char prev_comm[16];	offset:8;	size:16;	signed:0;"
std::optional<FieldFormat> parseField(std::string_view line) {
    const std::size_t begin = line.find("field:") + 6;
    const std::size_t end = line.find(';', begin);
    const auto offset = numberAfter(line, "offset:");
    const auto size = numberAfter(line, "size:");
    if (end == std::string_view::npos || !offset || !size) return std::nullopt;
    if (*offset > kLongestRecord || *size > kLongestRecord) return std::nullopt;
    std::string_view declaration = line.substr(begin, end - begin);
    bool isArray = false;
    if (declaration.ends_with(']')) {
        const std::size_t bracket = declaration.rfind('[');
        if (bracket == std::string_view::npos) return std::nullopt;
        declaration = declaration.substr(0, bracket);
        isArray = true;
    }
    const std::size_t space = declaration.find_last_of(" \t*");
    if (space == std::string_view::npos) return std::nullopt;
    FieldFormat field;
    field.name = declaration.substr(space + 1);
    field.offset = *offset;
    field.size = *size;
    field.isSigned = numberAfter(line, "signed:").value_or(0) != 0;
    field.kind = kindOf(declaration.substr(0, space + 1), isArray, field.name, *size);
    if (field.name.empty()) return std::nullopt;
    return field;
}

}  // namespace

const FieldFormat* EventFormat::field(std::string_view wanted) const {
    const auto found = std::ranges::find(fields, wanted, &FieldFormat::name);
    return found == fields.end() ? nullptr : &*found;
}

std::optional<EventFormat> parseEventFormat(std::string_view text) {
    EventFormat format;
    bool whole = true;
    std::optional<std::uint32_t> id;
    // What follows is C text, in which anything may stand.
    text = text.substr(0, text.find("print fmt:"));
    forEachLine(text, [&](std::string_view line) {
        if (line.starts_with("name: ")) {
            format.name = line.substr(6);
        } else if (line.starts_with("ID:")) {
            id = numberAfter(line, "ID:");
        } else if (line.find("field:") != std::string_view::npos) {
            auto field = parseField(line);
            if (field) format.fields.push_back(std::move(*field));
            whole = whole && field;
        }
    });
    if (!whole || !id || *id > 0xffff || format.name.empty()) return std::nullopt;
    format.id = *id;
    return format;
}

std::optional<PageFormat> parsePageFormat(std::string_view text) {
    PageFormat page;
    forEachLine(text, [&](std::string_view line) {
        const auto offset = numberAfter(line, "offset:");
        const auto size = numberAfter(line, "size:");
        if (!offset || !size) return;
        if (line.find(" commit;") != std::string_view::npos) {
            page.commitOffset = *offset;
            page.commitSize = *size;
        } else if (line.find(" data;") != std::string_view::npos) {
            page.dataOffset = *offset;
        }
    });
    const bool plausible = page.commitOffset == 8 && (page.commitSize == 4 || page.commitSize == 8) &&
                           page.dataOffset >= page.commitOffset + page.commitSize && page.dataOffset < 256;
    if (!plausible) return std::nullopt;
    return page;
}

}  // namespace quorvix::swivex
