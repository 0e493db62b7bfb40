#include "platform/linux/PreferencesStore.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/linux/PropertyListReader.h"

namespace quorvix::linuxos {

namespace {

void apply(PropertyListDictionary& list, const std::string& key, const std::optional<PropertyListValue>& value) {
    if (value) {
        list.insert_or_assign(key, *value);
    } else {
        list.erase(key);
    }
}

std::string textOf(int error) {
    return isDamagedList(ErrorCode{error}) ? "it is damaged or too long" : ErrorCode{error}.text();
}

}  // namespace

std::optional<PropertyListValue> LinuxPreferencesStore::value(std::string_view key, const PreferenceDomain& domain) {
    Domain& known = domainNamed(domain.name);
    if (const auto staged = known.staged.find(key); staged != known.staged.end()) return staged->second;
    refresh(domain.name, known);
    const auto found = known.onDisk.find(key);
    if (found == known.onDisk.end()) return std::nullopt;
    return found->second;
}

void LinuxPreferencesStore::setValue(std::string_view key, std::optional<PropertyListValue> value,
                                     const PreferenceDomain& domain) {
    domainNamed(domain.name).staged.insert_or_assign(std::string(key), std::move(value));
}

bool LinuxPreferencesStore::synchronise(const PreferenceDomain& domain) {
    Domain& known = domainNamed(domain.name);
    const int before = known.writeError;
    const Result<void> written = write(domain);
    if (!written && written.error().value != before) {
        log_.standard("preferences of %@ not written: %@", domain.name, written.error());
    }
    return static_cast<bool>(written);
}

Result<PropertyListDictionary> LinuxPreferencesStore::list(const PreferenceDomain& domain) {
    Domain& known = domainNamed(domain.name);
    refresh(domain.name, known);
    if (known.readError != 0) return ErrorCode{known.readError};
    PropertyListDictionary list = known.onDisk;
    for (const auto& [key, value] : known.staged) apply(list, key, value);
    return list;
}

Result<void> LinuxPreferencesStore::write(const PreferenceDomain& domain) {
    Domain& known = domainNamed(domain.name);
    known.stamp.reset();
    if (known.staged.empty()) return {};
    const auto edit = [&](PropertyListDictionary& list) {
        for (const auto& [key, value] : known.staged) apply(list, key, value);
    };
    const Result<PreferencesEditOutcome> outcome = editPreferencesFile(placeOf(domain.name), edit);
    known.writeError = outcome ? 0 : outcome.error().value;
    if (!outcome) {
        ++writeFailures_;
        return outcome.error();
    }
    ++fileWrites_;
    known.staged.clear();
    if (!outcome->movedAsideAs.empty()) {
        ++damagedMovedAside_;
        log_.standard("preferences of %@ were damaged, kept as %@", domain.name, outcome->movedAsideAs);
    }
    return {};
}

LinuxPreferencesStore::Domain& LinuxPreferencesStore::domainNamed(std::string_view name) {
    const auto found = domains_.find(name);
    return found != domains_.end() ? found->second : domains_.emplace(name, Domain{}).first->second;
}

void LinuxPreferencesStore::refresh(std::string_view name, Domain& domain) {
    if (const int error = preferencesDomainError(name); error != 0) return noteReadError(name, domain, error);
    const std::string path = placeOf(name).path();
    struct stat status {};
    if (domain.stamp && ::stat(path.c_str(), &status) == 0 && domain.stamp->stillHolds(status)) return;

    domain.stamp.reset();
    Result<PropertyListOnDisk> onDisk = readPropertyListFile(path);
    if (!onDisk) {
        if (!mayBeReadLater(onDisk.error())) domain.onDisk.clear();
        // A missing list, or a missing folder, is an empty list.
        return noteReadError(name, domain, onDisk.error().value == ENOENT ? 0 : onDisk.error().value);
    }
    ++fileReads_;
    domain.onDisk = std::move(onDisk->dictionary);
    domain.stamp = onDisk->stamp;
    domain.readError = 0;
}

void LinuxPreferencesStore::noteReadError(std::string_view name, Domain& domain, int error) {
    if (error != 0) ++readFailures_;
    if (error != 0 && error != domain.readError) {
        if (domain.onDisk.empty()) {
            log_.standard("preferences of %@ read as missing: %@", name, textOf(error));
        } else {
            log_.standard("preferences of %@ stay as they were last read: %@", name, textOf(error));
        }
    }
    domain.readError = error;
}

JsonObject LinuxPreferencesStore::selfCounters() const {
    return {{"fileReads", fileReads_},
            {"fileWrites", fileWrites_},
            {"readFailures", readFailures_},
            {"writeFailures", writeFailures_},
            {"damagedMovedAside", damagedMovedAside_}};
}

}  // namespace quorvix::linuxos
