#include "ctl/PreferenceOrigin.h"

#include <cerrno>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "ctl/PreferenceText.h"
#include "ctl/TextTable.h"
#include "platform/linux/PropertyListReader.h"

namespace quorvix::ctl {

namespace {

constexpr std::string_view kProfilePrefix = "QXProfile.";
// The one key whose value counts only where it is above 0.
constexpr std::string_view kThresholdKey = "QuorvixAppActivationLoggingCPUUtilizationThreshold";

// The number as the daemon's getter for this kind gives it.
std::string readAs(const PropertyListValue& value, PreferenceKind kind) {
    switch (kind) {
        case PreferenceKind::boolean: return *value.boolean() ? "true" : "false";
        case PreferenceKind::integer32: return std::to_string(*value.int32());
        case PreferenceKind::unsigned32: return std::to_string(*value.uint32());
        case PreferenceKind::real: return valueText(PropertyListValue(*value.real()));
        case PreferenceKind::text: break;
    }
    return valueText(value);
}

const PropertyListValue* find(const PropertyListDictionary& list, std::string_view key) {
    const auto found = list.find(key);
    return found == list.end() ? nullptr : &found->second;
}

std::string notANumber(std::string_view where, const PropertyListValue& value) {
    return "passed over in the " + std::string(where) + ": " + std::string(storedKindName(value)) + ", no number";
}

}  // namespace

PreferenceOrigin originOf(const KnownPreference& known, const PropertyListDictionary& stored,
                          const PropertyListDictionary& profile) {
    PreferenceOrigin origin{.known = &known, .value = std::string(known.initially), .remark = {}};
    const PropertyListValue* managed =
        known.managed ? find(profile, std::string(kProfilePrefix) + std::string(known.key)) : nullptr;
    const PropertyListValue* own = find(stored, known.key);
    if (managed && managed->isNumber()) {
        origin.decider = PreferenceDecider::profile;
        origin.value = readAs(*managed, known.kind);
        origin.locked = true;
        if (own) origin.remark = "the store says " + valueText(*own);
        return origin;
    }
    if (managed) origin.remark = notANumber("profile", *managed);
    if (own && !isOfKind(*own, known.kind)) {
        origin.remark = notANumber("store", *own);
    } else if (own && known.key == kThresholdKey && !(*own->real() > 0.0)) {
        origin.remark = "passed over in the store: " + valueText(*own) + " is not above 0";
    } else if (own) {
        origin.decider = PreferenceDecider::store;
        origin.value = readAs(*own, known.kind);
        return origin;
    }
    if (origin.remark.empty() && known.whenAbsent == "unchanged") {
        origin.remark = "a running quorvixd keeps the value it had";
    }
    return origin;
}

PropertyListDictionary readManagedProfile(const ToolServices& services) {
    auto list = linuxos::readPropertyListFile(services.profilePath);
    if (list) return std::move(list->dictionary);
    const ErrorCode error = list.error();
    if (error.value != ENOENT && error.value != ENOTDIR) {
        services.error << "quorvixctl: the managed profile " << services.profilePath << " is passed over: "
                       << (linuxos::isDamagedList(error) ? "it is damaged or too long" : error.text()) << "\n";
    }
    return {};
}

std::string_view deciderName(PreferenceDecider decider) {
    switch (decider) {
        case PreferenceDecider::profile: return "profile";
        case PreferenceDecider::store: return "store";
        case PreferenceDecider::fallback: break;
    }
    return "default";
}

std::string originsTable(const std::vector<PreferenceOrigin>& origins) {
    std::vector<TextRow> rows{{"key", "value", "decided by", ""}};
    for (const PreferenceOrigin& origin : origins) {
        std::string remark = origin.locked ? "locked" : "";
        if (!origin.remark.empty()) remark += (remark.empty() ? "" : "; ") + origin.remark;
        rows.push_back(
            {std::string(origin.known->key), origin.value, std::string(deciderName(origin.decider)), remark});
    }
    std::string out;
    appendTable(out, rows);
    return out;
}

nlohmann::ordered_json originsJson(const std::vector<PreferenceOrigin>& origins) {
    auto list = nlohmann::ordered_json::array();
    for (const PreferenceOrigin& origin : origins) {
        list.push_back({{"key", origin.known->key},
                        {"domain", origin.known->domain},
                        {"value", origin.value},
                        {"origin", deciderName(origin.decider)},
                        {"locked", origin.locked},
                        {"remark", origin.remark}});
    }
    return list;
}

}  // namespace quorvix::ctl
