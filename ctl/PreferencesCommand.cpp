#include "ctl/PreferencesCommand.h"

#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "ctl/PreferenceOrigin.h"

namespace quorvix::ctl {

namespace {

constexpr std::string_view kChangeNotification = "com.norvane.quorvix.pref_changed";

// Of a user's lists, the one that the daemon reads.
PreferenceDomain domainNamed(std::string_view name) { return {.name = name, .user = "mobile"}; }

}  // namespace

// Nothing, and a line said: unknown, or not where the daemon looks.
std::optional<std::string> PreferencesCommand::domainOf(const PreferenceRequest& request) const {
    if (request.key.empty()) {
        services_.error << "quorvixctl: a key must not be empty\n";
        return std::nullopt;
    }
    if (request.domain.find('/') != std::string::npos) {
        services_.error << "quorvixctl: a domain is a name such as " << kDefaultDomain << ", without \"/\"\n";
        return std::nullopt;
    }
    const KnownPreference* known = findKnownPreference(request.key);
    if (request.force)
        return request.domain.empty() ? std::string(known ? known->domain : kDefaultDomain) : request.domain;
    if (!known) {
        services_.error << "quorvixctl: \"" << printable(request.key)
                        << "\" is not a key of quorvixd (see \"prefs list\"); --force takes it all the same\n";
        return std::nullopt;
    }
    if (!request.domain.empty() && request.domain != known->domain) {
        services_.error << "quorvixctl: quorvixd reads " << known->key << " from " << known->domain << ", not from "
                        << printable(request.domain) << "; --force takes it all the same\n";
        return std::nullopt;
    }
    return std::string(known->domain);
}

// Nothing, and a line said: an unknown key without --type, or a --type that is not the key's.
std::optional<PreferenceKind> PreferencesCommand::kindOf(const PreferenceRequest& request) const {
    const KnownPreference* known = findKnownPreference(request.key);
    if (!known) {
        if (!request.kind) services_.error << "quorvixctl: an unknown key needs --type bool|int|uint|real|string\n";
        return request.kind;
    }
    if (request.kind && *request.kind != known->kind && !request.force) {
        services_.error << "quorvixctl: " << known->key << " is of type " << kindName(known->kind) << ", not "
                        << kindName(*request.kind) << "\n";
        return std::nullopt;
    }
    return request.kind && request.force ? request.kind : known->kind;
}

ExitStatus PreferencesCommand::get(const PreferenceRequest& request) const {
    if (request.origin) return listOrigins(request);
    const std::optional<std::string> domain = domainOf(request);
    if (!domain) return ExitStatus::usage;
    const std::optional<PropertyListDictionary> stored = read(*domain);
    if (!stored) return ExitStatus::failed;
    const KnownPreference* known = findKnownPreference(request.key);
    const auto found = stored->find(request.key);
    if (found == stored->end()) {
        services_.error << "quorvixctl: " << printable(request.key) << " is not set";
        if (known) services_.error << " (then: " << known->whenAbsent << ")";
        services_.error << "\n";
        return ExitStatus::failed;
    }
    const PropertyListValue& value = found->second;
    services_.out << (request.asJson
                          ? jsonText({{"key", request.key}, {"domain", *domain}, {"value", valueJson(value)}})
                          : valueText(value) + "\n");
    if (known && !isOfKind(value, known->kind)) {
        services_.error << "quorvixctl: it is stored as " << storedKindName(value) << " and quorvixd wants "
                        << expectation(known->kind) << ": to quorvixd it is not set\n";
    }
    return ExitStatus::done;
}

ExitStatus PreferencesCommand::set(const PreferenceRequest& request, const std::string& text) const {
    const std::optional<std::string> domain = domainOf(request);
    if (!domain) return ExitStatus::usage;
    const std::optional<PreferenceKind> kind = kindOf(request);
    if (!kind) return ExitStatus::usage;
    std::optional<PropertyListValue> value = parseValue(text, *kind);
    if (!value) {
        services_.error << "quorvixctl: " << printable(request.key) << " takes " << expectation(*kind) << ", not \""
                        << printable(text) << "\"\n";
        return ExitStatus::usage;
    }
    return store(request, *domain, std::move(value));
}

ExitStatus PreferencesCommand::unset(const PreferenceRequest& request) const {
    const std::optional<std::string> domain = domainOf(request);
    if (!domain) return ExitStatus::usage;
    return store(request, *domain, std::nullopt);
}

ExitStatus PreferencesCommand::store(const PreferenceRequest& request, const std::string& domain,
                                     std::optional<PropertyListValue> value) const {
    warnIfLocked(request);
    nlohmann::ordered_json done{{"key", request.key}, {"domain", domain}};
    done["value"] = value ? valueJson(*value) : nlohmann::ordered_json();
    done["told"] = request.notify;
    services_.preferences.setValue(request.key, std::move(value), domainNamed(domain));
    if (const Result<void> written = services_.writeDomain(domainNamed(domain)); !written) {
        services_.error << "quorvixctl: the preferences of " << printable(domain)
                        << " could not be written: " << written.error().text() << "\n";
        return ExitStatus::failed;
    }
    if (request.notify) {
        if (const Result<void> posted = services_.post(kChangeNotification); !posted) {
            services_.error << "quorvixctl: saved, but the change could not be posted: " << posted.error().text()
                            << "\n";
            return ExitStatus::failed;
        }
    }
    if (request.asJson) services_.out << jsonText(done);
    return ExitStatus::done;
}

ExitStatus PreferencesCommand::list(const PreferenceRequest& request) const {
    if (request.domain.find('/') != std::string::npos) {
        services_.error << "quorvixctl: a domain is a name such as " << kDefaultDomain << ", without \"/\"\n";
        return ExitStatus::usage;
    }
    if (request.origin) return listOrigins(request);
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    nlohmann::ordered_json* json = request.asJson ? &all : nullptr;
    ExitStatus status = ExitStatus::done;
    if (!request.domain.empty()) {
        status = listDomain(request.domain, json);
    } else {
        for (const std::string_view domain : {kDefaultDomain, kActivationDomain}) {
            if (const ExitStatus one = listDomain(domain, json); one != ExitStatus::done) status = one;
        }
    }
    if (json && status == ExitStatus::done) services_.out << jsonText(all);
    return status;
}

ExitStatus PreferencesCommand::listOrigins(const PreferenceRequest& request) const {
    const KnownPreference* one = findKnownPreference(request.key);
    if (!request.key.empty() && !one) {
        services_.error << "quorvixctl: \"" << printable(request.key) << "\" is not a key of quorvixd\n";
        return ExitStatus::usage;
    }
    const PropertyListDictionary profile = readManagedProfile(services_);
    std::vector<PreferenceOrigin> origins;
    for (const std::string_view domain : {kDefaultDomain, kActivationDomain}) {
        if (one ? one->domain != domain : !request.domain.empty() && request.domain != domain) continue;
        const std::optional<PropertyListDictionary> stored = read(domain);
        if (!stored) return ExitStatus::failed;
        for (const KnownPreference& known : knownPreferences()) {
            if (known.domain == domain && (!one || one == &known)) {
                origins.push_back(originOf(known, *stored, profile));
            }
        }
    }
    services_.out << (request.asJson ? jsonText(originsJson(origins)) : originsTable(origins));
    return ExitStatus::done;
}

void PreferencesCommand::warnIfLocked(const PreferenceRequest& request) const {
    const KnownPreference* known = findKnownPreference(request.key);
    if (!known || originOf(*known, {}, readManagedProfile(services_)).decider != PreferenceDecider::profile) return;
    services_.error << "quorvixctl: the managed profile (" << services_.profilePath << ") decides " << known->key
                    << ": what is stored has no effect while it does\n";
}

std::optional<PropertyListDictionary> PreferencesCommand::read(std::string_view domain) const {
    Result<PropertyListDictionary> stored = services_.readDomain(domainNamed(domain));
    if (stored) return std::move(*stored);
    services_.error << "quorvixctl: the preferences of " << printable(domain)
                    << " could not be read: " << stored.error().text() << "\n";
    return std::nullopt;
}

ExitStatus PreferencesCommand::listDomain(std::string_view domain, nlohmann::ordered_json* json) const {
    std::optional<PropertyListDictionary> read = this->read(domain);
    if (!read) return ExitStatus::failed;
    PropertyListDictionary& stored = *read;
    if (json) {
        for (const auto& [key, value] : stored) {
            const KnownPreference* known = findKnownPreference(key);
            const bool counts = known && known->domain == domain && isOfKind(value, known->kind);
            json->push_back({{"key", key},
                             {"domain", domain},
                             {"type", storedKindName(value)},
                             {"value", valueJson(value)},
                             {"counts", counts}});
        }
        return ExitStatus::done;
    }
    std::ostream& out = services_.out;
    const auto line = [&out](std::string_view key, std::string_view kind, const std::string& value,
                             std::string_view remark) {
        out << "  " << std::left << std::setw(52) << printable(key) << std::setw(8) << kind << std::setw(12) << value
            << remark << "\n";
    };
    out << printable(domain) << "\n";
    for (const KnownPreference& known : knownPreferences()) {
        if (known.domain != domain) continue;
        const auto found = stored.find(known.key);
        if (found == stored.end()) {
            line(known.key, kindName(known.kind), "-", known.meaning);
            continue;
        }
        const bool fits = isOfKind(found->second, known.kind);
        line(known.key, kindName(known.kind), valueText(found->second),
             fits ? known.meaning : "of the wrong kind: to quorvixd it is not set");
        stored.erase(found);
    }
    for (const auto& [key, value] : stored) line(key, storedKindName(value), valueText(value), "not a key of quorvixd");
    return ExitStatus::done;
}

}  // namespace quorvix::ctl
