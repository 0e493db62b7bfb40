#include "platform/linux/PropertyListFile.h"

#include <cerrno>
#include <optional>
#include <pugixml.hpp>
#include <utility>

#include "platform/linux/PropertyListText.h"

namespace quorvix::linuxos {

namespace {

namespace text_form = property_list_text;

// White space is kept (a string may be nothing else) and told apart from content where only elements may stand. The
// DOCTYPE is read so that one with declarations can be refused.
constexpr unsigned kParseFlags =
    pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol | pugi::parse_ws_pcdata | pugi::parse_doctype;

std::optional<PropertyListValue> readValue(const pugi::xml_node& element, int depth);

bool isText(const pugi::xml_node& node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }

// The element's text; nothing when it holds elements, or characters that can't be written again.
std::optional<std::string> textOf(const pugi::xml_node& element) {
    std::string text;
    for (const pugi::xml_node& child : element.children()) {
        if (!isText(child)) return std::nullopt;
        text += child.value();
    }
    if (!text_form::isXmlText(text)) return std::nullopt;
    return text;
}

// The child elements; nothing when there is text between them.
std::optional<std::vector<pugi::xml_node>> elementsOf(const pugi::xml_node& element) {
    std::vector<pugi::xml_node> elements;
    for (const pugi::xml_node& child : element.children()) {
        if (child.type() == pugi::node_element) {
            elements.push_back(child);
        } else if (isText(child) && !text_form::trimmed(child.value()).empty()) {
            return std::nullopt;
        }
    }
    return elements;
}

template <class Value, class Parsed>
std::optional<PropertyListValue> wrapped(std::optional<Parsed> parsed) {
    if (!parsed) return std::nullopt;
    return PropertyListValue(Value{std::move(*parsed)});
}

std::optional<PropertyListValue> readArray(const pugi::xml_node& element, int depth) {
    const auto elements = elementsOf(element);
    if (!elements) return std::nullopt;
    PropertyListArray values;
    values.reserve(elements->size());
    for (const pugi::xml_node& child : *elements) {
        std::optional<PropertyListValue> value = readValue(child, depth + 1);
        if (!value) return std::nullopt;
        values.push_back(std::move(*value));
    }
    return PropertyListValue(std::move(values));
}

std::optional<PropertyListValue> readDictionary(const pugi::xml_node& element, int depth) {
    const auto elements = elementsOf(element);
    if (!elements || elements->size() % 2 != 0) return std::nullopt;
    PropertyListDictionary values;
    for (std::size_t i = 0; i < elements->size(); i += 2) {
        const pugi::xml_node& keyElement = (*elements)[i];
        if (std::string_view(keyElement.name()) != "key") return std::nullopt;
        std::optional<std::string> key = textOf(keyElement);
        if (!key) return std::nullopt;
        std::optional<PropertyListValue> value = readValue((*elements)[i + 1], depth + 1);
        if (!value || !values.emplace(std::move(*key), std::move(*value)).second) return std::nullopt;
    }
    return PropertyListValue(std::move(values));
}

std::optional<PropertyListValue> readValue(const pugi::xml_node& element, int depth) {
    const std::string_view name = element.name();
    if (name == "array" || name == "dict") {
        if (depth > kPropertyListMaxDepth) return std::nullopt;
        return name == "array" ? readArray(element, depth) : readDictionary(element, depth);
    }
    std::optional<std::string> text = textOf(element);
    if (!text) return std::nullopt;
    if (name == "string") return PropertyListValue(std::move(*text));
    if (name == "integer") return wrapped<std::int64_t>(text_form::parseInteger(*text));
    if (name == "real") return wrapped<double>(text_form::parseReal(*text));
    if (name == "date") return wrapped<PropertyListDate>(text_form::parseDate(*text));
    if (name == "data") return wrapped<PropertyListData>(text_form::parseData(*text));
    if ((name == "true" || name == "false") && text_form::trimmed(*text).empty()) {
        return PropertyListValue(name == "true");
    }
    return std::nullopt;
}

// The one value of the one root element; an empty node for every other document.
pugi::xml_node onlyValue(const pugi::xml_document& document) {
    pugi::xml_node root;
    for (const pugi::xml_node& node : document.children()) {
        // A DOCTYPE that declares something.
        if (node.type() == pugi::node_doctype && std::string_view(node.value()).find('[') != std::string_view::npos) {
            return {};
        }
        if (node.type() != pugi::node_element) continue;
        if (root || std::string_view(node.name()) != "plist") return {};
        root = node;
    }
    const auto elements = elementsOf(root);
    return elements && elements->size() == 1 ? elements->front() : pugi::xml_node{};
}

class Writer {
public:
    Result<std::string> write(const PropertyListValue& value) {
        out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
        append(value, 0);
        out_ += "</plist>\n";
        if (error_ != 0) return ErrorCode{error_};
        if (out_.size() > kPropertyListMaxBytes) return ErrorCode{EFBIG};
        return std::move(out_);
    }

private:
    void append(const PropertyListValue& value, int depth) {
        std::visit([&](const auto& content) { appendContent(content, depth); }, value.content());
    }

