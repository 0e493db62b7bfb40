#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/PreferenceText.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// What stands on the command line of "prefs set" and its sisters.
struct PreferenceRequest {
    std::string key;
    // Empty: the key's own domain.
    std::string domain;
    // Lets unknown keys and domains through.
    bool force = false;
    std::optional<PreferenceKind> kind;
    // Tell the daemon after a change.
    bool notify = true;
    // Instead of what is stored: what the daemon goes by, and why.
    bool origin = false;
    bool asJson = false;
};

// "prefs get|set|unset|list". A known key takes values of its own kind only: the daemon would read another kind as
// absent and fall back to its default without a word. Writes one line to the error stream for whatever goes wrong.
class PreferencesCommand {
public:
    explicit PreferencesCommand(const ToolServices& services) : services_(services) {}

    ExitStatus get(const PreferenceRequest& request) const;
    ExitStatus set(const PreferenceRequest& request, const std::string& text) const;
    ExitStatus unset(const PreferenceRequest& request) const;
    // Of one domain, or of every known one.
    ExitStatus list(const PreferenceRequest& request) const;

private:
    std::optional<std::string> domainOf(const PreferenceRequest& request) const;
    std::optional<PreferenceKind> kindOf(const PreferenceRequest& request) const;
    ExitStatus store(const PreferenceRequest& request, const std::string& domain,
                     std::optional<PropertyListValue> value) const;
    // Nothing, and a line said: the list can't be read.
    std::optional<PropertyListDictionary> read(std::string_view domain) const;
    ExitStatus listDomain(std::string_view domain, nlohmann::ordered_json* json) const;
    // Of the known keys of these domains, or of one key.
    ExitStatus listOrigins(const PreferenceRequest& request) const;
    // What the profile decides, the store can't: says so.
    void warnIfLocked(const PreferenceRequest& request) const;

    const ToolServices& services_;
};

}  // namespace quorvix::ctl
