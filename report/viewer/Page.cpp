#include "report/viewer/Page.h"

#include <nlohmann/json.hpp>

namespace quorvix::report {

std::string embeddableJson(const nlohmann::ordered_json& data) {
    const std::string plain = data.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
    std::string safe;
    safe.reserve(plain.size() + plain.size() / 16);
    for (const char character : plain) {
        // None of them is part of JSON outside of its texts, where they may be written as escapes.
        switch (character) {
            case '<': safe += "\\u003c"; break;
            case '>': safe += "\\u003e"; break;
            case '&': safe += "\\u0026"; break;
            default: safe += character;
        }
    }
    return safe;
}

std::string viewerPage(const nlohmann::ordered_json& data) {
    std::string page(kPageBeforeData);
    page += embeddableJson(data);
    page += kPageAfterData;
    return page;
}

}  // namespace quorvix::report
