#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"
#include "platform/Result.h"

namespace quorvix::linuxos {

// Where one domain's list lies: `<folder>/<domain>.plist`.
struct PreferencesPlace {
    std::string folder;
    std::string domain;

    std::string path() const { return folder + "/" + domain + ".plist"; }
};

// ENOENT, EINVAL or ENAMETOOLONG when no file of ours can have this domain's name: domains come from the
// command line too, and never lead out of the folder. 0 when one can.
int preferencesDomainError(std::string_view domain);

struct PreferencesEditOutcome {
    // The name that a damaged list was given; empty: it was not damaged.
    std::string movedAsideAs;
};

// Reads the list, lets `edit` change it and writes it, all under the lock that every writer takes, so that writers at
// the same time lose nothing. Readers need no lock: they see the old list or the new one, whole, also after a crash. A
// missing folder is created. A damaged list is taken as empty and moved aside before the new one takes its place. On
// failure the list is as it was. ETIMEDOUT: another writer held the lock for five seconds.
Result<PreferencesEditOutcome> editPreferencesFile(const PreferencesPlace& place,
                                                   const std::function<void(PropertyListDictionary&)>& edit);

}  // namespace quorvix::linuxos