    void appendContent(bool value, int depth) { line(depth, value ? "<true/>" : "<false/>"); }
    void appendContent(std::int64_t value, int depth) { element(depth, "integer", std::to_string(value)); }
    void appendContent(double value, int depth) { element(depth, "real", text_form::realText(value)); }
    void appendContent(const std::string& value, int depth) { element(depth, "string", value); }
    void appendContent(const PropertyListData& value, int depth) {
        element(depth, "data", text_form::dataText(value.bytes));
    }
    void appendContent(const PropertyListDate& value, int depth) {
        const std::optional<std::string> text = text_form::dateText(value);
        if (!text) fail(EDOM);
        element(depth, "date", text.value_or(""));
    }
    void appendContent(const PropertyListArray& values, int depth) {
        if (!open(depth, "array", values.empty())) return;
        for (const PropertyListValue& value : values) append(value, depth + 1);
        line(depth, "</array>");
    }
    void appendContent(const PropertyListDictionary& values, int depth) {
        if (!open(depth, "dict", values.empty())) return;
        for (const auto& [key, value] : values) {
            element(depth + 1, "key", key);
            append(value, depth + 1);
        }
        line(depth, "</dict>");
    }

    // False: nothing follows, because the container is empty or deeper than may be.
    bool open(int depth, std::string_view name, bool empty) {
        if (depth >= kPropertyListMaxDepth) {
            fail(EINVAL);
            return false;
        }
        line(depth, std::string("<").append(name).append(empty ? "/>" : ">"));
        return !empty;
    }

    void element(int depth, std::string_view name, std::string_view text) {
        if (!text_form::isXmlText(text)) fail(EILSEQ);
        indent(depth);
        out_.append("<").append(name).append(">");
        for (const char c : text) {
            switch (c) {
                case '&': out_ += "&amp;"; break;
                case '<': out_ += "&lt;"; break;
                case '>': out_ += "&gt;"; break;
                // As it stands, a reader would make a line feed of it.
                case '\r': out_ += "&#13;"; break;
                default: out_ += c;
            }
        }
        out_.append("</").append(name).append(">\n");
    }
    void line(int depth, std::string_view text) {
        indent(depth);
        out_.append(text).append("\n");
    }
    void indent(int depth) { out_.append(static_cast<std::size_t>(depth), '\t'); }
    void fail(int error) {
        if (error_ == 0) error_ = error;
    }

    std::string out_;
    int error_ = 0;
};

}  // namespace

Result<PropertyListValue> parsePropertyList(std::string_view text) {
    if (text.size() > kPropertyListMaxBytes) return ErrorCode{EFBIG};
    // The parser takes a NUL for the end of the text.
    if (text.find('\0') != std::string_view::npos) return ErrorCode{EINVAL};
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size(), kParseFlags, pugi::encoding_utf8)) return ErrorCode{EINVAL};
    const pugi::xml_node node = onlyValue(document);
    if (!node) return ErrorCode{EINVAL};
    std::optional<PropertyListValue> value = readValue(node, 1);
    if (!value) return ErrorCode{EINVAL};
    return *std::move(value);
}

Result<PropertyListDictionary> parsePropertyListDictionary(std::string_view text) {
    Result<PropertyListValue> value = parsePropertyList(text);
    if (!value) return value.error();
    const auto* dictionary = std::get_if<PropertyListDictionary>(&value->content());
    if (!dictionary) return ErrorCode{EINVAL};
    return *dictionary;
}

Result<std::string> writePropertyList(const PropertyListValue& value) { return Writer().write(value); }

}  // namespace quorvix::linuxos
