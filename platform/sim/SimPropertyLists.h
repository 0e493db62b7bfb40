#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Preferences.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// Property-list files in memory, by path. "readDictionary" can fail: the file then reads as missing.
class SimPropertyLists : public PropertyListReader {
public:
    void put(std::string_view path, PropertyListDictionary dictionary) {
        files_.insert_or_assign(std::string(path), std::move(dictionary));
    }
    void remove(std::string_view path) { files_.erase(std::string(path)); }

    std::optional<PropertyListDictionary> readDictionary(std::string_view path) override {
        if (faults.take("readDictionary")) return std::nullopt;
        const auto found = files_.find(path);
        if (found == files_.end()) return std::nullopt;
        return found->second;
    }

    Faults faults;

private:
    std::map<std::string, PropertyListDictionary, std::less<>> files_;
};

}  // namespace quorvix::sim
