#pragma once

#include <optional>
#include <string_view>

#include "platform/PropertyList.h"

namespace quorvix {

struct PreferenceDomain {
    std::string_view name;
    std::string_view user;
};

// The preferences store, any host. Used on one thread at a time.
class PreferencesStore {
public:
    virtual ~PreferencesStore() = default;
    // The value as stored, of whatever kind; nothing when the key is absent. Every read sees the current file.
    virtual std::optional<PropertyListValue> value(std::string_view key, const PreferenceDomain& domain) = 0;
    // Sets the value, nothing removes the key. Seen by reads at once, on disk after synchronise().
    virtual void setValue(std::string_view key, std::optional<PropertyListValue> value,
                          const PreferenceDomain& domain) = 0;
    // Writes what was set and re-reads the domain. False: not written (said in the log), and what was set stays set.
    virtual bool synchronise(const PreferenceDomain& domain) = 0;
};

class PropertyListReader {
public:
    virtual ~PropertyListReader() = default;
    // The file as a dictionary; nothing when it is missing, damaged or not a dictionary.
    virtual std::optional<PropertyListDictionary> readDictionary(std::string_view path) = 0;
};

// Device-capability questions.
class DeviceCapabilities {
public:
    virtual ~DeviceCapabilities() = default;
    // False also when the device does not know the question.
    virtual bool booleanAnswer(std::string_view question) = 0;
};

}  // namespace quorvix
