#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Json.h"
#include "platform/Preferences.h"
#include "platform/Result.h"
#include "platform/SystemLog.h"
#include "platform/linux/FileStamp.h"
#include "platform/linux/PreferencesFile.h"

namespace quorvix::linuxos {

// The preferences as XML property lists, one a domain, in one folder for the one user that the daemon knows; the
// domain's user is not looked at. The daemon and the operator's tool use the same class on the same files.
//
// A read looks at the file each time and reads it again when it changed. What is set lies over it until it is
// synchronised. A damaged list reads as missing and is moved aside at the first write; one that can't be read now stays
// as it was last read. Every trouble is said in the log when it begins, not again while it lasts, and counted. Used on
// one thread at a time.
class LinuxPreferencesStore final : public PreferencesStore {
public:
    static constexpr std::string_view kFolder = "/var/mobile/Library/Preferences";

    explicit LinuxPreferencesStore(SystemLog& log, std::string folder = std::string(kFolder))
        : log_(log, "com.norvane.quorvix", "platform"), folder_(std::move(folder)) {}

    std::optional<PropertyListValue> value(std::string_view key, const PreferenceDomain& domain) override;
    void setValue(std::string_view key, std::optional<PropertyListValue> value,
                  const PreferenceDomain& domain) override;
    bool synchronise(const PreferenceDomain& domain) override;

    // The whole list with what is set over it, and why it could not be read; a missing one is empty.
    Result<PropertyListDictionary> list(const PreferenceDomain& domain);
    // synchronise() that says why it failed instead of logging it.
    Result<void> write(const PreferenceDomain& domain);

    JsonObject selfCounters() const;

private:
    struct Domain {
        std::map<std::string, std::optional<PropertyListValue>, std::less<>> staged;
        PropertyListDictionary onDisk;
        // Of the file that onDisk was read from; nothing: to be read.
        std::optional<FileStamp> stamp;
        int readError = 0;
        int writeError = 0;
    };

    Domain& domainNamed(std::string_view name);
    PreferencesPlace placeOf(std::string_view name) const { return {folder_, std::string(name)}; }
    // Brings onDisk and readError up to date.
    void refresh(std::string_view name, Domain& domain);
    void noteReadError(std::string_view name, Domain& domain, int error);

    LogHandle log_;
    std::string folder_;
    std::map<std::string, Domain, std::less<>> domains_;
    std::uint64_t fileReads_ = 0;
    std::uint64_t fileWrites_ = 0;
    std::uint64_t readFailures_ = 0;
    std::uint64_t writeFailures_ = 0;
    std::uint64_t damagedMovedAside_ = 0;
};

}  // namespace quorvix::linuxos
