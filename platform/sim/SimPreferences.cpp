#include "platform/sim/SimPreferences.h"

namespace quorvix::sim {

namespace {

void apply(PropertyListDictionary& list, std::string_view key, const std::optional<PropertyListValue>& value) {
    if (value) {
        list.insert_or_assign(std::string(key), *value);
    } else if (const auto found = list.find(key); found != list.end()) {
        list.erase(found);
    }
}

}  // namespace

void SimPreferences::change(std::string_view key, std::optional<PropertyListValue> value,
                            const PreferenceDomain& domain) {
    apply(stored_[nameOf(domain)], key, value);
}

PropertyListDictionary SimPreferences::stored(const PreferenceDomain& domain) const {
    const auto found = stored_.find(nameOf(domain));
    return found == stored_.end() ? PropertyListDictionary{} : found->second;
}

std::optional<PropertyListValue> SimPreferences::value(std::string_view key, const PreferenceDomain& domain) {
    if (faults.take("value")) return std::nullopt;
    const Staged& staged = staged_[nameOf(domain)];
    if (const auto found = staged.find(key); found != staged.end()) return found->second;
    const PropertyListDictionary& list = stored_[nameOf(domain)];
    if (const auto found = list.find(key); found != list.end()) return found->second;
    return std::nullopt;
}

void SimPreferences::setValue(std::string_view key, std::optional<PropertyListValue> value,
                              const PreferenceDomain& domain) {
    const Call::Kind kind = value ? Call::Kind::set : Call::Kind::remove;
    calls_.push_back({kind, std::string(domain.name), std::string(domain.user), std::string(key), value});
    staged_[nameOf(domain)].insert_or_assign(std::string(key), std::move(value));
}

bool SimPreferences::synchronise(const PreferenceDomain& domain) {
    calls_.push_back({Call::Kind::synchronise, std::string(domain.name), std::string(domain.user)});
    if (faults.take("synchronise")) return false;
    Staged& staged = staged_[nameOf(domain)];
    for (const auto& [key, value] : staged) apply(stored_[nameOf(domain)], key, value);
    staged.clear();
    return true;
}

}  // namespace quorvix::sim
